#include "Mem/Mem_VirtualFragmentsAllocator.h"

#include "Mem/Mem_FragmentsResize.h"
#include "Mem/Mem_Reports.h"
#include "Mem/Mem_Units.h"
#include "NRVlog/Zor_Log.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

namespace
{
/// What there is to say when `operator new` has failed although the cache was given up.
/// `report_request` logs what was asked for.
template <class ReportRequest>
void report_exhaustion(const char* function, ReportRequest report_request)
{
    ZOR_LOG(function, 3,
            "Couldn't Allocate a memory fragment, probably because process is out of memory! "
            "(Details: operator new failed for regular virtual memory)\n");
    ZOR_LOG(function, 3,
            "Either a memory leak occurred, or too much memory is allocated. See details below:\n");
    report_request();
    ReportAddressSpaceOf("src/Mem/Mem_VirtualFragmentsAllocator", function);
}

/// `size` bytes, or null after a report.
template <class ReportRequest>
void* allocate_or_report(unsigned int size, const char* function, ReportRequest report_request)
{
    try {
        return ::operator new(size);
    } catch (...) {
        report_exhaustion(function, report_request);
        return nullptr;
    }
}
} // namespace

// Life ------------------------------------------------------------------------------------------

Mem_VirtualFragmentsAllocator::Mem_VirtualFragmentsAllocator(size_t element_bytes,
                                                             size_t element_count,
                                                             unsigned int fragment_bytes)
    : Mem_FragmentsAllocator(element_bytes, element_count, fragment_bytes)
{
    if (!has_layout())
        return;
    ZOR_LOG("Mem_VirtualFragmentsAllocator::Mem_VirtualFragmentsAllocator", 6,
            "Initializing virtual fragments..\n");
    auto infos = std::make_unique<Mem_VirtualFragmentInfo[]>(fragments_num);
    if (allocate_fragments(infos.get(), 0, fragments_num, fragment_size, last_fragment_size) ==
        -1) {
        ZOR_LOG("Mem_VirtualFragmentsAllocator::Mem_VirtualFragmentsAllocator", 5,
                "Mem_VirtualFragmentsAllocator: Failed allocating fragments. Allocator is NOT "
                "valid..\n");
        return;
    }
    fragments = infos.release();
    valid = true;
    ZOR_LOG("Mem_VirtualFragmentsAllocator::Mem_VirtualFragmentsAllocator", 6,
            "Mem_VirtualFragmentsAllocator C-tor finished successfully.\n");
}

Mem_VirtualFragmentsAllocator::~Mem_VirtualFragmentsAllocator()
{
    ZOR_LOG("Mem_VirtualFragmentsAllocator::~Mem_VirtualFragmentsAllocator", 5,
            "~Mem_FragmentsAllocator: Destructing the Mem_FragmentsAllocator: size=<%IuMB>\n",
            total_buf_size >> 20);
    if (!valid) {
        ZOR_LOG("Mem_VirtualFragmentsAllocator::~Mem_VirtualFragmentsAllocator", 5,
                "~Mem_FragmentsAllocator: BufAllocator is invalid, no need to destroy..\n");
        return;
    }
    free_fragments(fragments, 0, fragments_num);
    ZOR_LOG("Mem_VirtualFragmentsAllocator::~Mem_VirtualFragmentsAllocator", 6,
            "~Mem_FragmentsAllocator: Freed %Iu fragments successfully\n", fragments_num);
    delete[] fragments;
    fragments = nullptr;
    valid = false;
    ZOR_LOG("Mem_VirtualFragmentsAllocator::~Mem_VirtualFragmentsAllocator", 6,
            "~Mem_FragmentsAllocator: Finished!\n");
}

// The header that asks for this has no access to the log.
void* Mem_VirtualFragmentsAllocator::refuse(const char* function, size_t index) const
{
    const zor_log::Site site{"inc/Mem/Mem_VirtualFragmentsAllocator", function, __LINE__, 3};
    if (!site.Wanted())
        return nullptr;
    if (!valid)
        zor_log::Write(site, "GetPointerAtIndex: The FragmentsAllocator is invalid!\n");
    else
        zor_log::Write(site, "GetPointerAtIndex: Index <%Iu> is not in buffer range: <%Iu>!\n",
                       index, total_buf_size);
    return nullptr;
}

// Fragments -------------------------------------------------------------------------------------

int Mem_VirtualFragmentsAllocator::allocate_fragments(Mem_VirtualFragmentInfo* infos, size_t first,
                                                      size_t count, unsigned int full_size,
                                                      unsigned int last_size)
{
    static constexpr const char* function = "Mem_VirtualFragmentsAllocator::allocate_fragments";
    ZOR_LOG(function, 6,
            "allocate_fragments: Allocating %Iu fragments from index %Iu. FragmentSize=%u, "
            "LastFragmentSize=%u\n",
            count, first, full_size, last_size);
    const size_t last = first + count - 1;
    for (size_t i = first; i <= last; ++i) {
        const unsigned int size = i == last ? last_size : full_size;
        infos[i].buffer = allocate_or_report(size, function, [&] {
            ZOR_LOG(function, 3,
                    "\tTried to allocate: %.2fMB (fragment %Iu out of %Iu fragments)\n", InMb(size),
                    i, last - first);
        });
        if (infos[i].buffer == nullptr) {
            abort_allocation(infos, first, count, i, size);
            return -1;
        }
        infos[i].IndexStart = full_size * i;
        infos[i].IndexEnd = infos[i].IndexStart + size - 1;
    }
    ZOR_LOG(function, 6, "allocate_fragments: Finished allocating all fragments successfully!\n");
    return 0;
}

void Mem_VirtualFragmentsAllocator::abort_allocation(Mem_VirtualFragmentInfo* infos, size_t first,
                                                     size_t count, size_t failed, unsigned int size)
{
    ZOR_LOG("Mem_VirtualFragmentsAllocator::allocate_fragments", 5,
            "allocate_fragments: Failed allocating fragment number %Iu, out of %Iu fragments. "
            "FragmentIndex=<%Iu>, FragmentSize=<%u>. Aborting\n",
            failed - first, count, failed, size);
    ZOR_LOG("Mem_VirtualFragmentsAllocator::allocate_fragments", 3,
            "allocate_fragments: Failed allocating fragments! Tried to allocate %Iu fragments from "
            "index %Iu, failed on index %Iu\n",
            count, first, failed);
    if (failed > first)
        free_fragments(infos, first, failed - first);
}

void Mem_VirtualFragmentsAllocator::free_fragments(Mem_VirtualFragmentInfo* infos, size_t first,
                                                   size_t count)
{
    ZOR_LOG("Mem_VirtualFragmentsAllocator::free_fragments", 6,
            "free_fragments: Freeing %Iu virtual fragments, starting from %Iu\n", count, first);
    for (size_t i = first; i < first + count; ++i) {
        ::operator delete(infos[i].buffer);
        infos[i] = {};
    }
    ZOR_LOG("Mem_VirtualFragmentsAllocator::free_fragments", 6, "free_fragments: Done!\n");
}

// Resize ----------------------------------------------------------------------------------------

int Mem_VirtualFragmentsAllocator::reallocate_fragments(size_t new_fragments_num,
                                                        size_t new_total_buf_size,
                                                        unsigned int new_last_fragment_size,
                                                        bool is_partial)
{
    ZOR_LOG("Mem_VirtualFragmentsAllocator::reallocate_fragments", 6,
            "Virtual reallocate_fragments Started..\n");
    const Mem_FragmentsResize resize{fragments_num,      new_fragments_num,      fragment_size,
                                     last_fragment_size, new_last_fragment_size, is_partial};
    auto infos = std::make_unique<Mem_VirtualFragmentInfo[]>(new_fragments_num);
    if (resize.Build(*this, infos.get()) == 0) {
        ZOR_LOG("Mem_VirtualFragmentsAllocator::reallocate_fragments", 6,
                "reallocate_fragments: Replacing old fragments..\n");
        delete[] fragments;
        fragments = infos.release();
        ZOR_LOG("Mem_VirtualFragmentsAllocator::reallocate_fragments", 6,
                "reallocate_fragments: New reallocated fragments are ready\n");
        return 0;
    }
    ZOR_LOG("Mem_VirtualFragmentsAllocator::reallocate_fragments", 3,
            "reallocate_fragments: An error occurred while trying to reallocate the Virtual "
            "Buffer!OriginalBufferSize=<%.2fMB>, NewBufferSize=<%.2fMB>\n",
            InMb(total_buf_size), InMb(new_total_buf_size));
    if (is_partial)
        ::operator delete(infos[resize.Unchanged()].buffer); // the copy, if it was made
    return -1;
}

int Mem_VirtualFragmentsAllocator::carry_over(Mem_VirtualFragmentInfo* infos,
                                              const Mem_FragmentsResize& resize)
{
    std::copy_n(fragments, resize.Unchanged(), infos);
    ZOR_LOG("Mem_VirtualFragmentsAllocator::reallocate_fragments", 6,
            "reallocate_fragments: Finished copying unchanged fragments (OldFragments=<%Iu>, "
            "NewFragments=<%Iu>, IsPartial=<%d>)\n",
            resize.OldWhole(), resize.NewWhole(), resize.is_partial ? 1 : 0);
    return 0;
}

int Mem_VirtualFragmentsAllocator::copy_partial(Mem_VirtualFragmentInfo* infos,
                                                const Mem_FragmentsResize& resize)
{
    const size_t partial = resize.Unchanged();
    if (allocate_and_copy_fragment(fragments[partial], resize.OldPartialSize(), infos[partial],
                                   resize.NewPartialSize()) == -1) {
        ZOR_LOG("Mem_VirtualFragmentsAllocator::reallocate_fragments", 3,
                "reallocate_fragments: Failed on allocating a new fragment with size <%d> for the "
                "partial fragment <%d>\n",
                static_cast<int>(resize.NewPartialSize()), static_cast<int>(partial));
        return -1;
    }
    ZOR_LOG("Mem_VirtualFragmentsAllocator::reallocate_fragments", 6,
            "reallocate_fragments: Finished handling partial fragment\n");
    return 0;
}

int Mem_VirtualFragmentsAllocator::allocate_and_copy_fragment(Mem_VirtualFragmentInfo& old_info,
                                                              unsigned int old_size,
                                                              Mem_VirtualFragmentInfo& new_info,
                                                              unsigned int new_size)
{
    static constexpr const char* function =
        "Mem_VirtualFragmentsAllocator::allocate_and_copy_fragment";
    ZOR_LOG(function, 6,
            "allocate_and_copy_fragment: Copying OldFragment (size=%d) to NewFragment "
            "(size=%d):\n",
            static_cast<int>(old_size), static_cast<int>(new_size));
    new_info.buffer = allocate_or_report(new_size, function, [&] {
        ZOR_LOG(function, 3, "\tTried to allocate: %.2fMB\n", InMb(new_size));
    });
    if (new_info.buffer == nullptr) {
        ZOR_LOG(function, 5,
                "reallocate_fragment: Allocate has failed for new fragment: FragmentSize=%u, "
                "StartIndex=%Iu, EndIndex=%Iu\n",
                new_size, old_info.IndexStart, old_info.IndexEnd);
        return -1;
    }
    ZOR_LOG(function, 6,
            "allocate_and_copy_fragment: new fragment allocation succeeded. copying data..\n");
    std::memcpy(new_info.buffer, old_info.buffer, std::min(old_size, new_size));
    ZOR_LOG(function, 6, "allocate_and_copy_fragment: Finished copying data\n");
    new_info.IndexStart = old_info.IndexStart;
    new_info.IndexEnd = new_info.IndexStart + new_size - 1;
    ZOR_LOG(function, 6,
            "allocate_and_copy_fragment: Successfully copied old fragment to new fragment:\n");
    return 0;
}

int Mem_VirtualFragmentsAllocator::add_fragments(Mem_VirtualFragmentInfo* infos,
                                                 const Mem_FragmentsResize& resize)
{
    return allocate_fragments(infos, resize.Next(), resize.new_num - resize.Next(), fragment_size,
                              resize.new_last_size);
}

void Mem_VirtualFragmentsAllocator::drop_fragments(const Mem_FragmentsResize& resize)
{
    free_fragments(fragments, resize.Next(), resize.old_num - resize.Next());
}

void Mem_VirtualFragmentsAllocator::report_built(const Mem_FragmentsResize& resize) const
{
    ZOR_LOG("Mem_VirtualFragmentsAllocator::reallocate_fragments", 6,
            "reallocate_fragments: Finished successfully creating the new buffer. "
            "IsPartialFragment=<%s>\n",
            resize.is_partial ? "TRUE" : "FALSE");
}

void Mem_VirtualFragmentsAllocator::free_old_partial(const Mem_FragmentsResize& resize)
{
    ::operator delete(fragments[resize.Unchanged()].buffer);
    ZOR_LOG("Mem_VirtualFragmentsAllocator::reallocate_fragments", 6,
            "reallocate_fragments: Succeeded freeing the %s fragment\n", "old");
}
