#ifndef MEM_MEMPAGER_H
#define MEM_MEMPAGER_H

#include "Fibrex/WindowUnixMutex.h"
#include "Mem/Mem_MemPagerInfo.h"
#include "Mem/Mem_Notice.h"
#include "Mem/Mem_Reason.h"
#include "Mem/Mem_Status.h"
#include "Rw/RWBoundsErr.h"
#include "Rw/RWCString.h"
#include "mempager_export.h"

#include <atomic>
#include <bitset>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

class MEM_MemInfo;
class Mem_Counter;
class Mem_ForkGuard;
class Mem_Hits;
struct Mem_FailedAllocation;
class ShmmHeap;
class Zor_oBuffer;
struct RegisteredBlock;

/// The object that all memory of the library is obtained from.
///
/// A piece is one allocation; a block is the region that holds it, shared with other pieces if
/// they are small. A mapping always maps the whole block. Blocks that nobody holds mapped keep
/// their views in a cache until mapped memory exceeds MEM_MemoryConfiguration's
/// HeapCacheInBytes() and room is needed; the oldest go first. Memory that clients hold mapped
/// counts against that limit but is never dropped for it.
///
/// docs/architecture.md follows one request through all layers, docs/reclaim.md tells what happens
/// when memory runs short, and docs/sharing.md how a piece is read by another process.
///
/// When memory runs short, the cache is given up and the operation tried once more. What still
/// fails is told by the result, after log lines that say what was asked and what is in use, and by
/// Mem_Reason::Last(). What fails for the same cause within a second is told in the log once, with
/// a count. What only takes longer than it should is told to SetNoticeHook()'s function.
///
/// Threads: any thread may call any public operation. Three kinds of lock, all recursive and
/// class-wide, taken in this order: `mutex_vec` (vector operations), a stripe of the handles,
/// `mutex`. What a handle maps, or gives back, while its block keeps its view needs the stripe
/// alone, and while its piece is mapped otherwise no lock (docs/hits.md). Nothing is called back
/// with them held, but for the log's sink and the virtual getters of the configuration.
///
/// fork: a child has its parent's pieces, and what it writes there the parent sees; the names and
/// files stay the parent's. New pieces of the child get regions of their own.
///
/// Lifetime: a pager lives from the first GetHandle() until the process ends, and is never copied.
/// At the end (when destructors of static objects run) it gives its cache up and closes down: from
/// then on every operation is refused quietly, by -1, 0 or an empty handle, to threads that still
/// run, to functions of atexit() and to static objects that come later. Handles may outlive it;
/// what they have mapped stays mapped, and releasing them touches nothing but their own record.
class MEMPAGER_EXPORT MEM_MemPager
{
public:
    /// The process's general pager, made at the first call. Not owned by the caller.
    /// The first call can throw std::bad_alloc; the next one tries again.
    static MEM_MemPager* GetHandle();

    /// A second pager with tables and a cache of its own, for clients that want to be accounted
    /// for apart. Pieces of the two never share a block. After SetSingleHandleInMemPager() it
    /// is the same as GetHandle().
    static MEM_MemPager* GetHandleForMP();

    /// Makes GetHandleForMP() return GetHandle() from now on. What the second pager holds by
    /// then lives on.
    static void SetSingleHandleInMemPager();

    MEM_MemPager(const MEM_MemPager&) = delete;
    MEM_MemPager& operator=(const MEM_MemPager&) = delete;

    /// Clears the cache and logs one line for each block that wasn't freed. The process's pagers do
    /// that at its end and are never destroyed.
    virtual ~MEM_MemPager();

    /// A new piece of `size` bytes, mapped once, in `*info`. What `*info` held is given up first,
    /// also if the call fails. The memory is zero unless it served another piece before.
    ///
    /// @param size 1 to 4294967295 bytes; 0 is refused with a log line.
    /// @param info must not be null; empty after a failure.
    /// @param alignment the piece's offset in its region, and so its address, is a multiple of
    ///        this many bytes as far as it divides the system's page size; 0 for none.
    /// @return 0; -1 if memory can't be had even after the cache was given up, with a report in
    ///         the log.
    /// @throws std::bad_alloc if the library's own records can't be allocated; nothing but the
    ///         old content of `*info` is lost then.
    int Allocate(unsigned int size, MEM_PagerInfo* info, int alignment);

    /// The same, for pieces to be kept apart: only pieces with equal `always_mapped` and equal
    /// `group_id` share a region. Neither has any other effect.
    int Allocate(unsigned int size, MEM_PagerInfo* info, int alignment, unsigned int always_mapped,
                 unsigned int group_id);

    /// Frees the piece of `info`, mapped or not, for all handles on it; nothing for an empty
    /// handle or a piece that is gone. No copy of the handle may be in use at that moment, and
    /// the piece's pointer is invalid afterwards. Allocates nothing.
    /// @return 0.
    int Free(MEM_PagerInfo& info);

    /// Ends all views that nobody holds mapped; one that is mapped and given back by another thread
    /// at that moment may stay. Allocates nothing.
    /// @return bytes that the mapped total fell by.
    unsigned long long ClearCache();

    /// Asks the system to take this pager's resident pages back. Mappings and contents stay; the
    /// next touch brings a page back. A failure goes to the log.
    void ReduceWorkingSet();

    /// Makes a piece usable that another process has streamed to this one, read-only.
    ///
    /// `info` is what the stream operator has read; it stays the caller's and can be registered
    /// again. Nothing is opened or mapped here: that a descriptor's region is gone shows at the
    /// first Map(), as a failure with a line in the log. The bytes stay for as long as the handle
    /// has been mapped once and lives, but what the creator does with the piece meanwhile is
    /// between the two processes. See docs/sharing.md.
    ///
    /// @return a handle that holds no mapping. It is empty, and a line at level 3 says why, for a
    ///         descriptor that was not read whole, has a name that is none of this library's, a
    ///         piece that lies outside its region or a region that can't be, that describes
    ///         memory which this process itself made, or a local piece that has its handle.
    /// @throws std::bad_alloc; nothing has changed then.
    MEM_PagerInfo Register(MEM_MemInfo& info);

    /// The same from the bytes that StreamMemInfo() wrote, all of them: a reader needs no other
    /// header than this one. They stay the caller's. Refused as above are also bytes that hold no
    /// whole descriptor; what lies behind one plays no part.
    /// @throws std::bad_alloc; nothing has changed then.
    MEM_PagerInfo Register(std::span<const std::byte> descriptor);

    /// Writes what another process needs for Register() to `out`. The piece has to live until
    /// the other process has mapped it; the stream holds nothing. Nobody may free the piece during
    /// the call.
    /// @throws RWBoundsErr if the handle is empty or its piece was freed; nothing is written.
    void StreamMemInfo(MEM_PagerInfo& info, Zor_oBuffer& out);

    /// Maps the pieces of `count` handles together: all of them, or none that wasn't mapped
    /// before. A handle may be mapped already, stand in the array several times, or share its
    /// piece with another. Nothing happens for a count of 0 or less. The array and its handles,
    /// of this pager, stay the caller's; no entry may be null.
    /// @return 0; -1 if one is empty or can't be mapped: the others are as they were then.
    /// @throws RWBoundsErr if the piece of one was freed; the others are as they were then.
    int MapMemPagerInfoVec(MEM_PagerInfo** infos, int count);

    /// Gives one mapping of each handle back. One that holds none is told of in the log.
    /// @throws RWBoundsErr at the first whose piece was freed; those behind it stay mapped.
    void UnmapMemPagerInfoVec(MEM_PagerInfo** infos, int count);

    /// Fills `status` with this pager's accounting, a consistent picture but for `total_huge`,
    /// which the system is asked about afterwards, without keeping anybody waiting. That takes the
    /// longer the more views there are, so its answer stands for twenty times as long. @return 0.
    int GetCurrentStatus(Mem_Status& status);

    /// Fills `status` with where the memory of this process's pieces lies, both pagers' together: a
    /// consistent picture. Takes a walk over all regions, and makes no pager.
    /// @param with_resident tell also how much of the views is in physical memory, which takes the
    ///        system some 40 ms for each mapped GB. Every other thread that needs the pagers waits
    ///        as long.
    /// @return 0.
    /// @throws std::bad_alloc if nothing was allocated before.
    static int GetStoreStatus(Mem_StoreStatus& status, bool with_resident = false);

    /// Has `hook` called with `context` when the process's regions go to files, or views are given
    /// up faster than the cache is large: each at most once a second, with a count. It takes the
    /// place of the last one; null for none. A call of the last one that another thread is in may
    /// end later than this, so `context` has to live on. See Mem_Notice and Mem_NoticeHook.
    static void SetNoticeHook(Mem_NoticeHook hook, void* context);

    /// Writes the pager's totals and its heap's blocks to standard output, and one line per
    /// block to the log at level 2.
    void PrintDebugStatus();

    /// Leaves a picture of this pager's shared memory behind: lines at level 2 in the log and a
    /// record in the file mem_dump.log of the log folder, which is emptied above 10 MB. Runs by
    /// itself when an Allocate() has failed for good. Never throws, and needs no memory. A dump
    /// file that is a link, or no plain file, or can't be written to, is left alone.
    void PrintSharedMemoryStatus();

    /// The same of the process's address space, with a line for each of the two pagers that has
    /// something mapped; makes those that don't exist yet. Runs by itself, but makes none, when a
    /// mapping or an allocation of the host's has failed for good. Never throws.
    static void PrintVirtualMemoryStatus();

private:
    friend struct Mem_TestAccess;
    friend class MEM_PagerInfo;
    friend class Mem_PagerInfoVecLockGuard;
    friend class Mem_MemFragmentsAllocator;
    friend class Mem_NoticesAtEnd;
    friend struct Mem_ProcessPager;

    /// @cond
    /// The source of the log's lines, in whichever file they are written.
    static constexpr char zor_log_source[] = "src/Mem/Mem_MemPager";

    /// What the pager keeps, by what it belongs to; docs/architecture.md shows the rooms.
    struct Rooms;
    class MappedSoFar;

    /// Where one of the process's two pagers is found; good also when that has ended.
    struct ProcessSlot {
        MEM_MemPager* Living() const
        {
            MEM_MemPager* const made = pager.load();
            return made != nullptr && !made->m_ended ? made : nullptr;
        }
        std::atomic<MEM_MemPager*> pager = nullptr;
    };
    /// @endcond

    /// A pager on the process's memory heap.
    MEM_MemPager();
    explicit MEM_MemPager(ShmmHeap* heap);

    // Life
    static MEM_MemPager* publish(MEM_MemPager& pager, ProcessSlot& slot) FIBREX_REQUIRES(mutex);
    void end();
    void close_down() FIBREX_REQUIRES(mutex);
    bool HasEnded() const { return m_ended; }
    static Mem_ForkGuard& fork_guard();
    static bool guard_forks();
    static void after_fork_in_child();
    RegisteredBlock& block_of(int id) FIBREX_REQUIRES(mutex);

    // Registration
    MEM_MemInfo* allocate_piece(unsigned int size, unsigned int alignment,
                                unsigned int always_mapped, unsigned int group_id)
        FIBREX_REQUIRES(mutex);
    MEM_MemInfo* ask_heap(unsigned int size, unsigned int alignment, unsigned int always_mapped,
                          unsigned int group_id) FIBREX_REQUIRES(mutex);
    void report_refused_piece(unsigned int size) FIBREX_REQUIRES(mutex);
    int register_or_give_back(MEM_MemInfo* piece, MEM_PagerInfo* out) FIBREX_REQUIRES(mutex);
    void give_back(MEM_MemInfo* piece) FIBREX_REQUIRES(mutex);
    static int refuse_descriptor(const char* fault);
    int internal_register(MEM_MemInfo& info, MEM_PagerInfo* out) FIBREX_REQUIRES(mutex);
    int register_local(MEM_MemInfo& info) FIBREX_REQUIRES(mutex);
    int register_on_block(int id, MEM_MemInfo& info) FIBREX_REQUIRES(mutex);
    int register_new_block(MEM_MemInfo& info) FIBREX_REQUIRES(mutex);
    int register_foreign(MEM_MemInfo& info, MEM_PagerInfo* out) FIBREX_REQUIRES(mutex);
    int register_foreign_piece(MEM_MemInfo& info, MEM_MemInfo& piece) FIBREX_REQUIRES(mutex);
    int register_foreign_block(MEM_MemInfo& info, MEM_MemInfo& piece) FIBREX_REQUIRES(mutex);
    bool made_here(MEM_MemInfo& info) const FIBREX_REQUIRES(mutex);
    bool has_local_block(const RWCString& name) const FIBREX_REQUIRES(mutex);

    // Mapping, reached from the handles
    int Map(MEM_PagerInfo& info);
    int Unmap(MEM_PagerInfo& info);
    int Cache(MEM_PagerInfo& info);
    int trim(MEM_PagerInfo& info);
    int MapWithoutLocks(MEM_PagerInfo& info) FIBREX_REQUIRES(mutex);
    int UnmapWithoutLocks(MEM_PagerInfo& info) FIBREX_REQUIRES(mutex);
    unsigned int view_number(const MEM_PagerInfo& info);
    int map_piece(MEM_PagerInfo& info, bool& is_anew) FIBREX_REQUIRES(mutex);
    int private_map(RegisteredBlock& block, bool try_clear) FIBREX_REQUIRES(mutex);
    int map_after_clearing(RegisteredBlock& block) FIBREX_REQUIRES(mutex);
    int report_refused_map(const RegisteredBlock& block) FIBREX_REQUIRES(mutex);
    Mem_Counter counter_of_map(const RegisteredBlock& block) FIBREX_REQUIRES(mutex);
    void keep_or_drop(RegisteredBlock& block) FIBREX_REQUIRES(mutex);
    RegisteredBlock* block_to_hit(const MEM_PagerInfo& info) const;
    bool map_by_hit(MEM_PagerInfo& info);
    bool unmap_by_hit(MEM_PagerInfo& info);
    void check_after_hit() const;

    // Reclaim
    static void set_new_memory_handler() FIBREX_REQUIRES(mutex);
    static int clear_cache_handler(const Mem_FailedAllocation& failed);
    static unsigned long long clear_pagers(bool reported) FIBREX_REQUIRES(mutex);
    static unsigned long long clear_for_handler(MEM_MemPager* pager, bool reported);
    static bool was_helped(std::uint64_t& mark);
    static void report_exhaustion(const Mem_FailedAllocation& failed) FIBREX_REQUIRES(mutex);

    // Diagnostics
    static bool add_resident(const MEM_MemPager* pager, unsigned long long& bytes)
        FIBREX_REQUIRES(mutex);
    static void print_virtual_memory_status() FIBREX_REQUIRES(mutex);

    void check_invariants() const FIBREX_REQUIRES(mutex);

    static WindowUnixMutex mutex;
    static WindowUnixMutex mutex_vec;
    static ProcessSlot s_general;
    static ProcessSlot s_second;
    static std::atomic<bool> s_single_handle;
    static std::atomic<std::uint64_t> s_clearings; ///< that gave something back
    static std::atomic<int> s_hits_held_off; ///< the guards over several handles that there are
    static const bool s_forks_are_guarded;
    static bool s_new_handler_handled FIBREX_GUARDED_BY(mutex);

    const std::unique_ptr<Mem_Hits> m_hits; ///< what needs no `mutex`, see docs/hits.md
    const std::unique_ptr<Rooms> m_rooms FIBREX_PT_GUARDED_BY(mutex);
    ShmmHeap* const m_heap; ///< not owned
    const bool m_counts;    ///< performance counters are in use: under `mutex`, so without hits
    bool m_stripe_held[MEM_PagerInfo::kStripes] FIBREX_GUARDED_BY(mutex_vec) = {};
    std::atomic<bool> m_ended = false; ///< the process ends: every operation is refused
};

/// Holds all locks that operations on an array of handles take, for a scope: the thread can call
/// Map(), Unmap() and the vector operations on these handles meanwhile, and no other thread gets
/// between them. Every other thread that needs the pagers waits as long.
///
/// Belongs to the thread that made it. The array and its handles stay the caller's, must outlive
/// the guard and must not change. Makes no allocation and never throws. What another thread had
/// begun with other pieces when the guard came may end meanwhile.
///
/// Guards nest, but an inner one, and every handle that is used, copied or destroyed inside, may
/// concern only pieces of the outer one's handles: any other would be locked against the order
/// that keeps threads from waiting for each other. In a child forked inside a guard, pieces that
/// other threads were mapping at that moment may be left half mapped.
class FIBREX_SCOPED_CAPABILITY MEMPAGER_EXPORT Mem_PagerInfoVecLockGuard
{
public:
    /// Takes the locks of `count` handles of `pager`; of none for a count of 0 or less.
    Mem_PagerInfoVecLockGuard(MEM_MemPager* pager, MEM_PagerInfo** infos, int count)
        FIBREX_ACQUIRE(MEM_MemPager::mutex_vec, MEM_MemPager::mutex);
    ~Mem_PagerInfoVecLockGuard() FIBREX_RELEASE();

    Mem_PagerInfoVecLockGuard(const Mem_PagerInfoVecLockGuard&) = delete;
    Mem_PagerInfoVecLockGuard& operator=(const Mem_PagerInfoVecLockGuard&) = delete;

private:
    friend struct Mem_TestAccess;

    void take_stripes() FIBREX_REQUIRES(MEM_MemPager::mutex_vec);
    void release_stripes() FIBREX_REQUIRES(MEM_MemPager::mutex_vec);
    void hold_off(bool held_off);

    MEM_MemPager* m_pager;
    MEM_PagerInfo** m_infos;
    int m_count;
    std::bitset<MEM_PagerInfo::kStripes> m_taken; // by this guard, not by one around it
};

#endif
