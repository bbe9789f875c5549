#ifndef MEM_NOTICE_H
#define MEM_NOTICE_H

/// Something that a host may want to show its users while it happens, or to answer by other
/// settings: the library works on, but more slowly.
struct Mem_Notice {
    /// What has happened.
    enum class Kind : unsigned char {
        /// A new region lies in a file, since shared memory is full, or as full as
        /// GetSwapMaxSizeInMb() or GetSwapFileComitAdaptiveLimitMB() let it be, or the process's
        /// memory is near its limit. Also told of a region that is given back at once since it
        /// couldn't be mapped: it says that memory is short, not how much lies in files.
        Spilling,
        /// Within a second more bytes of views were given up for others than HeapCacheInBytes()
        /// lets be mapped: the cache is too small for what is in use.
        EvictionStorm,
    };

    Kind kind = Kind::Spilling;   ///< what
    unsigned int count = 0;       ///< how often since the last notice of this kind, from 1
    unsigned long long bytes = 0; ///< in all of these: of the regions, or of the views given up
};

/// A host's function for notices, and the context that it was registered with.
///
/// It is called on the thread whose call of the library met it, at the end of that call, with none
/// of the library's locks held. Allocating meets the first kind, unmapping the second, and nothing
/// else meets any: neither Free() nor a handle's destructor. Under a Mem_PagerInfoVecLockGuard it
/// is called where the guard ends. It may call the library, also what it was told of: on its own
/// thread no notice comes while it runs. That call of the host's waits for it, so it should only
/// pass the notice on. It can't throw, and the thread isn't cancelled in it. Several threads may
/// be in it at a time.
using Mem_NoticeHook = void (*)(const Mem_Notice& notice, void* context) noexcept;

#endif
