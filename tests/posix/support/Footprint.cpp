#include "support/Footprint.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include <unistd.h>

namespace
{
namespace fs = std::filesystem;

/// A line is "first-end rights offset device inode   path". A file that was made without a
/// name shows as "#inode (deleted)" for ever, also while it has one.
void CountMap(const std::string& line, Footprint& now)
{
    const bool named = line.find("/dev/shm/NorvaneMemoryBlock_") != line.npos;
    const bool nameless = line.find("/dev/shm/#") != line.npos;
    unsigned long long first = 0;
    unsigned long long end = 0;
    char rights[5] = "";
    if (!named && !nameless)
        return;
    if (std::sscanf(line.c_str(), "%llx-%llx %4s", &first, &end, rights) != 3)
        return;
    ++now.maps;
    now.bytes += end - first;
}
} // namespace

Footprint Footprint::Now()
{
    Footprint now;
    const std::string own = "NorvaneMemoryBlock_" + std::to_string(getpid()) + "_";
    for (const auto& entry : fs::directory_iterator("/dev/shm"))
        now.names += entry.path().filename().string().starts_with(own) ? 1 : 0;
    now.descriptors = std::distance(fs::directory_iterator("/proc/self/fd"), {});
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);)
        CountMap(line, now);
    return now;
}
