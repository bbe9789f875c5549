#ifndef MEM_CONFIGURATION_H
#define MEM_CONFIGURATION_H

#include "Rw/RWCString.h"
#include "mempager_export.h"

/// What MEM_MemoryConfiguration::SetFileHeapParmeters() takes. A field with its default value
/// leaves the setting unchanged.
struct MEM_MemoryConfiguration_FileHeapParemeters {
    static constexpr unsigned int kUnchanged = 4294967295u; ///< what numbers have by default

    RWCString TempFilePath;                        ///< absolute, or of the current folder;
                                                   ///< empty: unchanged
    unsigned int FileSizeInMb = kUnchanged;        ///< below 4096
    unsigned int MaxTotalSpaceInMb = kUnchanged;   ///< the most that all temp files may take
    unsigned int MinSpaceToLeaveInMb = kUnchanged; ///< disk space that stays free
};

/// Every tunable number of the pager and its heaps, in one object for the process.
///
/// Without a host's doing it is made from the machine's memory and the environment. A host sets
/// values on GetInstance(), or derives, answers the virtual getters and puts its object in place
/// with SetInstance(). Values take effect at their next use, except the file heap's, which are
/// read once, at the first block of the process.
///
/// MB is 1048576 bytes. No setter checks a range; each logs its new value at level 6, but for
/// SetUnmapWorkingSetLimit() and SetSwapFileComitAdaptiveLimitMB().
///
/// Threads: no lock. Configure before other threads use the library. The virtual getters are
/// called from any thread with a lock of the library held, so they must not call the library; all
/// but HeapCacheInBytes() by one thread at a time.
class MEMPAGER_EXPORT MEM_MemoryConfiguration
{
public:
    /// The current instance, made with the defaults at the first call. Not owned by the caller.
    /// Throws std::bad_alloc.
    static MEM_MemoryConfiguration* GetInstance();

    /// Destroys the current instance and puts `instance`, made with `new` or null, in its place;
    /// the class owns it from then on. After null, the next GetInstance() starts afresh.
    /// A derived object ends by this class's destructor alone: it must not have members that need
    /// destroying. The current instance itself is ignored.
    void SetInstance(MEM_MemoryConfiguration* instance);

    /// Committed memory of the machine in MB above which new regions come from temp files;
    /// 0, the default, switches this off.
    unsigned int GetSwapFileComitAdaptiveLimitMB() { return m_swap_commit_adaptive_limit; }
    /// Sets that limit.
    void SetSwapFileComitAdaptiveLimitMB(unsigned int mb) { m_swap_commit_adaptive_limit = mb; }

    ~MEM_MemoryConfiguration() = default;
    /// The same settings.
    MEM_MemoryConfiguration(const MEM_MemoryConfiguration&) = default;
    /// Takes all settings.
    MEM_MemoryConfiguration& operator=(const MEM_MemoryConfiguration&) = default;

    /// Takes the numbers and the temp path; the source's temp path is empty afterwards.
    MEM_MemoryConfiguration(MEM_MemoryConfiguration&& other) noexcept;

    /// Takes the numbers and exchanges the temp paths.
    MEM_MemoryConfiguration& operator=(MEM_MemoryConfiguration&& other) noexcept;

    /// First part of a temp file's name: "TempFile". An override must hold no "_".
    virtual RWCString FileHeap_TempFileName();

    /// Folder of the temp files: the environment variable TEMP; if that isn't set or empty,
    /// /var/tmp, or C:\ on Windows. A relative one is made absolute when it is set, or the object
    /// made, so that it stays the same when the process changes its current folder.
    virtual RWCString FileHeap_TempPath();

    /// Size of one temp file in MB; 1024 unless set.
    virtual unsigned int FileHeap_FileSizeInMb();

    /// The most that all temp files of this process may take, in MB; 10240 unless set.
    virtual unsigned int FileHeap_MaxTotalSpaceInMb();

    /// Free disk space that isn't touched, in MB; 512 unless set.
    virtual unsigned int FileHeap_MinSpaceToLeaveInMb();

    /// Sets what `params` gives of the file heap's settings.
    virtual void SetFileHeapParmeters(MEM_MemoryConfiguration_FileHeapParemeters& params);

    /// Shared memory in MB from which on new regions come from temp files; 1500 unless set.
    virtual unsigned int GetSwapMaxSizeInMb();
    /// Sets that limit.
    virtual void SetSwapMaxSizeInMb(unsigned int mb);

    /// Pieces below this many bytes share regions with their like, larger ones with theirs;
    /// 128000 unless set.
    virtual unsigned int BlockSizeThreshold();
    /// Sets that threshold.
    virtual void SetBlockSizeThreshold(unsigned int bytes);

    /// The least size of a new region in bytes; 8454144 (8 MB and 64 KB) unless set.
    virtual unsigned int BaseBlockSize();

    /// Sets that size to `mb` MB and 64 KB, in 32 bits; 4294967295 leaves it unchanged.
    virtual void SetBaseBlockSize(unsigned int mb);

    /// The cache limit in bytes, held against all mapped memory: 500, 1000 or 2000 MB by the
    /// machine's memory unless set. Several threads may ask for it at the same time.
    virtual unsigned long long HeapCacheInBytes();

    /// Sets that limit in MB. The environment variable VORTELIX_CACHE_SIZE, a number of MB, takes
    /// the place of every argument; it is read once in the process.
    virtual void SetCacheSize(unsigned int mb);

    /// Bytes really unmapped after which the working set is trimmed; 0, the default, for never.
    virtual unsigned long long UnmapWorkingSetLimit();
    /// Sets that limit.
    virtual void SetUnmapWorkingSetLimit(unsigned int bytes);

    /// The largest piece, in bytes, whose pages are found at once when its view is made, so that no
    /// touch of it has to wait for them; 0 for none. See docs/misses.md for what is won and lost by
    /// it, and MEM_PagerInfo::Prefetch() for single stretches. 0 unless set.
    virtual unsigned int PrefetchSize();
    /// Sets that size.
    virtual void SetPrefetchSize(unsigned int bytes);

protected:
    /// The defaults. Reads the machine's memory and the environment, and logs the cache size.
    MEM_MemoryConfiguration();

private:
    friend struct Mem_TestAccess;

    static MEM_MemoryConfiguration* s_MemConfig;

    unsigned long long m_cache_size = 0;
    unsigned long long m_unmap_working_set_limit = 0;
    RWCString m_temp_path;
    unsigned int m_file_size = 1024;
    unsigned int m_max_total_space = 10240;
    unsigned int m_min_space_to_leave = 512;
    unsigned int m_swap_max_size = 1500;
    unsigned int m_block_size_threshold = 128000;
    unsigned int m_base_block_size = 8454144;
    unsigned int m_swap_commit_adaptive_limit = 0;
    unsigned int m_prefetch_size = 0;
};

#endif
