#include "Zor/Zor_MemoryDetails.h"

#include "Platform/PlainDecimals.h"
#include "Platform/Platform.h"
#include "Zor/Zor_System.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <string_view>

namespace
{
std::uint64_t in_mb(std::uint64_t bytes)
{
    return bytes >> 20;
}

unsigned long long printed(std::uint64_t number)
{
    return number;
}

double with_fraction(std::uint64_t bytes)
{
    return static_cast<double>(bytes) / 1048576;
}

/// A text in a room of its own. What doesn't fit is cut.
class Text
{
public:
    void Add(const char* format, auto... arguments)
    {
        const std::size_t left = sizeof m_text - m_size;
        const PlainDecimals plain;
        const int wanted = std::snprintf(m_text + m_size, left, format, arguments...);
        m_size += std::min(left - 1, static_cast<std::size_t>(std::max(wanted, 0)));
    }
    const char* Begin() const { return m_text; }
    std::size_t Size() const { return m_size; }

private:
    char m_text[6144];
    std::size_t m_size = 0;
};

struct Sum {
    void Add(std::uint64_t more)
    {
        ++count;
        bytes += more;
    }
    std::uint64_t count = 0;
    std::uint64_t bytes = 0;
};

/// What the address space is taken by: this library's stretches in sums, of the others the largest.
class Occupants final : public Platform::Stretches
{
public:
    void Take(const Platform::Stretch& stretch) override
    {
        if (stretch.kind == Platform::Stretch::Kind::OpenMapping)
            return m_open.Add(stretch.size);
        if (stretch.kind == Platform::Stretch::Kind::View)
            return m_views.Add(stretch.size);
        m_others.Add(stretch.size);
        insert(stretch);
    }

    void Describe(Text& text, std::uint64_t most) const
    {
        text.Add("Mappings: %llu", printed(m_open.count + m_views.count + m_others.count));
        if (most != 0)
            text.Add(" of at most %llu", printed(most));
        text.Add("\nOf this library: %llu views of regions, %.1fMB; %llu anchors, %.1fMB\n",
                 printed(m_views.count), with_fraction(m_views.bytes), printed(m_open.count),
                 with_fraction(m_open.bytes));
        text.Add("Others: %llu, %.1fMB\n", printed(m_others.count), with_fraction(m_others.bytes));
        text.Add("The largest others:\n%12s  %-12s %-6s %s\n", "MB", "Address", "Access", "What");
        std::for_each(m_largest, m_largest + m_kept, [&text](const Row& row) { row.Print(text); });
    }

private:
    struct Row {
        void Print(Text& text) const
        {
            text.Add("%12.1f  %012llx %c%c%c%c   %s\n", with_fraction(stretch.size),
                     printed(stretch.begin), stretch.readable ? 'r' : '-',
                     stretch.writable ? 'w' : '-', stretch.executable ? 'x' : '-',
                     stretch.shared ? 's' : 'p', name);
        }
        Platform::Stretch stretch; ///< whose own name is gone
        char name[200];
    };

    /// Keeps it if it is one of the largest, in order.
    void insert(const Platform::Stretch& stretch)
    {
        std::size_t at = m_kept;
        while (at > 0 && m_largest[at - 1].stretch.size < stretch.size)
            --at;
        if (at == std::size(m_largest))
            return;
        m_kept = std::min(m_kept + 1, std::size(m_largest));
        std::copy_backward(m_largest + at, m_largest + m_kept - 1, m_largest + m_kept);
        m_largest[at].stretch = stretch;
        set_name(m_largest[at].name, stretch);
    }

    /// Of a long path, the end says most. Control characters would act on who reads the file.
    template <std::size_t N>
    static void set_name(char (&name)[N], const Platform::Stretch& stretch)
    {
        const std::string_view text = what(stretch);
        const std::size_t left_out = text.size() < N ? 0 : text.size() - (N - 4);
        std::snprintf(name, N, "%s%.*s", left_out != 0 ? "..." : "",
                      static_cast<int>(text.size() - left_out), text.data() + left_out);
        std::replace_if(
            name, name + std::strlen(name),
            [](unsigned char byte) { return byte < ' ' || byte == 127; }, '?');
    }

    static std::string_view what(const Platform::Stretch& stretch)
    {
        switch (stretch.kind) {
        case Platform::Stretch::Kind::Heap:
            return "heap";
        case Platform::Stretch::Kind::Stack:
            return "stack";
        case Platform::Stretch::Kind::Anonymous:
            return "anonymous";
        default:
            return stretch.name;
        }
    }

    Sum m_open;
    Sum m_views;
    Sum m_others;
    Row m_largest[16];
    std::size_t m_kept = 0;
};

} // namespace

void AppendMemoryDetails(const char* path, const Zor_ProcessMemoryInfo& info)
{
    Platform& platform = Platform::Get();
    Text text;
    text.Add("\nProcess Memory Information for PID <%ld>\n", platform.ProcessId());
    text.Add(
        "Used address space: %lluMB; Largest free block: %lluMB; Address space limit: %lluMB\n",
        printed(in_mb(info.used_address_space)), printed(in_mb(info.largest_free_block)),
        printed(in_mb(platform.AddressSpace())));
    Occupants occupants;
    if (platform.ListStretches(occupants))
        occupants.Describe(text, platform.MostStretches());
    platform.AppendToFile(path, text.Begin(), text.Size());
}
