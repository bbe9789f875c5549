#ifndef MEM_LEFTOVERS_H
#define MEM_LEFTOVERS_H

#include "Platform/Mappings.h"
#include "Rw/RWCString.h"

#include <chrono>
#include <cstddef>

/// A walk over one folder, in steps, that removes what dead processes have left there. Where a step
/// stopped, the next one goes on: others can put any number of names in the way, of which none may
/// cost a creation more than its share.
///
/// Steps allocate nothing. Threads: under the pager's mutex, as the heaps.
class Mem_Leftovers : private Platform::Mappings::Names
{
public:
    using Duration = std::chrono::milliseconds;

    /// What is spent on a folder before the first region, at each of two occasions at the most.
    static constexpr Duration AtFirst{12};

    Mem_Leftovers(const Mem_Leftovers&) = delete;
    Mem_Leftovers& operator=(const Mem_Leftovers&) = delete;

    /// Begins anew.
    void Restart() { m_place = {}; }

    /// Goes on for at least a few names, until the folder ends or about so much time is over.
    /// Does nothing from within a step.
    void GoOn(Duration most);

    /// As GoOn(), but goes through all of the folder if there is the time.
    void GoRound(Duration most);

    bool HasEnded() const { return m_place.ended; }

    /// How many were removed since the object was made.
    std::size_t Removed() const { return m_removed; }

protected:
    /// Of names that begin with `prefix`.
    Mem_Leftovers(const RWCString& folder, const RWCString& prefix)
        : m_folder(folder), m_prefix(prefix)
    {
    }
    ~Mem_Leftovers() = default;

    /// Judges what bears that name, and removes it if it is a leftover. @return whether it was.
    virtual bool remove_if_left(const char* name) = 0;

    const RWCString m_folder;

private:
    using Clock = std::chrono::steady_clock;

    void Take(const char* name) override;
    void step();

    const RWCString m_prefix;
    Platform::Mappings::Place m_place;
    Clock::time_point m_until;
    std::size_t m_removed = 0;
    std::size_t m_removed_in_step = 0;
    bool m_is_busy = false; // a log's sink may come back
};

/// The walk over a folder that regions have their names in.
class Mem_LeftRegions final : public Mem_Leftovers
{
public:
    explicit Mem_LeftRegions(const RWCString& folder);

private:
    bool remove_if_left(const char* name) override;
};

/// What the process does about leftovers, in all folders: some of it before its first region, the
/// rest bit by bit before later ones, and once more when memory or a disk is full.
class Mem_CleanUp
{
public:
    /// Takes the walks, which live as long as the process, in the order to go them.
    Mem_CleanUp(Mem_Leftovers& first, Mem_Leftovers& second, Mem_Leftovers& third)
        : m_walks{&first, &second, &third}
    {
    }

    /// The part before the first region.
    void Begin();

    /// A small part, if there is something to do still.
    void GoOn();

    /// Removes leftovers, so that what they take can be used, at most once a second.
    /// @return whether there were any.
    bool MakeSpace();

private:
    Mem_Leftovers* const m_walks[3];
    std::chrono::steady_clock::time_point m_not_before;
};

#endif
