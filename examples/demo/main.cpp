// Correlates brain volumes that together don't fit into the process's address space, and checks
// every result against a computation that doesn't use the pager.
//
//     mempager_demo [folder of .nii.gz files]
//
// Ends with 0 only if all results agree and every piece was freed.
#include "../Common.h"
#include "Mem/Mem_Configuration.h"
#include "Mem/Mem_MemPager.h"
#include "NRVlog/Zor_LogFile.h"
#include "Zor/Zor_PerformanceCounters.h"
#include "machine.h"
#include "results.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace
{

constexpr std::uint64_t kMegabyte = 1 << 20;
constexpr std::uint64_t kAddressSpace = 700 * kMegabyte;
constexpr std::uint64_t kGoal = 2048 * kMegabyte;
constexpr std::uint64_t kMostPerVolume = 160 * kMegabyte; // the check holds three at once
constexpr unsigned kCacheInMb = 256;
constexpr unsigned kSharedMemoryInMb = 4000; // above the goal: files only where there is no room
const char* const kDefaultFolder = "/usr/share/mricron/templates";

double mb(std::uint64_t bytes)
{
    return static_cast<double>(bytes) / kMegabyte;
}

class Stopwatch
{
public:
    double Seconds() const
    {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - m_start).count();
    }

private:
    std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
};

std::vector<std::string> volume_paths(const std::string& folder)
{
    std::vector<std::string> paths;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(folder, error))
        if (entry.path().string().ends_with(".nii.gz"))
            paths.push_back(entry.path().string());
    std::sort(paths.begin(), paths.end());
    if (paths.empty())
        throw std::runtime_error("no .nii.gz files in " + folder +
                                 "; the Debian package mricron-data brings some to " +
                                 kDefaultFolder);
    return paths;
}

/// The files that can be read; tells of the others.
std::vector<File> survey(const std::string& folder)
{
    std::vector<File> files;
    for (const std::string& path : volume_paths(folder)) {
        try {
            files.push_back({path, ReadNifti(path, kMostPerVolume).shape});
        } catch (const std::runtime_error& error) {
            std::printf("Left out: %s %s\n", path.c_str(), error.what());
        }
    }
    return files;
}

Plan plan_job(const std::string& folder, bool is_limited)
{
    const std::uint64_t room = FindRoom();
    Plan plan = MakePlan(survey(folder), kGoal, room);
    if (plan.copies.empty())
        throw std::runtime_error("no volume that can be read and fits into shared memory or the "
                                 "temp folder");
    if (plan.Bytes() < kGoal)
        std::printf("There is room for %.0f MB here: the job is smaller\n", mb(room));
    std::printf("%zu volumes from %zu files, %.0f MB; ", plan.copies.size(), plan.files.size(),
                mb(plan.Bytes()));
    if (is_limited)
        std::printf("address space limited to %.0f MB\n", mb(kAddressSpace));
    else
        std::puts("this system limits no address space");
    return plan;
}

std::string malloc_verdict(const Plan& plan)
{
    std::vector<std::uint64_t> sizes;
    for (std::size_t copy = 0; copy != plan.copies.size(); ++copy)
        sizes.push_back(plan.FileOf(copy).Bytes());
    const std::optional<std::size_t> got = TryMalloc(sizes);
    if (!got)
        return "unknown: the child process didn't live to tell";
    if (*got == sizes.size())
        return "held all of them";
    return "gave up at volume " + std::to_string(*got + 1) + " of " + std::to_string(sizes.size());
}

/// Settings count from their next use; the counters are switched on when the pager is made.
void configure_pager()
{
    MEM_MemoryConfiguration* settings = MEM_MemoryConfiguration::GetInstance();
    settings->SetCacheSize(kCacheInMb);
    settings->SetSwapMaxSizeInMb(kSharedMemoryInMb);
    ZorGLog.SetLogLevel(5830000, 7);
}

void store_all(const Plan& plan, StoredVolumes& volumes)
{
    Progress progress("Volumes into the pager", plan.copies.size());
    Volume original;
    for (std::size_t copy = 0; copy != plan.copies.size(); ++copy) {
        if (copy == 0 || plan.copies[copy].file != plan.copies[copy - 1].file) {
            original = {}; // first: two of the largest needn't fit
            original = ReadNifti(plan.FileOf(copy).path, kMostPerVolume);
        }
        volumes.Store(copy, original, plan.copies[copy].round);
        progress.Step();
    }
}

struct Paged {
    Results results;
    std::uint64_t most_mapped;
};

/// The pager's part of the job, from the first piece to the last.
Paged run_paged(const Plan& plan)
{
    configure_pager();
    StoredVolumes volumes(plan.copies.size());
    store_all(plan, volumes);
    Results results = ComputePaged(plan, volumes);
    return {std::move(results), volumes.MostMapped()};
}

bool all_is_freed()
{
    Mem_Status status;
    MEM_MemPager::GetHandle()->GetCurrentStatus(status);
    return status.blocks_count == 0 && status.local_pieces_size == 0 && status.total_mapped == 0;
}

void print_row(const char* name, const std::string& value)
{
    std::printf("  %-44s %s\n", name, value.c_str());
}

std::string in_mb(std::uint64_t bytes)
{
    return std::to_string(bytes / kMegabyte) + " MB";
}

std::string in_seconds(double seconds)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.1f s", seconds);
    return text;
}

/// The intervals that the library's counter of that name has closed.
void print_counter(const char* row, const char* name)
{
    for (const auto& counter : Zor_PerformanceCounters::Instance()->ReadAll())
        if (counter.name == name)
            return print_row(row, std::to_string(counter.closes));
    print_row(row, "0");
}

int run(const std::string& folder)
{
    const bool is_limited = LimitAddressSpace(kAddressSpace);
    const Plan plan = plan_job(folder, is_limited);
    const std::string by_malloc =
        is_limited ? malloc_verdict(plan) : "not tried: there is no limit";

    const Stopwatch paged_time;
    const Paged paged = run_paged(plan);
    const double paged_seconds = paged_time.Seconds();
    const bool freed = all_is_freed();

    const Stopwatch plain_time;
    const bool agree = ComputePlain(plan) == paged.results;
    const double plain_seconds = plain_time.Seconds();

    std::printf("\nResults\n");
    print_row("stored in the pager", in_mb(plan.Bytes()));
    print_row("mapped at most, cache included", in_mb(paged.most_mapped));
    print_row(is_limited ? "address space at most" : "private memory at most",
              in_mb(MostAddressSpace()));
    print_counter("maps from the cache", "MEM_MapFromCache");
    print_counter("maps by the system", "MEM_MapFromSharedMem");
    print_counter("evictions from the cache", "MEM_UnmapToSharedMem");
    print_row("time through the pager", in_seconds(paged_seconds));
    print_row("time of the check in plain memory", in_seconds(plain_seconds));
    print_row("malloc under the same limit", by_malloc);
    print_row("summaries compared", std::to_string(plan.copies.size()));
    print_row("correlations compared", std::to_string(CountPairs(plan)));
    print_row("all results agree", agree ? "yes" : "NO");
    print_row("everything was freed", freed ? "yes" : "NO");
    return agree && freed ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ); // in order with the progress on stderr
    try {
        return run(argc > 1 ? argv[1] : kDefaultFolder);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "mempager_demo: %s\n", error.what());
        return 1;
    }
}
