#ifndef MEM_FOREIGNOWNERS_H
#define MEM_FOREIGNOWNERS_H

#include "Rw/RWCString.h"

class BaseMapInfo;
class MEM_MemInfo;

/// What a descriptor from outside can't be registered for, apart from being this process's own: a
/// text for the log, null if nothing is wrong with it. Reads the descriptor alone.
const char* FaultOfDescriptor(MEM_MemInfo& info);

/// Whether the piece that a descriptor tells of lies within a region.
bool LiesIn(MEM_MemInfo& piece, BaseMapInfo& region);

/// The owners of a pager's foreign blocks: those of regions that other processes have made.
/// Threads: the caller holds the pager's mutex.
class Mem_ForeignOwners
{
public:
    /// `client` stands for the pager: two pagers get owners, and so views, of their own.
    explicit Mem_ForeignOwners(const void* client);

    /// The owner of a region that no block of this pager has yet. It goes again unless it is kept.
    class Fresh
    {
    public:
        /// Of the region that the descriptor tells of. Throws std::bad_alloc.
        Fresh(Mem_ForeignOwners& owners, MEM_MemInfo& info);
        ~Fresh();
        Fresh(const Fresh&) = delete;
        Fresh& operator=(const Fresh&) = delete;

        BaseMapInfo* Get() const { return m_owner; }
        void Keep() { m_owner = nullptr; }

    private:
        Mem_ForeignOwners& m_owners;
        const RWCString m_name;
        BaseMapInfo* m_owner;
    };

    /// Ends an owner, with its view, whose region is called `name`. Allocates nothing.
    void Release(BaseMapInfo* owner, RWCString name);

private:
    friend struct Mem_TestAccess;

    const void* const m_client;
};

#endif
