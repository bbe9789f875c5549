#ifndef MEMPAGER_ERROR_H
#define MEMPAGER_ERROR_H

#include "Mem/Mem_Reason.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <new>
#include <ostream>
#include <string>
#include <system_error>
#include <utility>

/// A typed layer over the pager, in the standard library's style. Everything in it is inline.
///
/// Errors are told in the same two ways throughout. A call throws mempager::error, which is a
/// std::bad_alloc; its form with a std::error_code as the last argument throws nothing, sets the
/// code, or clears it, and returns an empty result after a failure. A call that has failed
/// changes nothing, and the library's log has said more about it at level 3.
namespace mempager
{
/// What a call of this layer can fail for.
enum class errc {
    no_memory = 1,  ///< shared memory and temp files have no room, even without the cache
    no_room,        ///< the address space has none for a view, even without the cache
    too_large,      ///< more than a piece, or than 64 bits, can count
    in_use,         ///< cursors live on the buffer, so that it can't be resized, or it is resized
    bad_descriptor, ///< no descriptor, of no such elements, or of memory that this process made
    bad_file,       ///< the file isn't a whole number of elements
};

/// @cond
namespace detail
{
class category_of_errc final : public std::error_category
{
public:
    const char* name() const noexcept override { return "mempager"; }
    std::string message(int code) const override { return text(static_cast<errc>(code)); }
    std::error_condition default_error_condition(int code) const noexcept override
    {
        return condition(static_cast<errc>(code));
    }

private:
    static const char* text(errc code) noexcept
    {
        switch (code) {
        case errc::no_memory:
            return "no memory left for it";
        case errc::no_room:
            return "no room to map it";
        case errc::too_large:
            return "too large";
        case errc::in_use:
            return "in use by a cursor, or being resized";
        case errc::bad_descriptor:
            return "not a descriptor of such elements from another process";
        case errc::bad_file:
            return "not a file of such elements";
        }
        return "unknown error";
    }
    static std::errc condition(errc code) noexcept
    {
        switch (code) {
        case errc::no_memory:
        case errc::no_room:
            return std::errc::not_enough_memory;
        case errc::too_large:
            return std::errc::value_too_large;
        case errc::in_use:
            return std::errc::device_or_resource_busy;
        default:
            return std::errc::invalid_argument;
        }
    }
};
} // namespace detail
/// @endcond

/// The category of the codes above, named "mempager". They compare equal to the conditions of
/// std::errc that mean the same: not_enough_memory, value_too_large, device_or_resource_busy and
/// invalid_argument. Threads: any.
inline const std::error_category& category() noexcept
{
    static const detail::category_of_errc the_category;
    return the_category;
}

/// For std::error_code, which makes itself of an errc by it.
inline std::error_code make_error_code(errc code) noexcept
{
    return {static_cast<int>(code), category()};
}

/// Why a call failed, as a record. Streamed, it is one line without an end.
struct reason {
    /// Which kind of failure it is.
    errc code = errc::no_memory;
    const char* operation = ""; ///< as "piece::map"; lives as long as the program
    std::uint64_t wanted = 0;   ///< bytes; 0 where none were asked for
    /// What the pager refused, and for which limit; of no operation where it wasn't asked.
    Mem_Reason cause = {};
};

/// What failing calls throw. Copying it allocates nothing.
class error final : public std::bad_alloc
{
public:
    /// Of a failure that `why` tells of.
    explicit error(const reason& why) : m_why(why)
    {
        const std::string text = make_error_code(why.code).message();
        const int end = std::snprintf(m_text, sizeof m_text, "%s: %s", why.operation, text.c_str());
        const auto at = static_cast<std::size_t>(end);
        if (why.wanted != 0 && end > 0 && at < sizeof m_text)
            std::snprintf(m_text + at, sizeof m_text - at, " (%llu bytes wanted)",
                          static_cast<unsigned long long>(why.wanted));
        if (why.cause.operation != Mem_Reason::Operation::None)
            append_cause();
    }

    /// Which kind of failure it is.
    std::error_code code() const noexcept { return make_error_code(m_why.code); }
    /// What is known of the failure; lives as long as this.
    const reason& why() const noexcept { return m_why; }

    /// The reason's line.
    const char* what() const noexcept override { return m_text; }

private:
    void append_cause() noexcept
    {
        const std::size_t at = std::strlen(m_text);
        std::snprintf(m_text + at, sizeof m_text - at, ": ");
        const std::size_t behind = std::strlen(m_text);
        m_why.cause.Describe(m_text + behind, sizeof m_text - behind);
    }

    reason m_why;
    char m_text[448] = "";
};

/// Writes one readable line.
inline std::ostream& operator<<(std::ostream& out, const reason& why)
{
    return out << error(why).what();
}

namespace detail
{
/// The one place that a failed call of the pager becomes a reason.
[[noreturn]] inline void fail(errc code, const char* operation, std::uint64_t wanted = 0)
{
    const bool is_refused =
        code == errc::no_memory || code == errc::no_room || code == errc::bad_descriptor;
    throw error({code, operation, wanted, is_refused ? Mem_Reason::Last() : Mem_Reason{}});
}

/// The result of `call`, or an empty one with the code of what it threw.
template <class Call>
auto told(std::error_code& code, Call&& call) -> decltype(call())
{
    code.clear();
    try {
        return std::forward<Call>(call)();
    } catch (const error& failure) {
        code = failure.code();
    } catch (const std::bad_alloc&) {
        code = make_error_code(errc::no_memory);
    } catch (const std::system_error& failure) {
        code = failure.code();
    }
    return decltype(call())();
}
} // namespace detail
} // namespace mempager

/// Values of errc make error codes by themselves.
template <>
struct std::is_error_code_enum<mempager::errc> : std::true_type {
};

#endif
