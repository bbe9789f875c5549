#ifndef RW_RWTOKENIZER_H
#define RW_RWTOKENIZER_H

#include "Rw/RWCString.h"

/// Takes a string apart, token by token. Holds a copy of the string, which shares its buffer.
/// Threads: one at a time.
class RWCTokenizer
{
public:
    /// Begins at the start of `text`.
    explicit RWCTokenizer(const RWCString& text) noexcept : m_text(text) {}

    /// The next token: the longest stretch without any byte of `delimiters`, behind those that
    /// stand before it; so no token is empty. The delimiter that ends it is used up. The
    /// delimiters may differ from call to call; with null or none, the token is all that is left.
    /// @return an empty stretch when there is no token left. Allocates nothing.
    RWCSubString operator()(const char* delimiters) noexcept
    {
        const std::string_view text = m_text.view();
        const std::string_view apart = RWCString::text_view(delimiters);
        const std::size_t begin = end_or(text.find_first_not_of(apart, m_next));
        const std::size_t end = end_or(text.find_first_of(apart, begin));
        m_next = end + 1; // past the end is no harm
        return RWCSubString(m_text, begin, end - begin);
    }

private:
    std::size_t end_or(std::size_t position) const noexcept
    {
        return position == std::string_view::npos ? m_text.length() : position;
    }

    RWCString m_text;
    std::size_t m_next = 0;
};

#endif
