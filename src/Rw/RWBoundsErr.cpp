#include "Rw/RWBoundsErr.h"

#include <cinttypes>
#include <cstdio>

RWMessage::RWMessage(RWCatalogueEntry entry, std::uint64_t index, std::uint64_t length) noexcept
{
    std::snprintf(m_text, sizeof m_text, "%s: %" PRIu64 " in a length of %" PRIu64, entry.text,
                  index, length);
}

// Out of line: the type's identity lives in one library, so that a client can catch it.
RWBoundsErr::~RWBoundsErr() = default;
