#include "Platform/Posix/Descriptors.h"
#include "Platform/Posix/HugePages.h"
#include "Platform/Posix/LimitFacts.h"
#include "Platform/Posix/Paths.h"
#include "Platform/Posix/Reserve.h"
#include "Platform/Posix/Scoped.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdio>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace
{

constexpr std::size_t tried = 2 * HugePage; // of each miss that is measured
constexpr std::size_t told = 4 * HugePage;  // what its time is told for

/// Addresses that nothing else is mapped at, with a view of a file somewhere among them.
class Addresses
{
public:
    Addresses() : m_begin(mmap(nullptr, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) {}
    ~Addresses()
    {
        if (m_begin != MAP_FAILED)
            munmap(m_begin, size);
    }
    Addresses(const Addresses&) = delete;
    Addresses& operator=(const Addresses&) = delete;

    /// A view that begins `shift` bytes behind where a huge page could; null if there is none.
    char* View(int file, std::size_t shift) const
    {
        if (m_begin == MAP_FAILED)
            return nullptr;
        const auto begin = reinterpret_cast<std::uintptr_t>(m_begin);
        const std::size_t front = (HugePage - begin % HugePage) % HugePage;
        void* const view = mmap(static_cast<char*>(m_begin) + front + shift, tried,
                                PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, file, 0);
        return view == MAP_FAILED ? nullptr : static_cast<char*>(view);
    }

    /// Its addresses stay taken.
    static void EndView(char* view)
    {
        (void)mmap(view, tried, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
    }

private:
    static constexpr std::size_t size = tried + 2 * HugePage;

    void* const m_begin;
};

/// Writes to each page.
void touch(char* view)
{
    auto* const bytes = static_cast<volatile char*>(view);
    for (std::size_t at = 0; at < tried; at += static_cast<std::size_t>(getpagesize()))
        bytes[at] = 1;
}

/// Microseconds, the least of a few, in which a view is made, each of its pages touched, and ended;
/// none if it can't be made. Scaled to what is told.
double miss(const Addresses& addresses, int file, std::size_t shift)
{
    using Clock = std::chrono::steady_clock;
    double least = 0;
    for (int round = 0; round < 5; ++round) {
        const auto start = Clock::now();
        char* const view = addresses.View(file, shift);
        if (view == nullptr)
            return 0;
        touch(view);
        Addresses::EndView(view);
        const std::chrono::duration<double, std::micro> time = Clock::now() - start;
        least = round == 0 ? time.count() : std::min(least, time.count());
    }
    return least * told / tried;
}

/// Makes the file's pages huge ones, if the system can, though it doesn't by itself.
bool collapse(const Addresses& addresses, int file)
{
    char* const view = addresses.View(file, 0);
    return view != nullptr && madvise(view, tried, CollapseAdvice) == 0;
}

const char* name_of(HugePolicy policy)
{
    switch (policy) {
    case HugePolicy::Always:
        return "always";
    case HugePolicy::WithinSize:
        return "within_size";
    case HugePolicy::Advise:
        return "advise";
    case HugePolicy::Never:
        break;
    }
    return "never";
}

/// What a miss takes with pages of both kinds, in words; empty if it can't be measured. Tells
/// whether pages could be made huge ones.
std::string measured(int file, bool& can_be_had)
{
    const Addresses addresses;
    char text[160] = "";
    char* const view = Reserve(file, tried)
                           ? addresses.View(file, static_cast<std::size_t>(getpagesize()))
                           : nullptr;
    if (view == nullptr)
        return text;
    touch(view); // clears them
    const double small = miss(addresses, file, static_cast<std::size_t>(getpagesize()));
    can_be_had = collapse(addresses, file);
    if (can_be_had)
        std::snprintf(text, sizeof text, "; a miss of 8 MB takes %.0f us, with huge pages %.0f us",
                      small, miss(addresses, file, 0));
    else
        std::snprintf(text, sizeof text, "; a miss of 8 MB takes %.0f us", small);
    return text;
}

} // namespace

void LookAtHugePages(const LookedAt& folders, Platform::Inspection::Fact& fact)
{
    const MountedAt& shared = folders.shared;
    const ScopedFile file(OpenDescriptor(shared.folder, O_TMPFILE | O_RDWR, 0600));
    if (shared.error != 0 || shared.on_disk || !file)
        return; // shared memory tells it
    const HugePolicy policy = HugePolicyOf(file.Get());
    bool can_be_had = false;
    const std::string times = measured(file.Get(), can_be_had);
    const std::string mount = std::string("huge=") + name_of(policy) + " in " + shared.folder;
    if (policy != HugePolicy::Never)
        fact.value = mount + times;
    else if (can_be_had)
        fact.value = "asked for (" + mount + ")" + times;
    else
        fact.value = mount + times + "; on by: mount -o remount,huge=within_size " + shared.folder;
}
