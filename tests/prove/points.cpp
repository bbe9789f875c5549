// Lets the n-th call of each kind that the library makes of the C library fail, once and lastingly,
// in eight scenarios, each time in a new process. Hunts a crash, a byte that differs, an operation
// that neither does its work nor tells, rooms at odds with themselves, a lock that is kept, and a
// name, descriptor or view that is left.
//     prove_points MOST_POINTS SEED [SCENARIO KIND N LASTING]

#include "Mem/Mem_MemFragmentsAllocator.h"
#include "Mem/Mem_MemInfo.h"
#include "Zor/Zor_Buffer.h"
#include "prove/below.h"
#include "prove/prove.h"
#include "support/Footprint.h"
#include "support/Mem_TestAccess.h"

#include <optional>
#include <random>
#include <thread>

namespace
{
std::string temp, descriptors; ///< the latter of a process that lives on
long names_of_maker = 0, own_names = 0;

struct Shared {
    std::uint64_t calls[100];
    const char* broken; ///< the promise, for who hasn't crashed
    long points, failed, left;
} * shared;

struct Broken {
    const char* promise;
};
void Expect(bool holds, const char* promise)
{
    if (!holds)
        throw Broken{promise};
}

MEM_MemPager* Pager()
{
    return MEM_MemPager::GetHandle();
}

/// A process's pieces, each full of a number of its own, and a buffer.
struct World {
    /// Runs a step that may be refused, by its result or for want of memory.
    bool Try(auto step)
    {
        try {
            if (step() == 0)
                return true;
        } catch (const std::bad_alloc&) {
        }
        ++refusals;
        return false;
    }
    void Add(unsigned size)
    {
        if (Try([&] { return Pager()->Allocate(size, &pieces[count], 64); }))
            Prove::Fill(pieces[count], count), ++count;
    }
    void Unmap()
    {
        for (MEM_PagerInfo& piece : pieces)
            while (piece.Ptr() != nullptr)
                piece.Unmap();
    }
    /// Maps all. Where calls fail a piece may not be mappable, but what is there is right.
    void Look(bool must_be = false)
    {
        for (std::size_t i = 0; i < count; ++i) {
            const bool there = pieces[i].IsValid() && Try([&] { return pieces[i].Map(); });
            Expect(there || !must_be || !pieces[i].IsValid(), "a piece can't be mapped any more");
            Expect(!there || Prove::IsFullOf(pieces[i], i), "a piece has lost bytes");
            if (there)
                pieces[i].Unmap();
        }
        for (std::size_t at = 0; at < elements; ++at) {
            const auto* const byte = static_cast<char*>(buffer->GetPointerAtIndex(at * 1000));
            Expect(byte != nullptr || !must_be, "a fragment can't be mapped any more");
            Expect(byte == nullptr || byte[999] == static_cast<char>(at), "a buffer's bytes");
        }
    }
    void ClearAndLook()
    {
        Unmap();
        Try([] { return Pager()->ClearCache(), 0; });
        Look();
    }

    MEM_PagerInfo pieces[16];
    std::size_t count = 0, elements = 0; ///< elements of 1000 bytes that were filled
    int refusals = 0;
    std::optional<Mem_MemFragmentsAllocator> buffer;
};

// The scenarios ---------------------------------------------------------------------------------

void Add(World& world)
{
    for (const unsigned size : {1000u, 1000u, 100000u, 300000u, 60000u})
        world.Add(size);
    world.Unmap();
}
void Use(World& world)
{
    Add(world);
    world.ClearAndLook();
}
void Cached(World& world)
{
    world.Look();
    world.Try([&] { return world.pieces[0].Cache(); });
    MEM_PagerInfo* infos[] = {&world.pieces[0], &world.pieces[1], &world.pieces[2]};
    if (world.Try([&] { return Pager()->MapMemPagerInfoVec(infos, 3); }))
        Pager()->UnmapMemPagerInfoVec(infos, 3);
    Pager()->ReduceWorkingSet();
    world.ClearAndLook();
}
void MakeBuffer(World& world)
{
    world.buffer.emplace(1000, 22, 4000);
    for (; world.elements < 22; ++world.elements)
        std::memset(world.buffer->GetPointerAtIndex(world.elements * 1000),
                    static_cast<int>(world.elements), 1000);
}
void Resize(World& world)
{
    for (const std::size_t to : {31u, 27u, 8u, 9u}) {
        if (world.Try([&] { return world.buffer->Reallocate(to); }))
            world.elements = std::min(world.elements, to);
        world.Look();
    }
}
void SecondProcess(World& world)
{
    world.count = 4;
    for (std::size_t i = 0; i < 4; ++i)
        world.Try([&] {
            Zor_iBuffer in(descriptors.data(), descriptors.size());
            MEM_MemInfo info;
            for (std::size_t skipped = 0; skipped <= i; ++skipped)
                in >> info;
            world.pieces[i] = Pager()->Register(info);
            return world.pieces[i].IsValid() ? 0 : -1;
        });
    world.ClearAndLook();
}
void Fork(World& world)
{
    world.Add(1000);
    const pid_t child = fork();
    if (child == 0) {
        world.Look();
        world.Add(50000);
        Below::Disarm();
        world.Unmap();
        world.Look(true);
        std::exit(0);
    }
    Expect(EndOfChild(child) == 0, "a child of a fork has lost its pieces");
    world.ClearAndLook();
}
void LeaveADeadName(World& world)
{
    Add(world);
    InChild([&] { return world.Add(70000), 0; });
    own_names = Footprint::Now().names;
}
void Inspect(World& world)
{
    const char* const folder = temp.c_str();
    world.Try([&] { return Mem_Inspection::List(folder).unread.empty() ? 0 : -1; });
    world.Try([&] { return Mem_Inspection::Examine(folder).empty() ? -1 : 0; });
    world.Try([&] { return Mem_Inspection::Clean(false, folder).unread.empty() ? 0 : -1; });
    world.Try([] { return MEM_MemPager::PrintVirtualMemoryStatus(), 0; });
    world.Try([] { return Pager()->PrintSharedMemoryStatus(), 0; });
    Below::Disarm();
    Expect(Footprint::Now().names == own_names, "a living process's name was taken");
}

constexpr struct {
    const char *name, *shared_memory;
    unsigned swap_mb;
    void (*prepare)(World&);
    void (*act)(World&);
} scenarios[] = {
    {"first use", "", 1500, [](World&) {}, Use},
    {"cached", "", 1500, Add, Cached},
    {"spilled", "", 0, [](World&) {}, Use},
    {"small /dev/shm", "size=256k", 1500, [](World&) {}, Use},
    {"fragments", "", 1500, MakeBuffer, Resize},
    {"second process", "", 1500, [](World&) {}, SecondProcess},
    {"fork", "", 1500, Add, Fork},
    {"inspection", "", 1500, LeaveADeadName, Inspect},
};

// The points ------------------------------------------------------------------------------------

struct Point {
    std::size_t scenario;
    int kind;
    std::uint64_t n;
    bool lasting;
};

void ExpectSound()
{
    for (MEM_MemPager* pager : {Pager(), MEM_MemPager::GetHandleForMP()})
        Expect(Mem_TestAccess::Broken(*pager) == nullptr, "a room is at odds with itself");
    bool free = false; // asked from another thread, since a lock lets its own thread in
    std::thread([&free] { free = Mem_TestAccess::TryAllLocks(); }).join();
    Expect(free, "a lock is kept");
}

void Run(const Point& point)
{
    const Footprint before = Footprint::Now();
    if (World world; true) {
        scenarios[point.scenario].prepare(world);
        Expect(world.refusals == 0, "refused before anything failed");
        Below::Arm(point.kind, point.n, point.lasting);
        scenarios[point.scenario].act(world);
        Below::Disarm();
        for (int kind = 0; kind < Below::Kinds; ++kind)
            shared->calls[kind] = Below::Calls(kind);
        Expect(world.refusals == 0 || Below::Failed() > 0, "refused though nothing failed");
        ExpectSound();
        world.Unmap();
        world.Look(true);
    }
    Pager()->ClearCache();
    ExpectSound();
    Mem_Status status;
    Pager()->GetCurrentStatus(status);
    Expect(status.blocks_count == 0, "a block is left");
    Expect(status.total_mapped == 0, "a mapping is left");
    const Footprint after = Footprint::Now();
    Expect(after.descriptors <= before.descriptors, "a descriptor is left");
    const bool stay = std::strcmp(Below::Names[std::max(point.kind, 0)], "munmap") == 0;
    Expect(after.maps <= before.maps + (stay ? static_cast<long>(Below::Failed()) : 0), "a view");
    World once_more;
    once_more.Add(100000);
    Expect(once_more.count == 1, "it can't go on when calls succeed again");
}

/// Runs a point in a process of its own, whose end is part of it.
void Judge(const Point& point)
{
    shared->broken = nullptr;
    const int end = InChild([&] {
        alarm(20);
        Prove::Settle(scenarios[point.scenario].swap_mb, temp);
        try {
            Run(point);
        } catch (const Broken& broken) {
            shared->broken = broken.promise;
        }
        std::exit(shared->broken != nullptr ? 1 : 0);
        return 0;
    });
    ++shared->points;
    const long names = Prove::Names(temp);
    const bool left = names != names_of_maker && Prove::NamesAfterASweep(temp) != names_of_maker;
    shared->left += left ? 1 : 0;
    shared->failed += end != 0 ? 1 : 0;
    if (end != 0 || left)
        std::printf("%s, %s, seen once more by %zu %d %llu %d: ended with %d, %s%s\n",
                    scenarios[point.scenario].name, Below::Names[std::max(point.kind, 0)],
                    point.scenario, point.kind, static_cast<unsigned long long>(point.n),
                    point.lasting, end, shared->broken != nullptr ? shared->broken : "",
                    left ? ", a name is left" : "");
}

/// Counts the calls of a scenario by a run where none fails, and takes some of them.
std::vector<Point> PointsOf(std::size_t scenario, std::size_t most, unsigned seed)
{
    Judge({scenario, -1, 0, false});
    std::vector<Point> points;
    for (int kind = 0; kind < Below::Kinds; ++kind)
        for (std::uint64_t n = 1; n <= shared->calls[kind]; ++n)
            for (const bool lasting : {false, true})
                points.push_back({scenario, kind, n, lasting});
    std::shuffle(points.begin(), points.end(), std::mt19937(seed));
    points.resize(std::min(points.size(), most));
    return points;
}

/// Another process's pieces, for as long as it lives.
int MakePieces(int output)
{
    alarm(0);
    Prove::Settle(1500, temp);
    World world;
    Add(world);
    Zor_oBuffer out;
    for (std::size_t i = 0; i < 4; ++i)
        Pager()->StreamMemInfo(world.pieces[i], out);
    CHILD_CHECK(write(output, out.Bytes().data(), out.Bytes().size()) > 0);
    return pause();
}

int RunScenario(std::size_t scenario, std::size_t most, unsigned seed, std::optional<Point> only)
{
    alarm(0);
    int ends[2];
    char bytes[1000];
    if (!Prove::MountOwn(scenarios[scenario].shared_memory))
        return not_permitted;
    CHILD_CHECK(pipe(ends) == 0);
    const pid_t maker = StartChild([&] { return MakePieces(ends[1]); });
    const ssize_t size = read(ends[0], bytes, sizeof bytes);
    CHILD_CHECK(size > 0);
    descriptors.assign(bytes, static_cast<std::size_t>(size));
    names_of_maker = Prove::Names(temp);
    for (const Point& point : only ? std::vector{*only} : PointsOf(scenario, most, seed))
        Judge(point);
    return EndByKill(maker) ? 0 : 2;
}
} // namespace

int main(int argc, char** argv)
{
    std::setvbuf(stdout, nullptr, _IONBF, 0); // children that exit have nothing to write twice
    const TempFolder folder;
    temp = folder.path;
    shared = &Prove::Share<Shared>();
    constexpr std::size_t all = std::size(scenarios);
    std::optional<Point> only;
    if (argc == 7)
        only = {Prove::Number(argv[3]), std::stoi(argv[4]), Prove::Number(argv[5]),
                *argv[6] == '1'};
    for (std::size_t scenario = 0; scenario < all; ++scenario) {
        if (only && only->scenario != scenario)
            continue;
        const std::size_t most = Prove::Number(argv[1]) / all;
        const int code =
            InChild([&] { return RunScenario(scenario, most, Prove::Number(argv[2]), only); });
        if (code != 0)
            return code;
        std::printf("%ld points after %s\n", shared->points, scenarios[scenario].name);
    }
    std::printf("= %ld points in %zu scenarios, %d kinds of calls: %ld with a crash or a broken "
                "promise\nleft %ld\n",
                shared->points, all, Below::Kinds, shared->failed, shared->left);
    return shared->failed + shared->left == 0 ? 0 : 1;
}
