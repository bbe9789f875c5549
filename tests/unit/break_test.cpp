// The checks of the pager's rooms and the heaps of themselves: hunts a relation that
// could break without being named. Each is broken on purpose, seen named, and mended.

#include "Mem/Mem_BlockSpaceLogic.h"
#include "Mem/Mem_MemInfo.h"
#include "Mem/Mem_ShmmHeap.h"
#include "support/Mem_TestAccess.h"
#include "support/PagerWorld.h"

#include <gtest/gtest.h>

#include <functional>
#include <iterator>
#include <utility>
#include <vector>

namespace
{
using Access = Mem_TestAccess;

struct Case {
    const char* named;
    std::function<void()> corrupt, mend;
};

// Another value for a member, and its own again.
template <class Member, class Value>
Case With(const char* named, Member& member, Value value)
{
    const Member own = member;
    return {named, [&member, value] { member = static_cast<Member>(value); },
            [&member, own] { member = own; }};
}

template <class Broken>
void ExpectNamed(const std::vector<Case>& cases, Broken broken)
{
    ASSERT_STREQ(broken(), nullptr);
    for (const Case& now : cases) {
        now.corrupt();
        EXPECT_STREQ(broken(), now.named);
        now.mend();
        ASSERT_STREQ(broken(), nullptr) << "after " << now.named;
    }
}

TEST(Rooms, NameTheRelationThatBreaksFirst)
{
    const TestConfiguration::Scope configuration;
    Memory_ShmmHeap heap;
    const auto pager = Access::MakePager(&heap);
    MEM_PagerInfo held, cached;
    ASSERT_EQ(pager->Allocate(40000, &held, 0), 0);
    ASSERT_EQ(pager->Allocate(40000, &cached, 0), 0);
    cached.Unmap();
    const auto broken = [&pager] { return Access::Broken(*pager); };
    RegisteredBlock& mapped = Access::Blocks(*pager).At(held.Block());
    RegisteredBlock& waiting = Access::Blocks(*pager).At(cached.Block());
    MEM_FifoQueue& queue = Access::Queue(*pager);
    int& id = Access::Ids(*pager).find(mapped.owner->Name())->second;
    const auto holding = [](const char* named, RegisteredBlock& block, Mem_Holding wrong) {
        const Mem_Holding own = block.Holding();
        return Case{named, [&block, wrong] { block.holding = wrong; },
                    [&block, own] { block.holding = own; }};
    };
    ASSERT_EQ(broken(), nullptr); // and the queue is up to date
    ExpectNamed(
        {holding("m_ref against stat", waiting, Mem_Holding(Mem_Holding::kCached, 1, false)),
         holding("a view against stat", mapped, Mem_Holding()),
         With("the queue's index", Access::Ring(queue)[0], held.Block()),
         {"an id too many in the queue", [&] { queue.Push(7); }, [&] { queue.Remove(7); }},
         {"the queue against stat", [&] { queue.Remove(cached.Block()); },
          [&] { queue.Push(cached.Block()); }},
         {"m_total_mapped", [&] { ++Access::TotalMapped(*pager); },
          [&] { --Access::TotalMapped(*pager); }},
         With("m_total_cached", Access::TotalCached(*pager), 1),
         With("a block without pieces", mapped.ref, 0),
         With("the name index", id, id + 1),
         {"a name too many", [&] { Access::Ids(*pager).emplace("nobody's", 9); },
          [&] { Access::Ids(*pager).erase("nobody's"); }},
         With("m_blocks_count", Access::Count(*pager), 3),
         With("m_local_blocks_size", Access::LocalBlocks(*pager), 1),
         With("m_foreign_blocks_size", Access::ForeignBlocks(*pager), 1),
         With("m_local_pieces_size", Access::LocalPieces(*pager), 1u << 20),
         With("m_foreign_pieces_size", Access::ForeignPieces(*pager), 1)},
        broken);
    held.Release();
    cached.Release();
    ExpectNamed({With("an empty table with a length", Access::Length(*pager), 1)}, broken);
}

TEST(SpaceLogic, NamesTheRelationThatBreaksFirst)
{
    BlockSpaceLogic logic(1000);
    const auto take = [&logic](unsigned size, unsigned alignment = 0) {
        Mem_MemoryChunk chunk;
        unsigned actual = 0;
        EXPECT_TRUE(logic.Allocate(size, &chunk, alignment, &actual));
        return chunk;
    };
    take(100);
    const Mem_MemoryChunk nothing = take(0);
    take(200);
    logic.Free(nothing); // stays as an empty free chunk between the two
    take(0, 64);
    take(10);
    const Mem_MemoryChunk hole = take(50);
    take(50);
    logic.Free(hole);

    auto& first = Access::Stretch(logic, 0);
    auto& second = Access::Stretch(logic, 1);
    auto& gap = Access::Stretch(logic, 2);
    auto& empty = *Access::Free(logic).First();
    auto& size = Access::Size(logic);
    auto& allocated = Access::Allocated(logic);
    ExpectNamed({With("a stretch's link back", second.before, nullptr),
                 With("a stretch that doesn't follow on the one before", second.offset, 101),
                 With("a chunk's size", first.size, 101),
                 With("the end of the last stretch", size, 1001),
                 With("m_allocated", allocated, allocated + 1),
                 {"the end of the last stretch", [&] { ++size, ++allocated; },
                  [&] { --size, --allocated; }},
                 With("an allocated chunk among the free ones", empty.is_free, false),
                 With("the order of the free chunks", empty.actual_size, 60),
                 With("a free stretch that can't be found", empty.actual_size, 10),
                 With("a chunk among the requests of 0 bytes", gap.size, 1),
                 {"a gap that can't be found", [&] { Access::Nothing(logic).clear(); },
                  [&] { Access::Nothing(logic).insert(gap); }},
                 With("the largest free chunk", Access::LargestChunk(logic), &first),
                 With("the largest free chunk's size", Access::LargestSize(logic), 1),
                 With("the number of empty free chunks", Access::EmptyCount(logic), 2),
                 With("m_allocated_count", Access::AllocatedCount(logic), 9),
                 With("the remembered answer", Access::Remembered(logic), &first),
                 {"a lost record", [&] { Access::Pool(logic).emplace_back(); },
                  [&] { Access::Pool(logic).pop_back(); }}},
                [&] { return logic.Broken(); });
}

TEST(Heap, NamesTheRelationThatBreaksFirst)
{
    const TestConfiguration::Scope configuration;
    Memory_ShmmHeap heap;
    BaseInfo* pieces[4];
    for (int i = 0; i < 4; ++i) // a block each, three of them of one kind
        ASSERT_EQ(heap.AllocateFor(&heap, 5 << 20, 0, &pieces[i], 0, i == 0), 0);
    heap.Free(std::exchange(pieces[1], nullptr)); // leaves its place in the index
    auto& blocks = Access::BlocksOf(heap);
    Block& newest = blocks.front();
    Block& middle = *std::next(blocks.begin());
    auto& place = Access::Place(newest);
    auto& allocated = Access::Allocated(Access::Space(newest));
    auto& total = Access::TotalSize(heap);
    auto& kinds = Access::KindsOf(heap);
    const auto leaf = [&](std::size_t at) -> auto&
    {
        return Access::Most(newest, Access::Leaf(newest, at));
    };
    ExpectNamed(
        {With("a block without chunks", allocated, 0),
         With("m_allocated", allocated, 1),
         {"the order of the blocks", [&] { newest.SetAge(1); }, [&] { newest.SetAge(4); }},
         With("the order of ages", Access::Age(newest, 0), 9),
         With("a free chunk where a block has left", leaf(0), 1),
         With("a block's place in the index", place.number, 1),
         With("a block's place in the index", place.ages, &kinds.rbegin()->second),
         With("a block's kind", place.kind.group_id, 7),
         {"a block's kind", [&] { middle.SetClient(&middle); }, [&] { middle.SetClient(&heap); }},
         With("a block's age", Access::Age(newest, 2), 9),
         With("a block's largest free chunk", leaf(1), 7),
         With("the tree of largest free chunks", Access::Most(newest, 1), 7),
         With("m_living", Access::Living(newest), 3),
         {"a kind without blocks", [&] { kinds[{}]; }, [&] { kinds.erase(kinds.find({})); }},
         {"a block in the index that isn't in the list", [&] { blocks.pop_front(); },
          [&] { blocks.push_front(newest); }},
         With("m_total_size", total, (15 << 20) - 1)},
        [&] { return heap.Broken(); });
    for (BaseInfo* const piece : {pieces[0], pieces[2], pieces[3]})
        heap.Free(piece);
    EXPECT_STREQ(heap.Broken(), nullptr);
}

} // namespace
