// The pager's checks of itself: hunts a relation between its rooms' members that could break
// without being named. Each is broken on purpose, seen named, and mended.

#include "Mem/Mem_MemInfo.h"
#include "Mem/Mem_ShmmHeap.h"
#include "support/Mem_TestAccess.h"
#include "support/PagerWorld.h"

#include <gtest/gtest.h>

#include <functional>

namespace
{
using Access = Mem_TestAccess;

TEST(Rooms, NameTheRelationThatBreaksFirst)
{
    TestConfiguration::Scope configuration;
    Memory_ShmmHeap heap;
    const auto pager = Access::MakePager(&heap);
    MEM_PagerInfo held, cached;
    ASSERT_EQ(pager->Allocate(40000, &held, 0), 0);
    ASSERT_EQ(pager->Allocate(40000, &cached, 0), 0);
    cached.Unmap();
    const Mem_BlockTable& blocks = Access::Blocks(*pager);
    RegisteredBlock& mapped = blocks.At(held.Block());
    RegisteredBlock& waiting = blocks.At(cached.Block());
    const RWCString name = mapped.owner->Name();
    MEM_FifoQueue& queue = Access::Queue(*pager);
    int& slot = Access::Ring(queue)[0];

    struct Case {
        const char* named;
        std::function<void()> corrupt, mend;
    };
    const auto counted = [](const char* named, auto& member, auto difference) {
        return Case{named, [&member, difference] { member += difference; },
                    [&member, difference] { member -= difference; }};
    };
    const Case cases[] = {
        {"m_ref against stat",
         [&] { waiting.holding = Mem_Holding(Mem_Holding::kCached, 1, false); },
         [&] { waiting.holding = Mem_Holding(Mem_Holding::kCached, 0, false); }},
        {"a view against stat", [&] { mapped.holding = Mem_Holding(); },
         [&] { mapped.holding = Mem_Holding(Mem_Holding::kMapped, 1, false); }},
        {"the queue's index", [&] { slot = held.Block(); }, [&] { slot = cached.Block(); }},
        {"an id too many in the queue", [&] { queue.Push(7); }, [&] { queue.Remove(7); }},
        {"the queue against stat", [&] { queue.Remove(cached.Block()); },
         [&] { queue.Push(cached.Block()); }},
        counted("m_total_mapped", Access::TotalMapped(*pager), 1u),
        counted("m_total_cached", Access::TotalCached(*pager), 1u),
        counted("a block without pieces", mapped.ref, -1),
        counted("the name index", Access::Ids(*pager).find(name)->second, 1),
        {"a name too many", [&] { Access::Ids(*pager).emplace("nobody's", 9); },
         [&] { Access::Ids(*pager).erase("nobody's"); }},
        counted("m_blocks_count", Access::Count(*pager), 1),
        counted("m_local_blocks_size", Access::LocalBlocks(*pager), 1u),
        counted("m_foreign_blocks_size", Access::ForeignBlocks(*pager), 1u),
        counted("m_local_pieces_size", Access::LocalPieces(*pager), 1u << 20),
        counted("m_foreign_pieces_size", Access::ForeignPieces(*pager), 1u),
    };
    for (const Case& now : cases) {
        now.corrupt();
        EXPECT_STREQ(Access::Broken(*pager), now.named);
        now.mend();
        EXPECT_EQ(Access::Broken(*pager), nullptr) << now.named;
    }
    held.Release();
    cached.Release();
    Access::Length(*pager) = 1;
    EXPECT_STREQ(Access::Broken(*pager), "an empty table with a length");
    Access::Length(*pager) = 0;
}
} // namespace
