#ifndef MEM_MEMPAGERINFO_H
#define MEM_MEMPAGERINFO_H

/// @file
/// The client's handle to a piece.

#include "Fibrex/WindowUnixMutex.h"
#include "mempager_export.h"

#include <atomic>
#include <memory>
#include <new>

class MEM_MemInfo;
class MEM_MemPager;

/// What MEM_PagerInfo::ReleaseIfUnmapped() did.
enum MEM_RESPONSE {
    MEM_RELEASED = 1,        ///< the piece is gone, or one handle remains, as was asked
    MEM_INVALID = 2,         ///< the handle was empty
    MEM_STILL_MAPPED = 3,    ///< nothing done: the piece is mapped
    MEM_STILL_SHARED = 4,    ///< nothing done: other handles share the piece
    MEM_DETACHED_MAPPED = 5, ///< this handle left; the piece stays, mapped by others
    MEM_DETACHED_SHARED = 6, ///< this handle left; the piece stays, unmapped
};

/// What is about to be done with bytes of a piece; see MEM_PagerInfo::Prefetch().
enum MEM_ACCESS {
    MEM_TO_READ = 1,  ///< they will be read
    MEM_TO_WRITE = 2, ///< they will be written, and perhaps read
};

struct PagerInfoState;

/// A client's handle to one piece of memory: small, copyable, counted.
///
/// Copies share the piece; the piece lives until the last of them goes, or until
/// MEM_MemPager::Free(). Each handle holds a number of mappings of its own: a copy of a mapped
/// handle starts with one, and every Map() wants its Unmap(). The memory may be touched through
/// a handle for as long as that handle holds a mapping.
///
///     MEM_PagerInfo info;
///     if (MEM_MemPager::GetHandle()->Allocate(size, &info, 0) == 0) {  // born mapped
///         fill(info.Ptr(), size);
///         info.Unmap();
///         if (info.Map() == 0)
///             use(info.Ptr(), size);                                  // may have moved
///     }
///
/// Threads: any thread may use any handle. Different handles, copies of one piece included, need
/// no care. Map(), Unmap(), Cache() and being copied are safe on one and the same handle object
/// too; assigning to it, releasing it and destroying it aren't, and what Ptr() and its like
/// return holds only as long as this handle's mapping does.
///
/// Errors: Map(), Unmap() and Cache() that need the pager throw RWBoundsErr and change nothing if
/// the piece was freed. While any handle still counts a mapping of it, Map() and Unmap() need no
/// pager and go on counting.
class MEMPAGER_EXPORT MEM_PagerInfo
{
public:
    /// An empty handle.
    MEM_PagerInfo() = default;

    /// An empty handle bound to `pager`, which is not owned.
    explicit MEM_PagerInfo(MEM_MemPager* pager);

    /// An unmapped copy of `other`, or, if that is null, an empty handle bound to `pager`.
    MEM_PagerInfo(const MEM_PagerInfo* other, MEM_MemPager* pager);

    /// A handle on a new record; see Assign().
    MEM_PagerInfo(int blk_id, MEM_MemPager* pager, MEM_MemInfo* info, bool mapped);

    /// A copy that holds one mapping if anybody holds one, else none. The bool plays no part.
    MEM_PagerInfo(const MEM_PagerInfo& other, bool = false);

    /// Gives up what this handle held, then copies as the copy constructor does. Nothing happens
    /// between handles on the same piece.
    MEM_PagerInfo& operator=(const MEM_PagerInfo& other);

    /// Takes over what the other holds, mappings included, and leaves it as Release() does: so a
    /// vector of handles that grows copies none. For one thread, as releasing is.
    MEM_PagerInfo(MEM_PagerInfo&& other) noexcept;

    /// Gives up what this handle held, then takes over as the above does. Nothing happens between
    /// handles on the same piece.
    MEM_PagerInfo& operator=(MEM_PagerInfo&& other) noexcept;

    /// The same as the copy's, for a copy that holds no mapping.
    void GetUnmappedInfo(const MEM_PagerInfo& other);

    /// Gives up the handle. The last one on a piece frees it, mapped or not. Mappings that the
    /// handle still holds are not unmapped: Unmap() what you have mapped.
    ~MEM_PagerInfo();

    /// Makes a new shared record for `info`, a piece on block `blk_id` of `pager`, with one
    /// mapping if `mapped`. A record that the handle had is left behind, with a warning in the
    /// log. For the pager; throws std::bad_alloc with the handle unchanged.
    void Assign(int blk_id, MEM_MemPager* pager, MEM_MemInfo* info, bool mapped);

    /// The block's id; -1 if the handle is empty or the piece was freed.
    int Block() const;

    /// The piece's first byte; null unless this handle holds a mapping.
    void* Ptr() const;

    /// The piece's size in bytes; 0 unless this handle holds a mapping. See GetAllocatedSize().
    unsigned long long Size() const;

    /// The piece's offset in its region in bytes; 0 unless this handle holds a mapping.
    unsigned int Offset() const;

    /// The region's system handle; null unless this handle holds a mapping.
    void* GetHandle() const;

    /// The piece's offset in the system mapping in bytes; 0 unless this handle holds a mapping.
    unsigned int GetHandleOffset() const;

    /// The piece's size in bytes, mapped or not, and also after Release().
    unsigned int GetAllocatedSize() const { return m_allocated_size; }

    /// Whether the handle is on a piece.
    bool IsValid() const { return m_state != nullptr; }

    /// The piece's descriptor, not owned; null for an empty handle.
    MEM_MemInfo* GetMemInfoPtr() const;

    /// Makes the piece usable at Ptr(). A view that still waits in the cache comes back without
    /// a system call; so does one that anybody else holds. The address can differ from the last
    /// one.
    /// @return 0; -1 if the handle is empty, or if there is no room even after the cache was
    ///         given up: nothing else has changed then, and the log says why.
    int Map();

    /// Gives one mapping of this handle back. With the last one of its block the view goes to
    /// the cache, and older views of at least its size leave if the limit is exceeded.
    /// Allocates nothing. @return 0; -1 if the handle is empty or holds no mapping.
    int Unmap();

    /// Maps the piece's block ahead of need, for a Map() to come that then costs no system call.
    /// @return 0 if the block has a view now; -1 if the handle is empty, or if mapped memory
    ///         exceeds the limit, or if there is no room: the cache isn't cleared for this.
    int Cache();

    /// Asks the system to take the piece's resident pages back, as MEM_MemPager's operation of that
    /// name does for all pieces: contents and mappings stay, and the next touch brings a page
    /// back. Needs no mapping. Neighbours in the same pages are concerned as well; on Windows,
    /// which has no call for a part, the whole process.
    /// @return 0, also if the piece has no view and so no pages here; -1 if the handle is empty,
    ///         or if the system refuses, which a line in the log tells.
    /// @throws RWBoundsErr if the piece was freed.
    int ReduceWorkingSet();

    /// Says that `size` bytes from `offset` on are about to be used, all or most of them: the
    /// system finds their pages at once, which takes less than if each had to stop the program at
    /// its first touch. Where they were found already it takes little, and where the system can't
    /// do it nothing. Nothing but time depends on it. The pager isn't asked: nobody waits
    /// meanwhile.
    /// @return 0 if the bytes are ready; -1 if not: the handle holds no mapping, or the piece ends
    ///         before, or is another process's and so never written to, or the system can't.
    int Prefetch(unsigned long long offset, unsigned long long size, MEM_ACCESS access) const;

    /// Gives up what the handle held and makes it empty, as the destructor does.
    void Release();

    /// Gives the handle up if nobody uses the piece. See MEM_RESPONSE for the results.
    /// @param force_detach leave the piece also if other handles share it or have it mapped.
    /// @param last_counts_as_released answer MEM_RELEASED if one other handle remains.
    MEM_RESPONSE ReleaseIfUnmapped(bool force_detach, bool last_counts_as_released);

    /// Marks the piece as freed, for all handles on it. For the pager.
    void Reset();

private:
    friend struct Mem_TestAccess;
    friend class MEM_MemPager;
    friend class Mem_PagerInfoVecLockGuard;

    static constexpr unsigned int kStripes = 50;

    /// Laundered, so that compilers keep the one address and don't work it out at each use.
    WindowUnixMutex& stripe() const { return *std::launder(&mutex[m_mutex_index]); }
    static int next_stripe();
    bool holds_mapping() const;
    int map_count() const { return m_map_count.load(std::memory_order_relaxed); }
    void set_map_count(int count) { m_map_count.store(count, std::memory_order_relaxed); }
    bool take_mapping();
    void add_mapping() { m_map_count.fetch_add(1, std::memory_order_relaxed); }
    bool unmap_nested();
    void copy(const MEM_PagerInfo& other, bool map);
    void take(MEM_PagerInfo& other) noexcept;
    void release();
    void detach(int left);
    void free_piece();
    void assign(std::unique_ptr<PagerInfoState> state, int blk_id, MEM_MemPager* pager);
    void SetMemPager(MEM_MemPager* pager) { m_pager = pager; }
    void SetBlkId(int blk_id);
    int MapWithoutLocks();
    int UnmapWithoutLocks();

    int refuse_unmap(const char* function) const;
    template <class MapBlock>
    int count_map(MapBlock map_block);
    template <class UnmapBlock>
    int count_unmap(UnmapBlock unmap_block);

    /// The stripes, dealt in turn to the pieces; all copies of a handle keep the first's.
    static WindowUnixMutex mutex[kStripes];
    static std::atomic<unsigned int> m_MutexCounter;

    PagerInfoState* m_state = nullptr;
    int m_mutex_index = 0;
    std::atomic<int> m_map_count = 0; // of the record's, those that this handle holds
    unsigned int m_allocated_size = 0;
    MEM_MemPager* m_pager = nullptr;
};

#endif
