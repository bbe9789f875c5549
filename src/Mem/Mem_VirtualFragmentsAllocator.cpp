#include "Mem/Mem_VirtualFragmentsAllocator.h"

#include "Mem/Mem_FragmentsResize.h"
#include "Mem/Mem_Reports.h"
#include "Mem/Mem_VirtualFragmentsLog.h"
#include "NRVlog/Zor_Log.h"
#include "Platform/Mappings.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

namespace Log = Mem_VirtualFragmentsLog;

namespace
{
/// What there is to say when `operator new` has failed although the cache was given up.
/// `report_request` logs what was asked for.
template <class ReportRequest>
void report_exhaustion(const char* function, ReportRequest report_request)
{
    Log::MemoryIsExhausted(function);
    report_request();
    ReportAddressSpaceOf("src/Mem/Mem_VirtualFragmentsAllocator", function);
}

/// `size` bytes, or null after a report.
template <class ReportRequest>
void* allocate_or_report(unsigned int size, const char* function, ReportRequest report_request)
{
    try {
        void* const memory = ::operator new(size);
        Platform::Mappings::Get().PreferHugePages(memory, size);
        return memory;
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
    Log::Initializing();
    auto infos = std::make_unique<Mem_VirtualFragmentInfo[]>(fragments_num);
    if (allocate_fragments(infos.get(), 0, fragments_num, fragment_size, last_fragment_size) ==
        -1) {
        Log::InitializationFailed();
        return;
    }
    fragments = infos.release();
    valid = true;
    Log::Initialized();
}

Mem_VirtualFragmentsAllocator::~Mem_VirtualFragmentsAllocator()
{
    Log::Destructing(total_buf_size);
    if (!valid) {
        Log::HadNothingToFree();
        return;
    }
    free_fragments(fragments, 0, fragments_num);
    Log::FreedAll(fragments_num);
    delete[] fragments;
    fragments = nullptr;
    valid = false;
    Log::Destructed();
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
    Log::Allocating(count, first, full_size, last_size);
    const size_t last = first + count - 1;
    for (size_t i = first; i <= last; ++i) {
        const unsigned int size = i == last ? last_size : full_size;
        infos[i].buffer =
            allocate_or_report(size, function, [&] { Log::TriedFragment(size, i, last - first); });
        if (infos[i].buffer == nullptr) {
            abort_allocation(infos, first, count, i, size);
            return -1;
        }
        infos[i].IndexStart = full_size * i;
        infos[i].IndexEnd = infos[i].IndexStart + size - 1;
    }
    Log::Allocated();
    return 0;
}

void Mem_VirtualFragmentsAllocator::abort_allocation(Mem_VirtualFragmentInfo* infos, size_t first,
                                                     size_t count, size_t failed, unsigned int size)
{
    Log::AllocationFailed(failed, first, count, size);
    if (failed > first)
        free_fragments(infos, first, failed - first);
}

void Mem_VirtualFragmentsAllocator::free_fragments(Mem_VirtualFragmentInfo* infos, size_t first,
                                                   size_t count)
{
    Log::Freeing(count, first);
    for (size_t i = first; i < first + count; ++i) {
        ::operator delete(infos[i].buffer);
        infos[i] = {};
    }
    Log::Freed();
}

// Resize ----------------------------------------------------------------------------------------

int Mem_VirtualFragmentsAllocator::reallocate_fragments(size_t new_fragments_num,
                                                        size_t new_total_buf_size,
                                                        unsigned int new_last_fragment_size,
                                                        bool is_partial)
{
    Log::Reallocating();
    const Mem_FragmentsResize resize{fragments_num,      new_fragments_num,      fragment_size,
                                     last_fragment_size, new_last_fragment_size, is_partial};
    auto infos = std::make_unique<Mem_VirtualFragmentInfo[]>(new_fragments_num);
    if (resize.Build(*this, infos.get()) == 0) {
        Log::TakingOver();
        delete[] fragments;
        fragments = infos.release();
        Log::TakenOver();
        return 0;
    }
    Log::ReallocationFailed(total_buf_size, new_total_buf_size);
    if (is_partial)
        ::operator delete(infos[resize.Unchanged()].buffer); // the copy, if it was made
    return -1;
}

int Mem_VirtualFragmentsAllocator::carry_over(Mem_VirtualFragmentInfo* infos,
                                              const Mem_FragmentsResize& resize)
{
    std::copy_n(fragments, resize.Unchanged(), infos);
    Log::CarriedOver(resize);
    return 0;
}

int Mem_VirtualFragmentsAllocator::copy_partial(Mem_VirtualFragmentInfo* infos,
                                                const Mem_FragmentsResize& resize)
{
    const size_t partial = resize.Unchanged();
    if (allocate_and_copy_fragment(fragments[partial], resize.OldPartialSize(), infos[partial],
                                   resize.NewPartialSize()) == -1) {
        Log::PartialFragmentFailed(resize);
        return -1;
    }
    Log::PartialFragmentIsReady();
    return 0;
}

int Mem_VirtualFragmentsAllocator::allocate_and_copy_fragment(Mem_VirtualFragmentInfo& old_info,
                                                              unsigned int old_size,
                                                              Mem_VirtualFragmentInfo& new_info,
                                                              unsigned int new_size)
{
    static constexpr const char* function =
        "Mem_VirtualFragmentsAllocator::allocate_and_copy_fragment";
    Log::Copying(old_size, new_size);
    new_info.buffer = allocate_or_report(new_size, function, [&] { Log::TriedCopy(new_size); });
    if (new_info.buffer == nullptr) {
        Log::CopyIsRefused(new_size, old_info);
        return -1;
    }
    Log::CopyIsAllocated();
    const unsigned int size = std::min(old_size, new_size);
    Platform::Mappings::Get().Prefetch(new_info.buffer, size, Platform::Mappings::Access::First);
    std::memcpy(new_info.buffer, old_info.buffer, size);
    Log::BytesAreCopied();
    new_info.IndexStart = old_info.IndexStart;
    new_info.IndexEnd = new_info.IndexStart + new_size - 1;
    Log::Copied();
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
    Log::Built(resize);
}

void Mem_VirtualFragmentsAllocator::free_old_partial(const Mem_FragmentsResize& resize)
{
    ::operator delete(fragments[resize.Unchanged()].buffer);
    Log::OldPartialIsFreed();
}
