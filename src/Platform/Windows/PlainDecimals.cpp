#include "Platform/PlainDecimals.h"

#include <clocale>
#include <cstdlib>
#include <cstring>

#include <locale.h>

namespace
{

/// What a thread has instead of a language of its own when it goes by the process's.
char by_process[] = "";

} // namespace

/// Does nothing for a host whose language has plain decimals, as nearly all. If there is no memory
/// for the change, the host's decimals stay.
PlainDecimals::PlainDecimals() noexcept : m_before(nullptr)
{
    if (std::strcmp(std::localeconv()->decimal_point, ".") == 0)
        return;
    const bool was_own =
        _configthreadlocale(_ENABLE_PER_THREAD_LOCALE) == _ENABLE_PER_THREAD_LOCALE;
    m_before = was_own ? _strdup(std::setlocale(LC_NUMERIC, nullptr)) : by_process;
    std::setlocale(LC_NUMERIC, "C");
}

PlainDecimals::~PlainDecimals()
{
    if (m_before == by_process) {
        _configthreadlocale(_DISABLE_PER_THREAD_LOCALE);
    } else if (m_before != nullptr) {
        std::setlocale(LC_NUMERIC, static_cast<const char*>(m_before));
        std::free(m_before);
    }
}
