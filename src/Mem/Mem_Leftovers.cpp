#include "Mem/Mem_Leftovers.h"

#include "Mem/Mem_MemInfo.h"

#include <algorithm>
#include <utility>

namespace
{
// How long each of the walks may take, before a later region and when memory or a disk is full.
constexpr Mem_Leftovers::Duration later{2};
constexpr Mem_Leftovers::Duration when_full{70};
constexpr std::chrono::seconds between_two_searches{1};
} // namespace

void Mem_Leftovers::GoOn(Duration most)
{
    if (std::exchange(m_is_busy, true))
        return;
    m_until = Clock::now() + most;
    for (bool is_late = false; !m_place.ended && !is_late; is_late = Clock::now() >= m_until)
        step();
    m_is_busy = false;
}

void Mem_Leftovers::GoRound(Duration most)
{
    const Clock::time_point end = Clock::now() + most;
    if (HasEnded())
        Restart();
    const bool sees_all = m_place.at == 0;
    GoOn(most);
    if (sees_all || !HasEnded())
        return;
    Restart();
    GoOn(std::chrono::duration_cast<Duration>(end - Clock::now()));
}

/// Lists some names and goes on behind them, unless one of them was removed: a system may count the
/// names from the folder's begin, and then a removal moves all later ones. The same names are
/// listed once more in that case.
void Mem_Leftovers::step()
{
    Platform::Mappings::Place next = m_place;
    m_removed_in_step = 0;
    Platform::Mappings::Get().ListNames(m_folder.data(), m_prefix.data(), next, *this);
    if (m_removed_in_step == 0)
        m_place = next;
}

/// Each removal takes time. Once that is over, the step's other names are passed by; since the step
/// has removed something, they are listed again.
void Mem_Leftovers::Take(const char* name)
{
    const bool is_late = m_removed_in_step != 0 && Clock::now() >= m_until;
    if (is_late || !remove_if_left(name))
        return;
    ++m_removed;
    ++m_removed_in_step;
}

Mem_LeftRegions::Mem_LeftRegions(const RWCString& folder)
    : Mem_Leftovers(folder, BaseMapInfo::s_BlockPrefix)
{
}

bool Mem_LeftRegions::remove_if_left(const char* name)
{
    return BaseMapInfo::IsUniqueName(name) &&
           Platform::Mappings::Get().RemoveDeadMapping(m_folder.data(), name);
}

void Mem_CleanUp::Begin()
{
    for (Mem_Leftovers* const walk : m_walks)
        walk->GoOn(Mem_Leftovers::AtFirst);
}

void Mem_CleanUp::GoOn()
{
    const auto next = std::find_if_not(std::begin(m_walks), std::end(m_walks),
                                       [](const Mem_Leftovers* walk) { return walk->HasEnded(); });
    if (next != std::end(m_walks))
        (*next)->GoOn(later);
}

bool Mem_CleanUp::MakeSpace()
{
    const auto now = std::chrono::steady_clock::now();
    if (now < m_not_before)
        return false;
    m_not_before = now + between_two_searches;
    std::size_t before = 0, after = 0;
    for (Mem_Leftovers* const walk : m_walks) {
        before += walk->Removed();
        walk->GoRound(when_full);
        after += walk->Removed();
    }
    return after != before;
}
