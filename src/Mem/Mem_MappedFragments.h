#ifndef MEM_MAPPEDFRAGMENTS_H
#define MEM_MAPPEDFRAGMENTS_H

#include <cstddef>

class Mem_MemFragmentsAllocator;

/// The rules that the set of mapped fragments of a Mem_MemFragmentsAllocator follows. They stand
/// apart from the class so that they aren't exported with it.
class Mem_MappedFragments
{
public:
    /// How many of so many fragments are held mapped.
    static size_t CountOf(size_t fragments);

    /// The first fragment that is held mapped in a new buffer, where that is the tail.
    static size_t TailStartOf(size_t fragments);

    /// Compares the fragments, the mapped set and the current fragment with each other. The layout
    /// is handed in, since the allocator learns of a new one only after it has built it. A fragment
    /// in the set that isn't mapped is no break: a mapping that has failed leaves it so.
    /// @return the first relation that doesn't hold; null if all do.
    static const char* Broken(const Mem_MemFragmentsAllocator& buffer, size_t fragments,
                              unsigned int last_size);

    /// Asserts in debug builds that nothing is broken.
    static void Check(const Mem_MemFragmentsAllocator& buffer, size_t fragments,
                      unsigned int last_size);

private:
    static const char* broken_set(const Mem_MemFragmentsAllocator& buffer, size_t fragments);
    static const char* broken_fragment(const Mem_MemFragmentsAllocator& buffer, size_t fragment,
                                       unsigned int size);
    static bool is_current_served(const Mem_MemFragmentsAllocator& buffer);
};

#endif
