#ifndef MEM_FILEHEAP_H
#define MEM_FILEHEAP_H

#include "Mem/Mem_ShmmHeap.h"

#include <cstdint>
#include <utility>

// The heap that carves regions out of temp files, but for what it asks the platform for: that is
// filled in by the classes of Mem_ShmmHeap_Windows.h.

/// A whole temp file. Not mappable as such; its block is carved into regions that are. Owned by
/// its block, with which it ends.
class FileInfo : public BaseInfo
{
public:
    FileInfo(RWCString name, unsigned int size)
        : BaseInfo(nullptr, size, 0), m_file_name(std::move(name))
    {
    }

    /// Makes the file, which must not exist, and its mapping. @return 0; -1 with a line in the log
    /// and nothing left.
    virtual int AllocateFile() = 0;

    /// Ends both. @return 0; -1 with lines in the log if the file is still there.
    virtual int DestroyFile() = 0;

    /// What another process opens the file's mapping by.
    virtual RWCString MappingName() = 0;

    /// The file's path.
    RWCString FileName() const { return m_file_name; }

private:
    friend struct Mem_TestAccess;

    RWCString m_file_name;
};

/// A region of a temp file, mapped by itself. Owned by the file heap.
class FileMapInfo : public BaseMapInfo
{
public:
    FileMapInfo(FileInfo* file, Block* block)
        : BaseMapInfo(0, 0, block), m_file(file), m_name(CreateUniqueName())
    {
    }

    /// Null: another process opens the region by MappingName().
    void* Handle() override;
    RWCString Name() override;

    /// The file's; all regions of a file share it.
    RWCString MappingName() override;

protected:
    friend struct Mem_TestAccess;

    FileInfo* m_file;

private:
    RWCString m_name;
};

/// A temp file, carved into regions of at least BaseBlockSize() that begin at multiples of the
/// system's allocation granularity. Regions of all groups share it.
class FileBlock : public Block
{
public:
    using Block::Allocate;
    using Block::CanAllocate;

    explicit FileBlock(FileInfo* file) : Block(file, nullptr, file->Size()) {}

    int Allocate(unsigned int size, unsigned int alignment, BaseInfo** result,
                 unsigned int always_mapped, unsigned int group_id,
                 unsigned int* actual_size) override;
    int CanAllocate(unsigned int size, unsigned int always_mapped, unsigned int group_id,
                    unsigned int alignment, unsigned int* actual_size) override;
    Mem_BlockKind KindAfter(unsigned int size, unsigned int always_mapped,
                            unsigned int group_id) const override;
};

/// The heap that gives out regions of temp files. Its settings are read once, when it is made.
class File_ShmmHeap : public ShmmHeap
{
public:
    /// `temp_path` ends in a separator.
    explicit File_ShmmHeap(const RWCString& temp_path);

    /// Regions of all groups share the files.
    using ShmmHeap::Allocate;
    int Allocate(unsigned int size, unsigned int alignment, BaseInfo** result,
                 unsigned int always_mapped, unsigned int group_id) override;

    /// Makes a new temp file, as large as the settings and the disk allow, and its block.
    /// @return 0; -1 if the limits or the disk refuse it, or if the file can't be made:
    ///         RegionLimits knows what stood in the way.
    int create_result_element(unsigned int size, Block** result, unsigned int always_mapped,
                              unsigned int group_id) override;
    int create_result_element(unsigned int size, Block** result) override;

    /// Ends the block's file, which counts no more, also if it couldn't be deleted.
    int destroy_element(Block* block) override;

    /// Bytes of all living temp files.
    std::uint64_t BytesOfFiles() const;
    Store StoreOf(const BaseInfo& region) const override;

    /// Whether `name` is the mapping's name of one of the living temp files.
    bool HasMapping(const RWCString& name) const;

    virtual FileInfo* create_file(RWCString name, unsigned int size) = 0;
    virtual Block* create_block(FileInfo* file) = 0;

    /// Deletes the temp files of dead processes. @return 0.
    virtual int crash_recovery() = 0;

protected:
    friend struct Mem_TestAccess;

    unsigned int m_file_size; // MB, as the next three
    unsigned int m_max_total_space;
    unsigned int m_min_space_to_leave;
    unsigned int m_current_space = 0; // of all living temp files
    RWCString m_temp_file_name;
    RWCString m_temp_path; // with the separator at its end

private:
    std::uint64_t new_file_size(unsigned int size) const;
    int make_file(const RWCString& unique_name, unsigned int bytes, Block** result);
};

#endif
