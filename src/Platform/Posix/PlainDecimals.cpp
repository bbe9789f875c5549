#include "Platform/PlainDecimals.h"

#include <locale.h>

namespace
{

/// The C library has this one ready, so asking for it costs no memory.
locale_t plain_locale() noexcept
{
    static const locale_t plain = newlocale(LC_ALL_MASK, "C", locale_t{});
    return plain;
}

} // namespace

PlainDecimals::PlainDecimals() noexcept : m_before(uselocale(plain_locale())) {}

PlainDecimals::~PlainDecimals()
{
    uselocale(static_cast<locale_t>(m_before));
}
