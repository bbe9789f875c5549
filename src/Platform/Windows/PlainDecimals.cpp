#include "Platform/PlainDecimals.h"

#include <clocale>
#include <cstdlib>
#include <cstring>

#include <locale.h>

namespace
{

/// Stands for: the thread goes by the process's language, and will again.
char by_process[] = "";

} // namespace

/// Hardly any host chooses another language for numbers, and then nothing is done. One that has
/// done it without memory left keeps its decimals.
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
