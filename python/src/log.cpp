#include "log.h"

#include "NRVlog/Zor_LogFile.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>

namespace mempager::python::log
{
namespace
{
enum class state { free, taken, full };

struct place {
    std::atomic<state> is = state::free;
    record line;
};

std::array<place, 256> places;
std::atomic<std::size_t> next_number = 0;
std::atomic<std::size_t> waiting = 0;
std::atomic<std::size_t> without_place = 0;

template <std::size_t size>
void copy(char (&to)[size], const char* from) noexcept
{
    const std::size_t length = std::min(std::strlen(from), size - 1);
    std::memcpy(to, from, length);
    to[length] = '\0';
    for (std::size_t end = length; end > 0 && to[end - 1] == '\n'; --end)
        to[end - 1] = '\0';
}

void fill(record& to, std::size_t number, const Zor_LogRecord& from) noexcept
{
    to.number = number;
    to.level = from.level;
    to.line = from.line;
    copy(to.source, from.source);
    copy(to.function, from.function);
    copy(to.text, from.text);
}

// Under the library's locks: allocates nothing, waits for nobody.
void keep(const Zor_LogRecord& line) noexcept
{
    const std::size_t number = next_number++;
    place& there = places[number % places.size()];
    state expected = state::free;
    if (!there.is.compare_exchange_strong(expected, state::taken)) {
        ++without_place;
        return;
    }
    fill(there.line, number, line);
    there.is = state::full;
    ++waiting;
}
} // namespace

void listen()
{
    ZorGLog.SetSink(keep);
}

bool is_waiting() noexcept
{
    return waiting.load(std::memory_order_relaxed) != 0;
}

std::vector<record> take(std::size_t& lost)
{
    std::vector<record> lines;
    lines.reserve(places.size());
    for (place& there : places) {
        if (there.is != state::full)
            continue;
        lines.push_back(there.line);
        there.is = state::free;
        --waiting;
    }
    std::ranges::sort(lines, {}, &record::number);
    lost = without_place.exchange(0);
    return lines;
}

void forget() noexcept
{
    for (place& there : places)
        there.is = state::free;
    waiting = 0;
    without_place = 0;
}
} // namespace mempager::python::log
