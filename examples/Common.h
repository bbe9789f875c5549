#ifndef EXAMPLES_COMMON_H
#define EXAMPLES_COMMON_H

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#if defined(_WIN32)
#include <io.h>
#else
#include <sys/resource.h>
#include <unistd.h>
#endif

// What the examples share, and what has nothing to do with the pager.

/// Shows on standard error how far a stage is, as a line that counts, if that is a terminal.
/// Can be given to what reports its progress as (done, in all), or told of each of its steps.
class Progress
{
public:
    explicit Progress(std::string stage, std::size_t steps = 0)
        : m_stage(std::move(stage)), m_steps(steps)
    {
    }
    ~Progress()
    {
        if (m_percent >= 0)
            std::fputc('\n', stderr);
    }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void Step() { (*this)(++m_done, m_steps); }

    void operator()(std::uint64_t done, std::uint64_t all)
    {
        const int percent = all == 0 ? 100 : static_cast<int>(done * 100 / all);
        if (!m_on_terminal || percent == m_percent)
            return;
        m_percent = percent;
        std::fprintf(stderr, "\r%s: %d %%", m_stage.c_str(), percent);
    }

private:
    std::string m_stage;
    std::size_t m_steps;
    std::size_t m_done = 0;
#if defined(_WIN32)
    bool m_on_terminal = _isatty(2) != 0;
#else
    bool m_on_terminal = isatty(STDERR_FILENO) == 1;
#endif
    int m_percent = -1;
};

/// Limits this process and its children to `bytes` of address space. Windows has no such limit:
/// there nothing is done. @return whether they are limited.
/// @throws std::system_error
inline bool LimitAddressSpace([[maybe_unused]] std::uint64_t bytes)
{
#if !defined(_WIN32)
    rlimit limit;
    if (getrlimit(RLIMIT_AS, &limit) != 0)
        throw std::system_error(errno, std::generic_category(), "getrlimit");
    limit.rlim_cur = std::min<rlim_t>(bytes, limit.rlim_max);
    if (setrlimit(RLIMIT_AS, &limit) != 0)
        throw std::system_error(errno, std::generic_category(), "setrlimit");
    return true;
#else
    return false;
#endif
}

/// The number that a program's only argument tells, or `otherwise` without one; 0 if it is none,
/// or isn't between `least` and `most`.
inline std::size_t NumberFrom(int argc, char** argv, std::size_t otherwise, std::size_t least,
                              std::size_t most)
{
    if (argc < 2)
        return otherwise;
    const std::string_view text = argv[1];
    std::size_t number = 0;
    const auto [rest, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool whole = error == std::errc() && rest == text.data() + text.size();
    return argc == 2 && whole && number >= least && number <= most ? number : 0;
}

#endif
