#ifndef MEM_STATUS_H
#define MEM_STATUS_H

/// What a pager holds at one moment. `total_mapped` includes `total_cached`: what clients have
/// mapped is the difference of the two.
struct Mem_Status {
    int blocks_count = 0;                       ///< living blocks
    int local_blocks_count = 0;                 ///< those that this process made
    unsigned long long foreign_blocks_size = 0; ///< bytes
    unsigned long long foreign_pieces_size = 0; ///< bytes
    unsigned long long local_blocks_size = 0;   ///< bytes
    unsigned long long local_pieces_size = 0;   ///< bytes
    unsigned long long total_cached = 0;        ///< bytes of views that wait in the cache
    unsigned long long total_mapped = 0;        ///< bytes of all views
    unsigned long long total_huge = 0;          ///< bytes of views that huge pages map now
};

/// Where the memory of this process's own pieces lies at one moment, of both pagers together, and
/// how much of it is in physical memory.
struct Mem_StoreStatus {
    /// One kind of store.
    struct Store {
        unsigned long long reserved = 0; ///< bytes that it takes of the machine's memory or disk
        unsigned long long used = 0;     ///< of these, by pieces
    };

    Store shared_memory; ///< regions there
    Store spare_files;   ///< regions in the temp folder, since shared memory had no room for them
    Store temp_files;    ///< files that regions are carved from, beyond shared memory's setting

    /// Bytes of all views, those of other processes' regions and those in the cache included, that
    /// are in physical memory as this process's. Memory that isn't mapped counts nowhere here.
    unsigned long long resident = 0;

    bool resident_is_known = false; ///< it was asked for, and the system has told it
};

#endif
