#include "Zor/Zor_MemoryDetails.h"

#include "Platform/PlainDecimals.h"
#include "Platform/Process.h"
#include "Platform/Units.h"
#include "Zor/Zor_System.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <string_view>

namespace
{
unsigned long long printed(std::uint64_t number)
{
    return number;
}

/// A text in a buffer of its own. What doesn't fit is cut.
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

/// What the address space is taken by: this library's maps in sums, of the others the largest.
class Occupants final : public Platform::Process::Maps
{
public:
    void Take(const Platform::Process::Map& map) override
    {
        if (map.kind == Platform::Process::Map::Kind::OpenMapping)
            return m_open.Add(map.size);
        if (map.kind == Platform::Process::Map::Kind::View)
            return m_views.Add(map.size);
        m_others.Add(map.size);
        insert(map);
    }

    void Describe(Text& text, std::uint64_t most) const
    {
        text.Add("Mappings: %llu", printed(m_open.count + m_views.count + m_others.count));
        if (most != 0)
            text.Add(" of at most %llu", printed(most));
        text.Add("\nOf this library: %llu views of regions, %.1fMB; %llu anchors, %.1fMB\n",
                 printed(m_views.count), InMb(m_views.bytes), printed(m_open.count),
                 InMb(m_open.bytes));
        text.Add("Others: %llu, %.1fMB\n", printed(m_others.count), InMb(m_others.bytes));
        text.Add("The largest others:\n%12s  %-12s %-6s %s\n", "MB", "Address", "Access", "What");
        std::for_each(m_largest, m_largest + m_kept, [&text](const Row& row) { row.Print(text); });
    }

private:
    struct Row {
        void Print(Text& text) const
        {
            text.Add("%12.1f  %012llx %c%c%c%c   %s\n", InMb(map.size), printed(map.begin),
                     map.readable ? 'r' : '-', map.writable ? 'w' : '-', map.executable ? 'x' : '-',
                     map.shared ? 's' : 'p', name);
        }
        Platform::Process::Map map; ///< whose own name is gone
        char name[200];
    };

    /// Keeps it if it is one of the largest, in order.
    void insert(const Platform::Process::Map& map)
    {
        std::size_t at = m_kept;
        while (at > 0 && m_largest[at - 1].map.size < map.size)
            --at;
        if (at == std::size(m_largest))
            return;
        m_kept = std::min(m_kept + 1, std::size(m_largest));
        std::copy_backward(m_largest + at, m_largest + m_kept - 1, m_largest + m_kept);
        m_largest[at].map = map;
        set_name(m_largest[at].name, map);
    }

    /// Of a long path, the end says most. Control characters would act on who reads the file.
    template <std::size_t N>
    static void set_name(char (&name)[N], const Platform::Process::Map& map)
    {
        const std::string_view text = what(map);
        const std::size_t left_out = text.size() < N ? 0 : text.size() - (N - 4);
        std::snprintf(name, N, "%s%.*s", left_out != 0 ? "..." : "",
                      static_cast<int>(text.size() - left_out), text.data() + left_out);
        std::replace_if(
            name, name + std::strlen(name),
            [](unsigned char byte) { return byte < ' ' || byte == 127; }, '?');
    }

    static std::string_view what(const Platform::Process::Map& map)
    {
        switch (map.kind) {
        case Platform::Process::Map::Kind::Heap:
            return "heap";
        case Platform::Process::Map::Kind::Stack:
            return "stack";
        case Platform::Process::Map::Kind::Anonymous:
            return "anonymous";
        default:
            return map.name;
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
    Platform::Process& process = Platform::Process::Get();
    const Platform::Process::Memory memory = process.MemoryNow();
    Text text;
    text.Add("\nProcess Memory Information for PID <%ld>\n", process.ProcessId());
    text.Add(
        "Used address space: %lluMB; Largest free block: %lluMB; Address space limit: %lluMB\n",
        printed(WholeMb(info.used_address_space)), printed(WholeMb(info.largest_free_block)),
        printed(WholeMb(memory.address_space)));
    Occupants occupants;
    if (process.ListMaps(occupants))
        occupants.Describe(text, memory.most_maps);
    process.AppendToFile(path, text.Begin(), text.Size());
}
