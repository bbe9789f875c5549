#include "log.h"

#include "NRVlog/Zor_LogFile.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace mempager::python::log
{
namespace
{
enum class state { free, taken, full };

struct place {
    std::atomic<state> is = state::free;
    record line;
};

struct last_failure {
    std::size_t length = 0;
    char text[1600] = "";
};

constexpr int kFailure = 3; // the level of failures; graver ones are below

std::array<place, 256> places;
std::atomic<std::size_t> next_number = 0;
std::atomic<std::size_t> waiting = 0;
std::atomic<std::size_t> without_place = 0;
thread_local last_failure failure;

template <std::size_t size>
void copy(char (&to)[size], const char* from) noexcept
{
    const std::size_t length = std::min(std::strlen(from), size - 1);
    std::memcpy(to, from, length);
    to[length] = '\0';
    for (std::size_t end = length; end > 0 && to[end - 1] == '\n'; --end)
        to[end - 1] = '\0';
}

/// Without the tabs and line ends around it.
std::string_view bare(std::string_view text) noexcept
{
    constexpr std::string_view space = " \t\n";
    const std::size_t first = std::min(text.find_first_not_of(space), text.size());
    return text.substr(first, text.find_last_not_of(space) + 1 - first);
}

void remember_cause(const Zor_LogRecord& line) noexcept
{
    if (line.level > kFailure)
        return;
    const std::string_view text = bare(line.text);
    const std::size_t room = sizeof failure.text - failure.length;
    const int end = std::snprintf(failure.text + failure.length, room, "%s%.*s",
                                  failure.length != 0 ? "; " : "", int(text.size()), text.data());
    failure.length += std::min(std::size_t(std::max(end, 0)), room - 1);
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
    remember_cause(line);
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

void clear_cause() noexcept
{
    failure.length = 0;
}

std::string cause()
{
    return {failure.text, failure.length};
}
} // namespace mempager::python::log
