#include "Mem/Mem_FragmentsAllocator.h"

#include "Mem/Mem_Refusal.h"
#include "NRVlog/Zor_Log.h"
#include "Platform/Units.h"

#include <cstdint>

namespace
{
bool fits(size_t element_bytes, size_t element_count)
{
    return element_count <= SIZE_MAX / element_bytes;
}

/// Fragments that `bytes` take, and what the last of them holds.
size_t count_of_fragments(size_t bytes, unsigned int fragment_bytes)
{
    return bytes / fragment_bytes + (bytes % fragment_bytes != 0 ? 1 : 0);
}

unsigned int size_of_last(size_t bytes, unsigned int fragment_bytes)
{
    const auto rest = static_cast<unsigned int>(bytes % fragment_bytes);
    return rest != 0 ? rest : fragment_bytes;
}
} // namespace

Mem_FragmentsAllocator::Mem_FragmentsAllocator(size_t element_bytes, size_t element_count,
                                               unsigned int fragment_bytes)
    : element_size(element_bytes), elements(element_count)
{
    if (element_size == 0 || elements == 0) {
        ZOR_LOG("Mem_FragmentsAllocator::Mem_FragmentsAllocator", 3,
                "Tried to construct an empty Mem_FragmentsAllocator! Aborting..\n");
        return;
    }
    total_buf_size = element_size * elements;
    const unsigned int most = fragment_bytes != 0 ? fragment_bytes : kDefaultFragmentSize;
    if (!fits(element_size, elements) || element_size > most) {
        ZOR_LOG("Mem_FragmentsAllocator::Mem_FragmentsAllocator", 3,
                "Tried to construct a Mem_FragmentsAllocator that can't be: element_size=<%Iu>, "
                "elements=<%Iu>, fragment_size=<%u>! Aborting..\n",
                element_size, elements, most);
        return;
    }
    fragment_size = most - static_cast<unsigned int>(most % element_size);
    ZOR_LOG("Mem_FragmentsAllocator::Mem_FragmentsAllocator", 5,
            "Constructing a Mem_FragmentsAllocator: size=<%.2fMB>\n", InMb(total_buf_size));
    fragments_num = count_of_fragments(total_buf_size, fragment_size);
    last_fragment_size = size_of_last(total_buf_size, fragment_size);
    ZOR_LOG("Mem_FragmentsAllocator::Mem_FragmentsAllocator", 6,
            "Mem_FragmentsAllocator Started: element_size=<%Iu>, elements=<%Iu>, "
            "total_buf_size=<%Iu>, fragment_size=<%d>, last_fragment_size=<%d>, "
            "fragments_num=<%Iu>\n",
            element_size, elements, total_buf_size, static_cast<int>(fragment_size),
            static_cast<int>(last_fragment_size), fragments_num);
    ZOR_LOG("Mem_FragmentsAllocator::Mem_FragmentsAllocator", 6,
            "Mem_FragmentsAllocator C-tor Done.\n");
}

Mem_FragmentsAllocator::~Mem_FragmentsAllocator()
{
    ZOR_LOG("Mem_FragmentsAllocator::~Mem_FragmentsAllocator", 5,
            "~Mem_FragmentsAllocator: Destructing the Mem_FragmentsAllocator: size=<%d>\n",
            static_cast<int>(WholeMb(total_buf_size)));
    valid = false;
}

int Mem_FragmentsAllocator::Reallocate(size_t new_elements)
{
    if (!may_become(new_elements))
        return -1;
    if (new_elements == elements) {
        ZOR_LOG("Mem_FragmentsAllocator::Reallocate", 5,
                "Reallocate: Reallocated to the same buffer size: elements=<%Iu>\n", elements);
        return 0;
    }
    const size_t new_total = new_elements * element_size;
    const size_t new_num = count_of_fragments(new_total, fragment_size);
    const unsigned int new_last = size_of_last(new_total, fragment_size);
    const bool is_partial = (last_fragment_size < fragment_size && new_num >= fragments_num) ||
                            (new_last < fragment_size && new_num <= fragments_num);
    ZOR_LOG("Mem_FragmentsAllocator::Reallocate", 5,
            "Reallocate: From old Buffer (TotalBufSize=<%.2fMB>, FragmentsNum=<%Iu>) to new Buffer "
            "(TotalBufSize=<%.2fMB>, FragmentsNum=<%Iu>)\n",
            InMb(total_buf_size), fragments_num, InMb(new_total), new_num);
    if (reallocate_fragments(new_num, new_total, new_last, is_partial) == -1) {
        ZOR_LOG("Mem_FragmentsAllocator::Reallocate", 6,
                "Reallocate: Failed reallocating fragments. Aborting reallocation\n");
        return -1;
    }
    ZOR_LOG("Mem_FragmentsAllocator::Reallocate", 6,
            "Reallocate: Setting new reallocated members..\n");
    elements = new_elements;
    total_buf_size = new_total;
    last_fragment_size = new_last;
    fragments_num = new_num;
    ZOR_LOG("Mem_FragmentsAllocator::Reallocate", 5,
            "Reallocate: Done! Buffer is reallocated successfully!\n");
    return 0;
}

namespace
{
bool refuse_resize(const char* why)
{
    Refuse(Mem_Reason::Operation::Allocate, Mem_Reason::Limit::Request, why);
    return false;
}
} // namespace

bool Mem_FragmentsAllocator::may_become(size_t new_elements) const
{
    if (!valid) {
        ZOR_LOG("Mem_FragmentsAllocator::Reallocate", 3,
                "Reallocate: Tried to reallocate an invalid FragmentsAllocator! Ignoring..\n");
        return refuse_resize("the allocator isn't valid");
    }
    if (new_elements == 0) {
        ZOR_LOG("Mem_FragmentsAllocator::Reallocate", 3,
                "Reallocate: Tried to reallocate to be an empty FragmentsAllocator! Ignoring..\n");
        return refuse_resize("a buffer has one element at least");
    }
    if (!fits(element_size, new_elements)) {
        ZOR_LOG("Mem_FragmentsAllocator::Reallocate", 3,
                "Reallocate: Tried to reallocate to <%Iu> elements, more than can be! Ignoring..\n",
                new_elements);
        return refuse_resize("there can't be so many elements");
    }
    return true;
}

Mem_DummyFragmentsAllocator::Mem_DummyFragmentsAllocator(void* memory, size_t element_bytes,
                                                         size_t element_count)
    : Mem_FragmentsAllocator(element_bytes, element_count,
                             static_cast<unsigned int>(element_bytes * element_count)),
      buffer(memory)
{
}

int Mem_DummyFragmentsAllocator::Reallocate(size_t)
{
    return -1;
}

int Mem_DummyFragmentsAllocator::reallocate_fragments(size_t, size_t, unsigned int, bool)
{
    return -1;
}
