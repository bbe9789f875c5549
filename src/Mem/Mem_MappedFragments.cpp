#include "Mem/Mem_MappedFragments.h"

#include "Mem/Mem_FirstBreak.h"
#include "Mem/Mem_MemFragmentsAllocator.h"

#include <algorithm>
#include <cassert>

size_t Mem_MappedFragments::CountOf(size_t fragments)
{
    return std::min(fragments, Mem_MemFragmentsAllocator::MappedIndexes().size());
}

size_t Mem_MappedFragments::TailStartOf(size_t fragments)
{
    return fragments - CountOf(fragments);
}

const char* Mem_MappedFragments::Broken(const Mem_MemFragmentsAllocator& buffer, size_t fragments,
                                        unsigned int last_size)
{
    Mem_FirstBreak check;
    check.Expect(broken_set(buffer, fragments));
    if (check.What() != nullptr)
        return check.What(); // what follows looks up fragments by the set
    for (size_t i = 0; i < fragments; ++i)
        check.Expect(
            broken_fragment(buffer, i, i + 1 == fragments ? last_size : buffer.fragment_size));
    check.Expect(buffer.current_ptr == nullptr || is_current_served(buffer),
                 "the current fragment");
    return check.What();
}

const char* Mem_MappedFragments::broken_set(const Mem_MemFragmentsAllocator& buffer,
                                            size_t fragments)
{
    Mem_FirstBreak check;
    check.Expect(buffer.mapped_fragments_num == CountOf(fragments), "mapped_fragments_num");
    for (size_t i = 0; i < CountOf(fragments); ++i) {
        const size_t named = buffer.mapped_indexes[i];
        check.Expect(named < fragments, "a fragment in the mapped set that isn't there");
        check.Expect(buffer.find_mapped_fragment_index(named) == i,
                     "a fragment twice in the mapped set");
    }
    return check.What();
}

const char* Mem_MappedFragments::broken_fragment(const Mem_MemFragmentsAllocator& buffer,
                                                 size_t fragment, unsigned int size)
{
    Mem_FirstBreak check;
    const Mem_MemFragmentInfo& info = buffer.fragments[fragment];
    const bool is_named =
        buffer.find_mapped_fragment_index(fragment) != Mem_MemFragmentsAllocator::kNone;
    check.Expect(info.IndexStart == fragment * buffer.fragment_size, "where a fragment begins");
    check.Expect(info.IndexEnd == info.IndexStart + size - 1, "where a fragment ends");
    check.Expect(info.isMapped == (info.pagerInfo.Ptr() != nullptr), "isMapped against the handle");
    check.Expect(!info.isMapped || is_named, "a fragment mapped outside the set");
    return check.What();
}

bool Mem_MappedFragments::is_current_served(const Mem_MemFragmentsAllocator& buffer)
{
    const Mem_MemFragmentInfo& info =
        buffer.fragments[buffer.mapped_indexes[buffer.current_mapped_index]];
    return info.isMapped && buffer.current_index_start == info.IndexStart &&
           buffer.current_index_end == info.IndexEnd && buffer.current_ptr == info.pagerInfo.Ptr();
}

void Mem_MappedFragments::Check([[maybe_unused]] const Mem_MemFragmentsAllocator& buffer,
                                [[maybe_unused]] size_t fragments,
                                [[maybe_unused]] unsigned int last_size)
{
#if defined(MEMPAGER_CHECK_INVARIANTS)
    assert(Broken(buffer, fragments, last_size) == nullptr);
#endif
}
