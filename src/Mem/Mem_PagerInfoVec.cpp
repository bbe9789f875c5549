#include "Mem/Mem_LocksByHand.h"
#include "Mem/Mem_MemPager.h"
#include "Mem/Mem_Notices.h"
#include "Mem/Mem_PieceRecord.h"

Mem_PagerInfoVecLockGuard::Mem_PagerInfoVecLockGuard(MEM_MemPager* pager, MEM_PagerInfo** infos,
                                                     int count)
    : m_pager(pager), m_infos(infos), m_count(count)
{
    MEM_MemPager::mutex_vec.CatchMutex();
    take_stripes();
    MEM_MemPager::mutex.CatchMutex();
    ++MEM_MemPager::s_hits_held_off;
    hold_off(true);
}

Mem_PagerInfoVecLockGuard::~Mem_PagerInfoVecLockGuard()
{
    const Mem_NoticesAtEnd notices;
    hold_off(false);
    --MEM_MemPager::s_hits_held_off;
    MEM_MemPager::mutex.ReleaseMutex();
    release_stripes();
    MEM_MemPager::mutex_vec.ReleaseMutex();
}

// Each stripe is taken once, though several handles may share it and a guard around this one may
// hold it. Stripes are taken in the order of their numbers, so that two threads that take several
// can't wait for each other; `mutex_vec`, which is held here, would prevent that by itself.
void Mem_PagerInfoVecLockGuard::take_stripes()
{
    for (int i = 0; i < m_count; ++i)
        m_taken.set(static_cast<std::size_t>(m_infos[i]->m_mutex_index));
    for (std::size_t stripe = 0; stripe < m_taken.size(); ++stripe) {
        m_taken[stripe] = m_taken[stripe] && !m_pager->m_stripe_held[stripe];
        if (!m_taken[stripe])
            continue;
        TakeByHand(MEM_PagerInfo::mutex[stripe]);
        m_pager->m_stripe_held[stripe] = true;
    }
}

void Mem_PagerInfoVecLockGuard::release_stripes()
{
    for (std::size_t stripe = 0; stripe < m_taken.size(); ++stripe) {
        if (!m_taken[stripe])
            continue;
        m_pager->m_stripe_held[stripe] = false;
        ReleaseByHand(MEM_PagerInfo::mutex[stripe]);
    }
}

// What goes without a stripe is held off by the pieces themselves, as long as the guard lasts that
// took their stripes.
void Mem_PagerInfoVecLockGuard::hold_off(bool held_off)
{
    for (int i = 0; i < m_count; ++i)
        if (PagerInfoState* const piece = m_infos[i]->m_state;
            piece != nullptr && m_taken[static_cast<std::size_t>(m_infos[i]->m_mutex_index)])
            piece->counts.HoldOff(held_off);
}

/// Counts the handles that a vector operation has mapped, and unmaps them again unless it got
/// through.
class MEM_MemPager::MappedSoFar
{
public:
    explicit MappedSoFar(MEM_PagerInfo** infos) : m_infos(infos) {}
    ~MappedSoFar()
    {
        for (int i = 0; i < m_mapped; ++i)
            m_infos[i]->UnmapWithoutLocks();
    }
    MappedSoFar(const MappedSoFar&) = delete;
    MappedSoFar& operator=(const MappedSoFar&) = delete;

    void AddOne() { ++m_mapped; }
    void KeepAll() { m_mapped = 0; }

private:
    MEM_PagerInfo** m_infos;
    int m_mapped = 0;
};

int MEM_MemPager::MapMemPagerInfoVec(MEM_PagerInfo** infos, int count)
{
    Mem_PagerInfoVecLockGuard lock(this, infos, count);
    MappedSoFar mapped(infos);
    for (int i = 0; i < count; ++i) {
        const int result = infos[i]->MapWithoutLocks();
        if (result != 0)
            return result;
        mapped.AddOne();
    }
    mapped.KeepAll();
    return 0;
}

void MEM_MemPager::UnmapMemPagerInfoVec(MEM_PagerInfo** infos, int count)
{
    Mem_PagerInfoVecLockGuard lock(this, infos, count);
    for (int i = 0; i < count; ++i)
        infos[i]->UnmapWithoutLocks();
}
