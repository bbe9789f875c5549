#ifndef NRVLOG_ZOR_LOG_H
#define NRVLOG_ZOR_LOG_H

#include "NRVlog/Zor_LogFile.h"

#include <cstddef>
#include <string_view>
#include <type_traits>

/// Logs a line of this library: ZOR_LOG("Class::Function", level, "format\n", arguments...).
///
/// The arguments are evaluated only if the line is wanted. A format that they don't fit, in
/// number or in kind, doesn't compile; zor_log::Takes tells which conversion takes what.
///
/// The line's source is what the name zor_log_source stands for where the line is written: the file
/// itself, unless a class or a function has a text of that name, such as "src/Mem/Mem_MemPager".
/// So code that moves to a file of its own can keep its lines' source.
#define ZOR_LOG(function, level, ...)                                                              \
    do {                                                                                           \
        static constexpr auto zor_log_name = ::zor_log::SourceOf(zor_log_source, __FILE__);        \
        const ::zor_log::Site zor_log_site{zor_log_name.text, function, __LINE__, level};          \
        if (zor_log_site.Wanted())                                                                 \
            ::zor_log::Write(zor_log_site, __VA_ARGS__);                                           \
    } while (false)

namespace zor_log
{

/// A text that is worked out at compile time.
template <std::size_t N>
struct Text {
    char text[N] = {};
};

constexpr bool IsSeparator(char byte)
{
    return byte == '/' || byte == '\\';
}

/// Where in a path the source name begins: at the last folder called src or inc, else at the
/// file's own name.
constexpr std::size_t SourceBegin(std::string_view path)
{
    std::size_t begin = path.size();
    while (begin > 0 && !IsSeparator(path[begin - 1]))
        --begin;
    for (std::size_t at = begin; at-- > 0;) {
        const std::string_view folder = path.substr(at, 3);
        if ((folder == "src" || folder == "inc") && IsSeparator(path[at + 3]) &&
            (at == 0 || IsSeparator(path[at - 1])))
            return at;
    }
    return begin;
}

/// The name of a source file in the log: its path from src or inc on, with slashes and without
/// the extension, such as "src/Mem/Mem_MemPager".
template <std::size_t N>
consteval Text<N> SourceName(const char (&file)[N])
{
    const std::string_view path(file, N - 1);
    const std::size_t begin = SourceBegin(path);
    const std::size_t dot = path.rfind('.');
    const std::size_t end = dot == path.npos || dot < begin ? path.size() : dot;
    Text<N> name;
    for (std::size_t at = begin; at < end; ++at)
        name.text[at - begin] = IsSeparator(path[at]) ? '/' : path[at];
    return name;
}

/// Stands for the file that a line is written in.
struct ThisFile {
};

template <std::size_t N>
consteval Text<N> SourceOf(ThisFile, const char (&file)[N])
{
    return SourceName(file);
}

/// A source that was named.
template <std::size_t M, std::size_t N>
consteval Text<M> SourceOf(const char (&named)[M], const char (&)[N])
{
    Text<M> name;
    for (std::size_t at = 0; at < M; ++at)
        name.text[at] = named[at];
    return name;
}

/// Where a line is logged.
struct Site {
    const char* source;
    const char* function;
    int line;
    int level;

    /// Asks the log for the line, and makes it this thread's next.
    bool Wanted() const noexcept
    {
        return ZorGLog.StoreParams(source, function, line, level, 561, 1) != 0;
    }
};

/// Whether the conversion, such as "d" or "lu", takes an argument of type A.
template <class A>
constexpr bool Takes(std::string_view conversion)
{
    if (conversion == "d")
        return std::is_same_v<A, int>;
    if (conversion == "u")
        return std::is_same_v<A, unsigned int>;
    if (conversion == "ld")
        return std::is_same_v<A, long>;
    if (conversion == "lu")
        return std::is_same_v<A, unsigned long>;
    if (conversion == "Iu")
        return std::is_same_v<A, unsigned long long> ||
               (std::is_same_v<A, unsigned long> && sizeof(unsigned long) == 8);
    if (conversion == "s")
        return std::is_same_v<A, const char*> || std::is_same_v<A, char*>;
    if (conversion == "p")
        return std::is_pointer_v<A> || std::is_null_pointer_v<A>;
    return conversion == "f" && std::is_same_v<A, double>;
}

/// Takes the next conversion out of `format`, which begins past it then: flags, width and
/// precision are skipped, "%%" counts as text. Empty at the end.
constexpr std::string_view NextConversion(std::string_view& format)
{
    for (;;) {
        const std::size_t percent = format.find('%');
        if (percent == format.npos)
            return {};
        format.remove_prefix(percent + 1);
        if (!format.starts_with('%'))
            break;
        format.remove_prefix(1);
    }
    while (!format.empty() && std::string_view("-+ #0123456789.").find(format[0]) != format.npos)
        format.remove_prefix(1);
    const bool with_length = format.starts_with('l') || format.starts_with('I');
    const std::string_view conversion = format.substr(0, with_length ? 2 : 1);
    format.remove_prefix(conversion.size());
    return conversion.empty() ? "%" : conversion; // a lone % at the end fits nothing
}

/// Whether the conversions of `format` are those of the arguments, one for each, in order.
template <class... A>
constexpr bool Fits(std::string_view format)
{
    const bool each = (Takes<A>(NextConversion(format)) && ...);
    return each && NextConversion(format).empty();
}

/// A format that was checked against the types of its arguments when it was compiled.
template <class... A>
struct Format {
    template <std::size_t N>
    consteval Format(const char (&format)[N]) : text(format)
    {
        if (N > 1024 || !Fits<A...>(std::string_view(format, N - 1)))
            throw "the format doesn't fit the arguments";
    }
    const char* text;
};

/// An argument as the log's variable arguments take it: %Iu reads a std::size_t.
template <class A>
auto Passed(A argument) noexcept
{
    if constexpr (std::is_same_v<A, unsigned long long>)
        return static_cast<std::size_t>(argument);
    else if constexpr (std::is_pointer_v<A> && !std::is_convertible_v<A, const char*>)
        return reinterpret_cast<const volatile void*>(argument);
    else
        return argument;
}

/// Writes the line of a site that is wanted.
template <class... A>
void Write(const Site& site, Format<std::type_identity_t<A>...> format, A... arguments) noexcept
{
    // Once more: to evaluate the arguments, lines may have been logged.
    if (site.Wanted())
        ZorGLog.Log(format.text, Passed(arguments)...);
}

} // namespace zor_log

inline constexpr zor_log::ThisFile zor_log_source;

#endif
