// Hunts a descriptor that makes its reader crash, overrun, hang or keep something: the bytes are
// read as three descriptors, one behind the other. scripts/fuzz builds and runs it.

#include "Mem/Mem_MemInfo.h"
#include "NRVlog/Zor_LogFile.h"
#include "Platform/Mappings.h"
#include "Zor/Zor_Buffer.h"
#include "support/Mem_TestAccess.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

namespace
{
constexpr char name[] = "NorvaneMemoryBlock_1_2_3";
constexpr unsigned region_size = 65536;

/// How many descriptors could be mapped, told at the end.
struct Mapped {
    ~Mapped() { std::fprintf(stderr, "mapped: %llu\n", number); }
    unsigned long long number = 0;
} all_mapped;
} // namespace

/// Makes a region, and in the corpus's folder the first input: two descriptors that can map it.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    ZorGLog.SetLogLevel(7); // each line is put together
    ZorGLog.SetSink([](const Zor_LogRecord&) {});
    Zor_oBuffer good;
    good << 96u << 100u << 0u << 4096u << 61440u;
    good.Write64bitHandle(nullptr);
    for (const char* text : {name, name})
        (good << int{sizeof name - 1}) << text;
    std::ofstream((*argv)[*argc - 1] + std::string("/good")) << good.Bytes() << good.Bytes();
    Platform::Mappings::Get().RemoveDeadMapping("/dev/shm", name);
    if (Platform::Mappings::Get().CreateSharedMapping(name, region_size, "/var/tmp") == nullptr)
        std::abort(); // another fuzzer runs
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size)
{
    MEM_MemPager& pager = *MEM_MemPager::GetHandle();
    Zor_iBuffer in(data, size);
    MEM_PagerInfo pieces[3];
    for (MEM_PagerInfo& piece : pieces) {
        MEM_MemInfo info;
        piece = (in >> info, pager.Register(info));
        const bool mapped = piece.Map() == 0;
        const auto* const bytes = static_cast<const volatile char*>(piece.Ptr());
        all_mapped.number += mapped ? 1 : 0;
        if (mapped != (bytes != nullptr) || piece.Size() > region_size ||
            (mapped && bytes[0] + bytes[piece.Size() - 1] + piece.Unmap() != 0))
            std::abort();
    }
    for (MEM_PagerInfo& piece : pieces)
        piece.Release();
    Mem_Status status;
    if (pager.GetCurrentStatus(status) + status.blocks_count != 0 || Mem_TestAccess::Broken(pager))
        std::abort();
    return 0;
}
