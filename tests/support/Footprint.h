#ifndef SUPPORT_FOOTPRINT_H
#define SUPPORT_FOOTPRINT_H

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <string>

#include <unistd.h>

/// What this process holds of the system by way of the library. Equal before and after means
/// that nothing leaked.
struct Footprint {
    long names = 0;          ///< of this process in /dev/shm
    long descriptors = 0;    ///< all that are open
    long maps = 0;           ///< anchors and views of regions
    std::uint64_t bytes = 0; ///< of these maps

    bool operator==(const Footprint&) const = default;

    static Footprint Now()
    {
        Footprint now;
        for (const auto& entry : std::filesystem::directory_iterator("/dev/shm"))
            now.names += entry.path().filename().string().starts_with(own_prefix()) ? 1 : 0;
        for ([[maybe_unused]] const auto& entry :
             std::filesystem::directory_iterator("/proc/self/fd"))
            ++now.descriptors;
        std::ifstream maps("/proc/self/maps");
        for (std::string line; std::getline(maps, line);)
            now.count_map(line);
        return now;
    }

    friend std::ostream& operator<<(std::ostream& out, const Footprint& self)
    {
        return out << self.names << " names, " << self.descriptors << " descriptors, " << self.maps
                   << " maps of " << self.bytes << " bytes";
    }

private:
    static std::string own_prefix()
    {
        return "NorvaneMemoryBlock_" + std::to_string(getpid()) + "_";
    }

    /// A line is "first-end rights offset device inode   path". A file that was made without a
    /// name shows as "#inode (deleted)" for ever, also while it has one.
    void count_map(const std::string& line)
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
        ++maps;
        bytes += end - first;
    }
};

#endif
