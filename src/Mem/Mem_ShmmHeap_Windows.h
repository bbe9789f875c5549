#ifndef MEM_SHMMHEAP_WINDOWS_H
#define MEM_SHMMHEAP_WINDOWS_H

#include "Mem/Mem_FileHeap.h"
#include "Mem/Mem_Leftovers.h"
#include "Mem/Mem_ShmmHeap.h"

#include <map>
#include <utility>

// The heaps that give out regions, and what they give out. The prefix Windows_ and words such as
// "paging file" come from the first system that this library ran on: the code is portable, and asks
// the platform for all that differs between systems.

/// A region of its own: one named mapping on the paging file. Owned by the swap heap.
///
/// States: created (no mapping), allocated (a mapping, no view), mapped (both).
class SwapMapInfo : public BaseMapInfo
{
public:
    SwapMapInfo(RWCString name, unsigned int size);

    /// Views the whole region for reading and writing. @return 0; -1 with a line at level 5.
    int Map() override;

    /// Ends the view. @return 0, also if the system refused, which a line at level 4 tells;
    /// -1 if there was no view.
    int Unmap() override;

    void* Handle() override;
    RWCString Name() override;
    RWCString MappingName() override;
    unsigned int HandleOffset() override;

    /// Makes the mapping, with its memory reserved. @return 0; -1 with a line at level 5.
    virtual int AllocateSwap();

    /// Closes the mapping. @return 0.
    virtual int FreeSwap();

    /// Whether shared memory had no room, so that the region lies in the temp folder.
    bool IsSpare() const { return m_is_spare; }

private:
    friend struct Mem_TestAccess;

    void* m_handle = nullptr;
    bool m_is_spare = false;
    RWCString m_name;
};

/// The normal source of regions: one request, one named mapping on the paging file. Does no
/// carving, so its list of blocks stays empty; its size is exact.
class Swap_ShmmHeap : public ShmmHeap
{
public:
    /// The process's swap heap, made at the first call.
    static Swap_ShmmHeap* GetInstance();

    /// A region of `size` bytes or BaseBlockSize(), whichever is more, as a SwapMapInfo without a
    /// view. The other arguments play no part.
    int Allocate(unsigned int size, unsigned int alignment, BaseInfo** result,
                 unsigned int always_mapped, unsigned int group_id) override;
    int Allocate(unsigned int size, unsigned int alignment, BaseInfo** result) override;

    /// Takes a region back whose view has ended, and destroys `info`.
    int Free(BaseInfo* info) override;
    RWCString Name() override;
    Store StoreOf(const BaseInfo& region) const override;

    // This heap has no blocks: -1.
    int create_result_element(unsigned int size, Block** result, unsigned int always_mapped,
                              unsigned int group_id) override;
    int create_result_element(unsigned int size, Block** result) override;
    int destroy_element(Block* block) override;

private:
    friend struct Mem_TestAccess;

    const RWCString m_name = "Windows_Swap";
};

/// What offsets of regions in a temp file are multiples of: the system's allocation granularity,
/// asked once.
unsigned int GetAllocationGranularity();

/// A temp file with its named mapping.
class Windows_FileInfo : public FileInfo
{
public:
    Windows_FileInfo(RWCString name, unsigned int size) : FileInfo(std::move(name), size) {}

    int AllocateFile() override;
    int DestroyFile() override;
    RWCString MappingName() override;

    /// The platform's handle; null without a file.
    void* GetMappingHandle() const { return m_mapping_handle; }

private:
    friend struct Mem_TestAccess;

    void* m_mapping_handle = nullptr;
    RWCString m_mapping_name;
    long m_creator = 0; // a forked child has the object, but not the file
};

class Windows_FileMapInfo : public FileMapInfo
{
public:
    Windows_FileMapInfo(Windows_FileInfo* file, Block* block) : FileMapInfo(file, block) {}

    /// Views the region for reading and writing. @return 0; -1 with a line at level 5.
    int Map() override;

    /// As SwapMapInfo::Unmap().
    int Unmap() override;

    /// The region's place in the file.
    unsigned int HandleOffset() override;
};

class Windows_FileBlock : public FileBlock
{
public:
    explicit Windows_FileBlock(Windows_FileInfo* file) : FileBlock(file) {}
    int create_info(BaseInfo** result, unsigned int alignment, Block* block) override;
};

class Windows_File_ShmmHeap : public File_ShmmHeap
{
public:
    /// The process's file heap. The first call makes it and runs crash recovery.
    static Windows_File_ShmmHeap* GetInstance();

    Windows_File_ShmmHeap();

    RWCString Name() override;
    FileInfo* create_file(RWCString name, unsigned int size) override;
    Block* create_block(FileInfo* file) override;

    /// Looks through the temp folder for files whose names have the full form of a temp file's,
    /// and deletes those whose creator, by the process id in the name and the platform's word, is
    /// gone.
    /// What there isn't the time for now is left to later steps of TempFiles().
    int crash_recovery() override;

    /// The walk that crash_recovery() begins.
    Mem_Leftovers& TempFiles() { return m_temp_files; }

private:
    friend struct Mem_TestAccess;

    class LeftFiles final : public Mem_Leftovers
    {
    public:
        explicit LeftFiles(const Windows_File_ShmmHeap& heap)
            : Mem_Leftovers(heap.m_temp_path, heap.m_temp_file_name), m_heap(heap)
        {
        }

    private:
        bool remove_if_left(const char* name) override;

        const Windows_File_ShmmHeap& m_heap;
    };

    /// Whether the file is gone by this.
    static bool delete_file(const char* file);

    const RWCString m_name = "Windows_Files";
    LeftFiles m_temp_files;
};

/// A region that another process made, seen read-only. Owned by the owners repository.
///
/// States: closed (no handle, no view), open (a handle), mapped (both). Unmap() leaves the handle,
/// so that mapping anew opens nothing and works after the creator has closed the region.
class StreamedMapInfo : public BaseMapInfo
{
public:
    StreamedMapInfo(const char* mappingName, const char* name, unsigned int offset,
                    unsigned int size);
    ~StreamedMapInfo() override;

    /// Opens the mapping by its name, unless it is open, and maps the region for reading.
    /// @return 0; -1 with a line at level 3 if it can't be opened, at level 5 if not mapped.
    int Map() override;

    /// As SwapMapInfo::Unmap().
    int Unmap() override;

    /// Ends view and handle. @return 0.
    int Free() override;

    bool Local() override;
    void* Handle() override;
    RWCString Name() override;
    RWCString MappingName() override;
    unsigned int HandleOffset() override;

private:
    friend struct Mem_TestAccess;

    void* m_Handle = nullptr;
    RWCString m_mapping_name;
    RWCString m_name;
};

/// Keeps one owner for each foreign region: the first descriptor of a region fixes its coordinates.
class StreamedOwnersRepository
{
public:
    /// The owner of the region called `name`, made if there is none. `handle` means nothing in
    /// this process. Nothing is opened here. Throws std::bad_alloc.
    virtual BaseMapInfo* GetOwner(void* handle, RWCString& mappingName, RWCString& name,
                                  unsigned int offset, unsigned int size) = 0;

    /// Destroys the owner of that region. Allocates nothing.
    virtual void ReleaseOwner(RWCString& name) = 0;

protected:
    ~StreamedOwnersRepository() = default;
};

class Windows_StreamedOwnersRepository final : public StreamedOwnersRepository
{
public:
    BaseMapInfo* GetOwner(void* handle, RWCString& mappingName, RWCString& name,
                          unsigned int offset, unsigned int size) override;
    void ReleaseOwner(RWCString& name) override;

private:
    friend struct Mem_TestAccess;

    std::map<RWCString, StreamedMapInfo*> m_owners; // by the region's name
};

/// The repository of a client, made at its first call: two pagers get owners, and so views, of
/// their own. It lives as long as the process. Called with the pager's mutex held. Throws
/// std::bad_alloc at the first call, and allocates nothing later.
StreamedOwnersRepository* GetStreamedOwnersRepository(const void* client);

#endif
