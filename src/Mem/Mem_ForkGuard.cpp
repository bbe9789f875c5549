#include "Mem/Mem_ForkGuard.h"

#include "Mem/Mem_LocksByHand.h"

#include <algorithm>
#include <new>

namespace
{
/// Takes a lock, or only tries it if this thread holds one that comes later in the order of locks:
/// to wait for it then could last for ever. @return whether it was taken.
bool take(WindowUnixMutex& mutex, bool against_order)
{
    if (against_order)
        return TryByHand(mutex);
    TakeByHand(mutex);
    return true;
}

void make_anew(WindowUnixMutex& mutex)
{
    new (&mutex) WindowUnixMutex;
}
} // namespace

void Mem_ForkGuard::Before()
{
    const bool against_order =
        m_pagers.HeldByThisThread() ||
        std::any_of(m_stripes.begin(), m_stripes.end(),
                    [](const WindowUnixMutex& stripe) { return stripe.HeldByThisThread(); });
    const bool took_vectors = take(m_vectors, against_order);
    std::bitset<kMostStripes> took_stripe;
    for (std::size_t i = 0; i < m_stripes.size(); ++i)
        took_stripe[i] = take(m_stripes[i], against_order);
    TakeByHand(m_pagers);
    m_took_vectors = took_vectors; // another thread may have been forking until now
    m_took_stripe = took_stripe;
}

void Mem_ForkGuard::AfterInParent()
{
    const bool took_vectors = m_took_vectors;
    const std::bitset<kMostStripes> took_stripe = m_took_stripe;
    ReleaseByHand(m_pagers);
    for (std::size_t i = 0; i < m_stripes.size(); ++i)
        if (took_stripe[i])
            ReleaseByHand(m_stripes[i]);
    if (took_vectors)
        ReleaseByHand(m_vectors);
}

bool Mem_ForkGuard::InChild()
{
    for (std::size_t i = 0; i < m_stripes.size(); ++i)
        if (!m_took_stripe[i])
            make_anew(m_stripes[i]);
    if (!m_took_vectors)
        make_anew(m_vectors);
    return m_took_vectors;
}
