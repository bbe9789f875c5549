#ifndef MEM_MEMINFO_H
#define MEM_MEMINFO_H

/// @file
/// Descriptors: what tells where a stretch of memory lies, here and for another process.

#include "Rw/RWCString.h"
#include "mempager_export.h"

class Block;
struct Mem_Chunk;
class Zor_iBuffer;
class Zor_oBuffer;

/// A stretch of a region: its size and its offset from the region's start, in bytes.
struct MEMPAGER_EXPORT Mem_MemoryChunk {
    /// No bytes at offset 0.
    Mem_MemoryChunk() = default;
    /// `size` bytes from `offset` on, of which a block may have a record.
    Mem_MemoryChunk(unsigned int size, unsigned int offset, Mem_Chunk* record = nullptr)
        : m_Size(size), m_Offset(offset), m_record(record)
    {
    }

    unsigned int m_Size = 0;   ///< bytes
    unsigned int m_Offset = 0; ///< bytes from the region's start

    /// The record of the block that gave the stretch out, for that block alone; null where it was
    /// told otherwise, as by another process.
    Mem_Chunk* m_record = nullptr;
};

/// Base of everything that describes a stretch of backing store. It owns nothing: the block that
/// the stretch was carved from belongs to its heap.
///
/// Threads: descriptors have no lock. While one is registered with a pager it changes only under
/// the pager's mutex.
class MEMPAGER_EXPORT BaseInfo
{
public:
    /// A stretch of no bytes without an owner block.
    BaseInfo() = default;
    /// `size` bytes at `offset` of `owner`, which may be null and isn't owned.
    BaseInfo(Block* owner, unsigned int size, unsigned int offset)
        : m_chunk(size, offset), m_owner_block(owner)
    {
    }
    /// Describes the same stretch.
    BaseInfo(const BaseInfo&) = default;
    /// Describes the same stretch from now on.
    BaseInfo& operator=(const BaseInfo&) = default;
    virtual ~BaseInfo();

    /// Bytes of the stretch.
    virtual unsigned int Size();

    /// Whether any byte of the owner block is allocated; false without an owner block.
    virtual bool IsUsed();

    /// Bytes from the region's start to the stretch.
    virtual unsigned int Offset();

    /// The block that the stretch was carved from; null where there is none.
    virtual Block* OwnerBlock();

    /// Size and offset together.
    virtual Mem_MemoryChunk GetChunk();

    /// Sets size and offset; no memory moves by it.
    virtual void SetChunk(Mem_MemoryChunk chunk);

private:
    friend struct Mem_TestAccess;

    Mem_MemoryChunk m_chunk;
    Block* m_owner_block = nullptr;
};

/// A stretch of backing store that can be mapped into this process.
///
/// Results are 0 for success and -1 for failure. Base form: nothing to map, so the three
/// operations that would do something do nothing and answer 0.
class MEMPAGER_EXPORT BaseMapInfo : public BaseInfo
{
public:
    /// A stretch of no bytes.
    BaseMapInfo() : BaseMapInfo(0, 0) {}
    /// A stretch without an owner block.
    BaseMapInfo(unsigned int size, unsigned int offset) : BaseInfo(nullptr, size, offset) {}
    /// Describes the same stretch; a view stays with the one that has made it.
    BaseMapInfo(const BaseMapInfo&) = default;
    /// As the copy.
    BaseMapInfo& operator=(const BaseMapInfo&) = default;
    ~BaseMapInfo() override;

    /// Makes a view of the whole stretch. Called only while there is none.
    virtual int Map();

    /// Ends the view; -1 if there was none. Allocates nothing.
    virtual int Unmap();

    /// Ends this process's hold on the stretch.
    virtual int Free();

    /// The first byte of the view; null while there is none.
    virtual void* Ptr();

    /// Whether this process made the memory.
    virtual bool Local();

    /// The system's handle of the mapping; null where there is none.
    virtual void* Handle() = 0;

    /// What the pager registers the region under; no two regions share it.
    virtual RWCString Name() = 0;

    /// What another process opens the mapping by; regions of one file share it.
    virtual RWCString MappingName() = 0;

    /// Where the stretch begins within the mapping, in bytes.
    virtual unsigned int HandleOffset() = 0;

    /// Sets both to 0.
    virtual void GetHeaderParameters(unsigned int& first, unsigned int& second);

    /// The first part of every unique name.
    static const char* const s_BlockPrefix;

    /// The number that the next unique name ends in. It is changed in one step.
    static int s_unique_name_id;

    /// A name that nothing else on this machine has: "%s_%ld_%ld_%ld" over s_BlockPrefix, the
    /// process's id, the thread's id and s_unique_name_id, which goes up by one. At most 255
    /// bytes. Throws std::bad_alloc. Threads: any.
    static RWCString CreateUniqueName();

    /// The process id in a unique name, or in the path of a temp file whose name ends in one; 0 if
    /// there is none. The folder, of either kind of path, plays no part. Threads: any. Throws
    /// std::bad_alloc.
    static int GetProcessIdFromUniqueName(RWCString name);

    /// The same for a zero-terminated name. Allocates nothing.
    static int GetProcessIdFromUniqueName(const char* name);

    /// Whether `name` has the form of a unique name, whoever made it. No region of another name is
    /// ever registered, or removed as a leftover. Allocates nothing. Threads: any.
    static bool IsUniqueName(const RWCString& name);
    /// The same of a zero-terminated text.
    static bool IsUniqueName(const char* name);

    /// The name, without its folder, of the temp file that bears a unique name: that stands behind
    /// `first_part`, the settings' FileHeap_TempFileName(). Throws std::bad_alloc. Threads: any.
    static RWCString TempFileName(const RWCString& first_part, const RWCString& unique_name);

    /// Whether `name`, without a folder, has the form that the above gives. No file of another
    /// name is ever taken for a temp file, or removed as a leftover. Allocates nothing.
    /// Threads: any.
    static bool IsTempFileName(const char* name, const RWCString& first_part);

protected:
    /// A stretch that was carved from `block`.
    BaseMapInfo(unsigned int size, unsigned int offset, Block* block)
        : BaseInfo(block, size, offset)
    {
    }

    /// Where the stretch is mapped; null while it isn't.
    void* m_pointer = nullptr;

private:
    friend struct Mem_TestAccess;
    friend class Mem_Blocks;

    int m_block_id = -1; // the pager's id for a region that it has made
};

/// Describes one piece: where it lies inside the region that holds it, which region that is, and
/// where it is mapped in this process at the moment.
///
/// The owner is the region's mapping object. It belongs to a heap, never to the descriptor, and
/// must be set before Local(), Handle() and HandleOffset() are asked.
class MEMPAGER_EXPORT MEM_MemInfo : public BaseMapInfo
{
public:
    /// A descriptor without an owner.
    MEM_MemInfo() = default;

    /// A piece of `owner`, carved from `block`. `alignment` is in bytes, 0 for none. Size and
    /// offset are 0 until SetChunk().
    MEM_MemInfo(BaseMapInfo* owner, unsigned int alignment, Block* block);

    /// Takes what describes the piece. The names and the streamed coordinates stay behind: they
    /// have served once the owner is bound.
    MEM_MemInfo(MEM_MemInfo& other);

    /// Takes everything, the names and the streamed coordinates too.
    MEM_MemInfo& operator=(const MEM_MemInfo& other) = default;
    ~MEM_MemInfo() override;

    bool Local() override;
    void* Handle() override;

    /// Always empty: the region's names are asked of the owner, or, on a descriptor that was
    /// streamed in, of GetInfoName() and GetMappingName().
    RWCString Name() override;
    RWCString MappingName() override;

    /// Bytes from the mapping's start to the piece.
    unsigned int HandleOffset() override;

    /// What the piece's address is a multiple of, in bytes; 0 for nothing.
    unsigned int Alignment() const { return m_alignment; }

    /// The region's mapping object, the heap's; null if none is set.
    BaseMapInfo* Owner() const { return m_owner; }

    /// Sets it; it isn't owned.
    void SetOwner(BaseMapInfo* owner) { m_owner = owner; }

    // What a streamed descriptor brought of its owner; meaningful after SetMappingInfo() alone.

    /// The region's name.
    RWCString GetInfoName() const { return m_info_name; }
    /// The name of the mapping that the region lies in.
    RWCString GetMappingName() const { return m_mapping_name; }
    /// The creator's system handle of the mapping; of no use in another process.
    void* GetOwnerHandle() const { return m_owner_handle; }
    /// Where the region begins in the mapping, in bytes.
    unsigned int GetOwnerOffset() const { return m_owner_offset; }
    /// The region's size in bytes.
    unsigned int GetOwnerSize() const { return m_owner_size; }

    /// Replaces the streamed coordinates of the owner. The texts are copied.
    void SetMappingInfo(void* ownerHandle, char* mappingName, char* infoName,
                        unsigned int ownerSize, unsigned int ownerOffset);

    /// Sets the piece's address from the base of the owner's view, or clears it on null.
    /// A piece of another process is moved up to its alignment.
    void UpdatePtrByBase(void* base);

private:
    friend struct Mem_TestAccess;
    friend class MEM_MemPager;
    /// @cond
    friend MEMPAGER_EXPORT Zor_oBuffer& operator<<(Zor_oBuffer& out, MEM_MemInfo& info);
    friend MEMPAGER_EXPORT Zor_iBuffer& operator>>(Zor_iBuffer& in, MEM_MemInfo& info);
    /// @endcond

    void forget_ptr() { m_pointer = nullptr; }

    BaseMapInfo* m_owner = nullptr;
    unsigned int m_alignment = 0;
    unsigned int m_SmallOffsetDueToAlignment = 0;
    RWCString m_info_name;
    RWCString m_mapping_name;
    unsigned int m_owner_size = 0;
    unsigned int m_owner_offset = 0;
    void* m_owner_handle = nullptr;
    bool m_registered = false; // a pager's handle has the piece
};

/// Writes what another process needs to find the piece of `info`: ten items, see docs/sharing.md.
/// The owner must be set. MEM_MemPager::StreamMemInfo() is the ordinary way here.
/// Threads: any, while nobody frees the piece. Out of memory, the stream fails.
MEMPAGER_EXPORT Zor_oBuffer& operator<<(Zor_oBuffer& out, MEM_MemInfo& info);

/// Reads what the operator above has written into a descriptor made by its default constructor,
/// for MEM_MemPager::Register(). A buffer that is short, or that claims a name of more than 255
/// bytes, puts the stream into the failed state and leaves the descriptor as it was.
/// Throws std::bad_alloc, and leaves the descriptor as it was then too.
MEMPAGER_EXPORT Zor_iBuffer& operator>>(Zor_iBuffer& in, MEM_MemInfo& info);

#endif
