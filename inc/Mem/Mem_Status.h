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

#endif
