#ifndef PLATFORM_POSIX_PROCESS_H
#define PLATFORM_POSIX_PROCESS_H

#include "Platform/Process.h"

/// Linux. Each operation is defined with its kin: forks in Fork.cpp, memory in MemoryLimits.cpp,
/// maps in AddressSpace.cpp, failed allocations in AllocationFailure.cpp, words in Words.cpp.
class PosixProcess final : public Platform::Process
{
public:
    long ProcessId() override;
    long ThreadId() override;
    std::uint64_t RandomNumber() override;
    void CallUncancelled(void (*call)(void* argument), void* argument) override;
    bool OnFork(void (*prepare)(), void (*parent)(), void (*child)()) override;
    bool OthersHaveEnded() override;

    std::uint64_t MemoryLimit() override;
    Memory MemoryNow() override;
    bool ListMaps(Maps& maps) override;
    void OnAllocationFailure(AllocationHandler handler) override;

    void SystemName(char* text, std::size_t size) override;
    void ProcessName(char* text, std::size_t size) override;
    void TimeAndDate(char* text, std::size_t size) override;
    void ErrorText(unsigned long error, char* text, std::size_t size) override;
    bool TruncateLongFile(const char* path, std::uint64_t most) override;
    bool AppendToFile(const char* path, const char* text, std::size_t size) override;
    void StackTrace() override;
    void WriteStandardError(const char* text, std::size_t size) override;
};

#endif
