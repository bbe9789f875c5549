#ifndef RW_RWBOUNDSERR_H
#define RW_RWBOUNDSERR_H

/// @file
/// The error of an index past the end.

#include "mempager_export.h"

#include <cstdint>
#include <exception>

/// An entry of the message catalogue: the words that an RWMessage begins with. The text has to
/// live as long as the entry is used.
struct RWCatalogueEntry {
    const char* text; ///< zero-terminated, not owned
};

/// An index into a table of elements, or into a text.
inline RWCatalogueEntry RWTOOL_INDEXERR()
{
    return {"Index out of range"};
}

/// A position in a sequence.
inline RWCatalogueEntry RWTOOL_INDEX()
{
    return {"Position out of range"};
}

/// The text of an error, such as "Index out of range: 12 in a length of 10".
///
/// Holds its bytes itself, so that making and copying it allocates nothing; a longer text is cut
/// to 127 bytes. Threads: as an int.
class MEMPAGER_EXPORT RWMessage
{
public:
    /// A negative index, widened with its sign, reads as the huge number that it was compared as.
    RWMessage(RWCatalogueEntry entry, std::uint64_t index, std::uint64_t length) noexcept;

    /// The zero-terminated text; lives as long as this object.
    const char* Text() const noexcept { return m_text; }

private:
    char m_text[128];
};

/// An index at or past the length of what it points into: a fault in the caller, before which
/// nothing was changed. Copying it allocates nothing and never throws.
class MEMPAGER_EXPORT RWBoundsErr : public std::exception
{
public:
    /// An error with that text.
    explicit RWBoundsErr(const RWMessage& message) noexcept : m_message(message) {}
    /// An error with the same text.
    RWBoundsErr(const RWBoundsErr&) noexcept = default;
    /// Takes the other's text.
    RWBoundsErr& operator=(const RWBoundsErr&) noexcept = default;
    ~RWBoundsErr() override;

    /// The message's text; lives as long as this object.
    const char* what() const noexcept override { return m_message.Text(); }

private:
    RWMessage m_message;
};

/// Throws a copy of `error`: the one place that a bounds error leaves from.
template <class Error>
[[noreturn]] void RWThrow(const Error& error)
{
    throw error;
}

#endif
