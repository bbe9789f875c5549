#ifndef SUPPORT_LEFTOVERS_H
#define SUPPORT_LEFTOVERS_H

#include "Platform/Inspection.h"
#include "Platform/Mappings.h"

#include <string>
#include <vector>

/// Removes the dead mappings whose names begin so, as far as the platform takes them for that.
/// @return how many.
inline int RemoveDeadMappings(const std::string& prefix, const std::string& spare_folder)
{
    struct Names final : Platform::Mappings::Names {
        void Take(const char* name) override { all.emplace_back(name); }
        std::vector<std::string> all;
    };
    int removed = 0;
    for (const std::string& folder :
         {std::string(Platform::Inspection::Get().MappingFolder()), spare_folder}) {
        Names names;
        Platform::Inspection::Get().ListFiles(folder.c_str(), prefix.c_str(), names);
        for (const std::string& name : names.all)
            removed +=
                Platform::Mappings::Get().RemoveDeadMapping(folder.c_str(), name.c_str()) ? 1 : 0;
    }
    return removed;
}

#endif
