#include "Mem/Mem_Blocks.h"

#include "Mem/Mem_FirstBreak.h"
#include "Mem/Mem_MemInfo.h"
#include "Mem/Mem_Status.h"

namespace
{
constexpr std::size_t kNameBuckets = 1024;
}

Mem_Blocks::Mem_Blocks() : m_block_ids(kNameBuckets)
{
    m_block_ids.max_load_factor(1e9F); // the number of buckets stays
}

Mem_Blocks::~Mem_Blocks()
{
    m_blocks.ForEach([](int, RegisteredBlock& block) { delete &block; });
}

Mem_Blocks::Next::Next(Mem_Blocks& blocks, const RWCString& name)
    : m_blocks(blocks), m_name(name), m_id(blocks.m_blocks.Length())
{
    blocks.m_blocks.ReserveNext();
    blocks.m_block_ids.emplace(name, m_id);
}

Mem_Blocks::Next::~Next()
{
    if (!m_used)
        m_blocks.m_block_ids.erase(m_name);
}

int Mem_Blocks::Next::Use(std::unique_ptr<RegisteredBlock> block, unsigned int piece_size)
{
    m_used = true;
    m_blocks.blocks_size_of(*block) += block->owner->Size();
    m_blocks.AddPiece(*block, piece_size);
    if (block->owner->Local())
        block->owner->m_block_id = m_id;
    block->id = m_id;
    m_blocks.m_blocks.Append(block.release());
    ++m_blocks.m_blocks_count;
    return m_id;
}

int Mem_Blocks::IdOf(const BaseMapInfo& owner) const
{
    const RegisteredBlock* const block = m_blocks.Find(owner.m_block_id);
    return block != nullptr && block->owner == &owner ? owner.m_block_id : -1;
}

int Mem_Blocks::IdOf(const RWCString& name) const
{
    const auto known = m_block_ids.find(name);
    return known != m_block_ids.end() ? known->second : -1;
}

void Mem_Blocks::AddPiece(RegisteredBlock& block, unsigned int size)
{
    ++block.ref;
    pieces_size_of(block) += size;
}

bool Mem_Blocks::RemovePiece(RegisteredBlock& block, unsigned int size)
{
    pieces_size_of(block) -= size;
    return --block.ref == 0;
}

void Mem_Blocks::Forget(int id, const RWCString& name)
{
    const std::unique_ptr<RegisteredBlock> block(&m_blocks.At(id));
    blocks_size_of(*block) -= block->owner->Size();
    m_block_ids.erase(name);
    m_blocks.Erase(id);
    if (--m_blocks_count == 0)
        m_blocks.Clear();
}

unsigned long long& Mem_Blocks::blocks_size_of(const RegisteredBlock& block)
{
    return block.owner->Local() ? m_local_blocks_size : m_foreign_blocks_size;
}

unsigned long long& Mem_Blocks::pieces_size_of(const RegisteredBlock& block)
{
    return block.owner->Local() ? m_local_pieces_size : m_foreign_pieces_size;
}

void Mem_Blocks::Tell(Mem_Status& status) const
{
    status.blocks_count = m_blocks_count;
    status.local_blocks_count = 0;
    status.foreign_blocks_size = m_foreign_blocks_size;
    status.foreign_pieces_size = m_foreign_pieces_size;
    status.local_blocks_size = m_local_blocks_size;
    status.local_pieces_size = m_local_pieces_size;
    m_blocks.ForEach([&status](int, const RegisteredBlock& block) {
        status.local_blocks_count += block.owner->Local() ? 1 : 0;
    });
}

const char* Mem_Blocks::Broken() const
{
    Mem_FirstBreak check;
    int blocks = 0;
    unsigned long long local = 0;
    unsigned long long foreign = 0;
    m_blocks.ForEach([&](int id, const RegisteredBlock& block) {
        ++blocks;
        (block.owner->Local() ? local : foreign) += block.owner->Size();
        check.Expect(block.ref > 0, "a block without pieces");
        check.Expect(IdOf(block.owner->Name()) == id, "the name index");
    });
    check.Expect(m_block_ids.size() == static_cast<std::size_t>(blocks), "a name too many");
    check.Expect(blocks == m_blocks_count, "m_blocks_count");
    check.Expect(blocks != 0 || m_blocks.Length() == 0, "an empty table with a length");
    check.Expect(local == m_local_blocks_size, "m_local_blocks_size");
    check.Expect(foreign == m_foreign_blocks_size, "m_foreign_blocks_size");
    check.Expect(m_local_pieces_size <= m_local_blocks_size, "m_local_pieces_size");
    check.Expect(m_foreign_blocks_size != 0 || m_foreign_pieces_size == 0, "m_foreign_pieces_size");
    return check.What();
}
