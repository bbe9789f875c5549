#ifndef SUPPORT_FOOTPRINT_H
#define SUPPORT_FOOTPRINT_H

#include <cstdint>
#include <ostream>

/// What this process holds of the system by way of the library. Equal before and after means
/// that nothing leaked. Each system has a Now() of its own.
struct Footprint {
    long names = 0;          ///< of this process's regions
    long descriptors = 0;    ///< all that are open
    long maps = 0;           ///< anchors and views of regions
    std::uint64_t bytes = 0; ///< of these maps

    bool operator==(const Footprint&) const = default;

    static Footprint Now();

    friend std::ostream& operator<<(std::ostream& out, const Footprint& self)
    {
        return out << self.names << " names, " << self.descriptors << " descriptors, " << self.maps
                   << " maps of " << self.bytes << " bytes";
    }
};

#endif
