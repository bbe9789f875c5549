// How a pager comes to know a piece: of its own process, or of another.

#include "Mem/Mem_MemInfo.h"
#include "Mem/Mem_MemPager.h"
#include "Mem/Mem_PagerMapping.h"
#include "Mem/Mem_PagerRooms.h"
#include "Mem/Mem_PieceRecord.h"
#include "Mem/Mem_Refusal.h"
#include "Mem/Mem_ShmmHeap.h"
#include "NRVlog/Zor_Log.h"
#include "Zor/Zor_Buffer.h"

#include <memory>
#include <utility>

namespace
{
using Operation = Mem_Reason::Operation;
using Limit = Mem_Reason::Limit;
} // namespace

int MEM_MemPager::refuse_descriptor(const char* fault)
{
    ZOR_LOG("MEM_MemPager::Register", 3, "Register: Refused a descriptor: %s\n", fault);
    Refuse(Operation::Register, Limit::Descriptor, fault);
    return -1;
}

int MEM_MemPager::internal_register(MEM_MemInfo& info, MEM_PagerInfo* out)
{
    if (info.Owner() == nullptr || !info.Local())
        return register_foreign(info, out);
    auto state = std::make_unique<PagerInfoState>(&info, true);
    const int id = register_local(info);
    if (id < 0)
        return -1;
    state->block = &m_rooms->blocks.At(id);
    state->chunk = info.GetChunk().m_record;
    out->assign(std::move(state), id, this);
    return 0;
}

int MEM_MemPager::register_local(MEM_MemInfo& info)
{
    if (info.m_registered) {
        ZOR_LOG("MEM_MemPager::Register", 3, "Register: Refused a piece that has its handle\n");
        Refuse(Operation::Register, Limit::Request, "the piece has its handle");
        return -1;
    }
    const int known = m_rooms->blocks.IdOf(*info.Owner());
    const int id = known >= 0 ? register_on_block(known, info) : register_new_block(info);
    info.m_registered = id >= 0;
    return id;
}

int MEM_MemPager::register_on_block(int id, MEM_MemInfo& info)
{
    RegisteredBlock& block = m_rooms->blocks.At(id);
    const unsigned views = block.views;
    if (private_map(block, true) != 0) {
        ZOR_LOG("MEM_MemPager::internal_register", 5,
                "MemPager::Register failed to map block %d!\n", id);
        return -1;
    }
    m_rooms->views.Hold(block);
    m_rooms->blocks.AddPiece(block, info.Size());
    info.UpdatePtrByBase(block.owner->Ptr());
    if (block.views != views)
        MakeSmallReady(info, Platform::Mappings::Access::First);
    return id;
}

int MEM_MemPager::register_new_block(MEM_MemInfo& info)
{
    const RWCString name = info.Owner()->Name();
    if (m_rooms->blocks.IdOf(name) >= 0) {
        // Another process can foresee a name, and describe a region of its own by it. A new piece
        // must not rest on that region's view, which can't be written to.
        ZOR_LOG("MEM_MemPager::Register", 3,
                "Register: Refused a new region: a descriptor from outside bears its name\n");
        Refuse(Operation::Register, Limit::Descriptor, "one from outside bears the region's name");
        return -1;
    }
    auto block = std::make_unique<RegisteredBlock>(info.Owner());
    Mem_Blocks::Next next(m_rooms->blocks, name);
    Mem_Views::Place place(m_rooms->views, next.Id());
    if (private_map(*block, true) != 0) {
        ZOR_LOG("MEM_MemPager::internal_register", 5,
                "MemPager::Register failed to map a new block\n");
        return -1;
    }
    m_rooms->views.Hold(*block);
    info.UpdatePtrByBase(block->owner->Ptr());
    MakeSmallReady(info, Platform::Mappings::Access::First);
    place.Keep();
    return next.Use(std::move(block), info.Size());
}

MEM_PagerInfo MEM_MemPager::Register(MEM_MemInfo& info)
{
    MEM_PagerInfo handle;
    {
        WindowUnixGuard lock(&mutex);
        if (m_ended) {
            RefuseAtTheEnd(Operation::Register);
            return handle;
        }
        internal_register(info, &handle);
        check_invariants();
    }
    // Copying or destroying the handle takes its stripe, so the mutex, which comes after stripes,
    // was given back before.
    return handle;
}

MEM_PagerInfo MEM_MemPager::Register(std::span<const std::byte> descriptor)
{
    Zor_iBuffer in(descriptor.data(), descriptor.size());
    MEM_MemInfo info;
    in >> info;
    if (in)
        return Register(info);
    refuse_descriptor("it isn't whole");
    return {};
}

bool MEM_MemPager::made_here(MEM_MemInfo& info) const
{
    return has_local_block(info.GetInfoName()) || has_local_block(info.GetMappingName()) ||
           IsMappingOfOwnFile(info.GetMappingName());
}

int MEM_MemPager::register_foreign(MEM_MemInfo& info, MEM_PagerInfo* out)
{
    const char* fault = FaultOfDescriptor(info);
    if (fault == nullptr && made_here(info))
        fault = "this process made the memory";
    if (fault != nullptr)
        return refuse_descriptor(fault);
    auto piece = std::make_unique<MEM_MemInfo>(info);
    auto state = std::make_unique<PagerInfoState>(piece.get(), false);
    const int id = register_foreign_piece(info, *piece);
    if (id < 0)
        return -1;
    state->block = &m_rooms->blocks.At(id);
    out->assign(std::move(state), id, this);
    static_cast<void>(piece.release());
    return 0;
}

int MEM_MemPager::register_foreign_piece(MEM_MemInfo& info, MEM_MemInfo& piece)
{
    const int id = m_rooms->blocks.IdOf(info.GetInfoName());
    if (id < 0)
        return register_foreign_block(info, piece);
    RegisteredBlock& block = m_rooms->blocks.At(id);
    if (!LiesIn(piece, *block.owner))
        return refuse_descriptor("the piece lies outside its region");
    piece.SetOwner(block.owner);
    m_rooms->blocks.AddPiece(block, piece.Size());
    return id;
}

// A foreign block isn't mapped until a client maps a piece of it.
int MEM_MemPager::register_foreign_block(MEM_MemInfo& info, MEM_MemInfo& piece)
{
    Mem_ForeignOwners::Fresh owner(m_rooms->foreign, info);
    auto block = std::make_unique<RegisteredBlock>(owner.Get());
    Mem_Blocks::Next next(m_rooms->blocks, info.GetInfoName());
    Mem_Views::Place place(m_rooms->views, next.Id());
    piece.SetOwner(owner.Get());
    owner.Keep();
    place.Keep();
    return next.Use(std::move(block), piece.Size());
}
