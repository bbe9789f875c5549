#ifndef MEM_VIEWS_H
#define MEM_VIEWS_H

#include "Mem/Mem_BlockTable.h"
#include "Mem/Mem_Counter.h"
#include "Mem/Mem_FifoQueue.h"
#include "Mem/Mem_Reports.h"

#include <cstdint>

/// The views of a pager's blocks: which blocks have one, who holds it, which of them wait in the
/// cache, and how many bytes that makes. Nobody else writes a block's `stat`, `m_ref`
/// and `views`.
///
/// A block's view goes these ways, each by one function that asserts where it comes from:
///
///     unmapped --Open--> open --Hold--> mapped --LetGo (the last)--> let go
///                        open --EnterCache--> cached              let go --EnterCache--> cached
///                        cached --Hold--> mapped                  let go --Drop--> unmapped
///                        cached --EvictAtLeast, ClearCache--> unmapped
///
/// Open and let go are steps of one operation: an operation leaves no block there. Forget() takes
/// a block out of whatever state it is in.
///
/// Threads: the caller holds the pager's mutex. Only a Place and Open() may allocate or fail.
class Mem_Views
{
public:
    /// Works on the blocks of that table, which must live as long.
    explicit Mem_Views(const Mem_BlockTable& blocks) : m_blocks(blocks) {}

    Mem_Views(const Mem_Views&) = delete;
    Mem_Views& operator=(const Mem_Views&) = delete;

    /// What a new block's id needs to enter the cache later, set aside; taken back unless kept.
    class Place
    {
    public:
        /// Throws std::bad_alloc, with nothing changed.
        Place(Mem_Views& views, int id) : m_queue(views.m_cache_queue), m_id(id)
        {
            m_queue.Reserve(id);
        }
        ~Place()
        {
            if (m_id >= 0)
                m_queue.Release(m_id);
        }
        Place(const Place&) = delete;
        Place& operator=(const Place&) = delete;

        void Keep() { m_id = -1; }

    private:
        MEM_FifoQueue& m_queue;
        int m_id;
    };

    /// Whether the block's region is mapped, whoever may hold it.
    static bool HasView(const RegisteredBlock& block);

    /// Gives a block without a view one. @return 0; the owner's failure, with nothing changed.
    int Open(RegisteredBlock& block);

    /// Counts one more holder of a block that has a view. One that was cached leaves the cache.
    void Hold(int id, RegisteredBlock& block);

    /// Counts one holder less. @return whether that was the last: then the view enters the cache
    /// or is dropped.
    bool LetGo(RegisteredBlock& block);

    /// Keeps a view that nobody holds for the next who wants it.
    void EnterCache(int id, RegisteredBlock& block);

    /// Ends a view that nobody holds any more.
    void Drop(RegisteredBlock& block);

    /// Ends cached views, oldest first, until at least `needed` bytes are free; each is an
    /// interval of `to_shared`. @return false if the cache doesn't hold that much: it is empty
    /// then.
    bool EvictAtLeast(unsigned int needed, Mem_Counter to_shared);

    /// Ends all cached views, in the order of block ids, each the end of an interval of
    /// `to_shared`.
    void ClearCache(Mem_Counter to_shared);

    /// Forgets a block whose owner is about to go, and what was set aside for it.
    void Forget(int id, RegisteredBlock& block);

    /// Asks the system to take back the resident pages of all views. A failure goes to the log.
    void Trim();

    unsigned long long TotalMapped() const { return m_total_mapped; }
    unsigned long long TotalCached() const { return m_total_cached; }
    unsigned long long HeldByClients() const { return m_total_mapped - m_total_cached; }

    /// Bytes of views that huge pages map at this moment.
    unsigned long long HugeBytes() const;

    /// The totals for a report.
    Mem_Mapped Mapped() const { return {m_total_mapped, m_total_cached, HugeBytes()}; }

    /// Compares states, queue and totals with each other. @return the first relation that doesn't
    /// hold; null if all do.
    const char* Broken() const;

private:
    friend struct Mem_TestAccess;

    class Walk;
    class All;

    static constexpr char zor_log_source[] = "src/Mem/Mem_MemPager";

    unsigned int end_view(RegisteredBlock& block);
    void trim_if_due(unsigned int unmapped);

    const Mem_BlockTable& m_blocks;
    MEM_FifoQueue m_cache_queue;                  ///< cached blocks, oldest first
    unsigned long long m_total_mapped = 0;        ///< bytes of all views
    unsigned long long m_total_cached = 0;        ///< of those, in the cache
    unsigned long long m_unmapped_since_trim = 0; ///< bytes
};

#endif
