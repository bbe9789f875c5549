#ifndef MEM_VIEWS_H
#define MEM_VIEWS_H

#include "Mem/Mem_BlockTable.h"
#include "Mem/Mem_Counter.h"
#include "Mem/Mem_FifoQueue.h"
#include "Mem/Mem_Hits.h"
#include "Mem/Mem_Reports.h"
#include "Platform/Mappings.h"

#include <cstdint>
#include <vector>

class MEM_MemInfo;

/// Where the views of a pager's blocks began at one moment.
class Mem_ViewAddresses final : public Platform::Mappings::ViewSet
{
public:
    /// Knows of none if there is no memory for them.
    explicit Mem_ViewAddresses(const Mem_BlockTable& blocks);

    bool Has(const void* view) const override;

    /// Bytes of them that huge pages map now. Takes long where views are many: not for a time when
    /// others wait for a lock.
    unsigned long long HugeBytes() const;

private:
    std::vector<const void*> m_sorted;
};

/// The views of a pager's blocks: which blocks have one, who holds it, which of them wait in the
/// cache, and how many bytes that makes. With Mem_Hits, which works beside it, nobody else writes a
/// block's `stat` and `m_ref`, nor its `views`.
///
/// A block's view goes these ways, each by one function that asserts where it comes from:
///
///     unmapped --Open--> open --Hold--> mapped --Mem_Hits--> mapped, cached
///                        open --EnterCache--> cached       mapped --Drop--> unmapped
///                        cached --Mem_Hits, Hold--> mapped
///                        cached --EvictAtLeast, ClearCache--> unmapped
///
/// Open is a step of one operation: an operation leaves no block there. Forget() takes a block out
/// of whatever state it is in.
///
/// The queue and the bytes in the cache lag behind the hits until they are gathered: whatever tells
/// or needs them does that first.
///
/// Threads: the caller holds the pager's mutex; hits go on beside. Only a Place and Open() may
/// allocate or fail.
class Mem_Views
{
public:
    /// Works on the blocks of that table, which must live as long.
    Mem_Views(const Mem_BlockTable& blocks, Mem_Hits& hits) : m_blocks(blocks), m_hits(hits) {}

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
    void Hold(RegisteredBlock& block);

    /// Keeps a view that nobody holds, just opened, for the next who wants it.
    void EnterCache(RegisteredBlock& block);

    /// Counts one holder less. The last one's view ends.
    void Drop(RegisteredBlock& block);

    /// Ends cached views, oldest first, until at least `needed` bytes are free; each is an
    /// interval of `to_shared`. @return false if the cache doesn't hold that much: it is empty
    /// then.
    bool EvictAtLeast(unsigned int needed, Mem_Counter to_shared);

    /// Ends all cached views, in the order of block ids, each the end of an interval of
    /// `to_shared`. One that is hit at this moment may stay.
    void ClearCache(Mem_Counter to_shared);

    /// Forgets a block whose owner is about to go, and what was set aside for it.
    void Forget(RegisteredBlock& block);

    /// Brings the queue up to date with what hits have noted.
    void Gather();

    /// The same in a forked child, where those who were about to note something may be gone.
    void GatherAll();

    /// Asks the system to take back the resident pages of all views. A failure goes to the log.
    void Trim();

    /// The same for one piece of a block. @return 0, also if there is no view; -1 on failure.
    static int Trim(const RegisteredBlock& block, MEM_MemInfo& piece);

    /// Adds to `bytes` those of all views that are in physical memory as this process's.
    /// @return false, with nothing added, if the system doesn't tell.
    bool AddResident(unsigned long long& bytes) const;

    unsigned long long TotalMapped() const { return m_hits.TotalMapped(); }
    unsigned long long TotalCached();
    unsigned long long HeldByClients();

    /// Where the views are at this moment.
    Mem_ViewAddresses Addresses() const { return Mem_ViewAddresses(m_blocks); }

    /// The totals for a report.
    Mem_Mapped Mapped() { return {TotalMapped(), TotalCached(), Addresses().HugeBytes()}; }

    /// Compares states, queue and totals with each other, but for what hits have noted. @return the
    /// first relation that doesn't hold; null if all do.
    const char* Broken() const;

private:
    friend struct Mem_TestAccess;

    class Walk;

    static constexpr char zor_log_source[] = "src/Mem/Mem_MemPager";

    static int trim(Platform::Mappings::Views& views);
    RegisteredBlock* claim_oldest();
    unsigned int end_view(RegisteredBlock& block);
    void trim_if_due(unsigned int unmapped);
    using Hook = boost::intrusive::slist_member_hook<>;
    using ByHook = boost::intrusive::member_hook<RegisteredBlock, Hook, &RegisteredBlock::gathered>;
    using Gathered = boost::intrusive::slist<RegisteredBlock, ByHook>;

    void take_up(RegisteredBlock& block, Mem_Holding word, Gathered& cached);
    void enter_queue(Gathered& cached);
    void enter_queue(const RegisteredBlock& block);
    void leave_queue(const RegisteredBlock& block);

    const Mem_BlockTable& m_blocks;
    Mem_Hits& m_hits;
    MEM_FifoQueue m_cache_queue;                  ///< cached blocks, oldest first, as gathered
    unsigned long long m_total_cached = 0;        ///< bytes of the blocks in the queue
    unsigned long long m_unmapped_since_trim = 0; ///< bytes
};

#endif
