#ifndef MEM_NEWNAME_H
#define MEM_NEWNAME_H

#include "Mem/Mem_MemInfo.h"

/// The name of something that is being made, and the next one where that is taken: others can
/// foresee the numbers and plant what bears the names, so after a few one comes that they can't.
class Mem_NewName
{
public:
    /// A unique name. Throws std::bad_alloc.
    Mem_NewName() : m_text(BaseMapInfo::CreateUniqueName()) {}

    const RWCString& Text() const { return m_text; }

    /// Takes another name if the platform's last failure was for this one, unless that was so too
    /// often. @return whether it has. Throws std::bad_alloc.
    bool TryAnother();

private:
    RWCString m_text;
    int m_taken = 0;
};

#endif
