#include "Platform/Posix/Allowance.h"

#include "Platform/CoarseTime.h"
#include "Platform/Posix/Turn.h"

#include <algorithm>

#include <unistd.h>

bool Allowance::Take(std::uint64_t size)
{
    const Turn turn(m_in_use);
    if (!turn || size > m_left || Platform::CoarseMilliseconds() >= m_end || m_process != getpid())
        return false;
    m_left -= size;
    return true;
}

void Allowance::Renew(std::uint64_t granted, std::uint64_t taken)
{
    const Turn turn(m_in_use);
    if (!turn)
        return;
    m_left = granted < Plenty ? 0 : Size - std::min(Size, taken);
    m_end = Platform::CoarseMilliseconds() + Moment;
    m_process = getpid();
}
