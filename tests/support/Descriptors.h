#ifndef SUPPORT_DESCRIPTORS_H
#define SUPPORT_DESCRIPTORS_H

#include "Mem/Mem_MemInfo.h"
#include "Mem/Mem_MemPager.h"
#include "Zor/Zor_Buffer.h"
#include "support/ThisProcess.h"

#include <string>

/// Names of regions of this process: what all begin with, and one.
inline const std::string own = "NorvaneMemoryBlock_" + std::to_string(OwnId()) + "_1_";
inline const std::string good = own + "1";

/// The bytes of a descriptor, true or forged.
inline std::string Descriptor(unsigned offset, unsigned size, unsigned owner_offset,
                              unsigned owner_size, const std::string& mapping = good,
                              const std::string& name = own + "2")
{
    Zor_oBuffer out;
    out << offset << size << (offset ^ size) << owner_offset << owner_size;
    out.Write64bitHandle(nullptr);
    for (const std::string& text : {mapping, name})
        (out << static_cast<int>(text.size())) << text;
    return out.Bytes();
}

inline MEM_PagerInfo Adopt(MEM_MemPager& pager, const std::string& bytes)
{
    Zor_iBuffer in(bytes.data(), bytes.size());
    MEM_MemInfo info;
    in >> info;
    return pager.Register(info);
}

#endif
