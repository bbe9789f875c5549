// Lets the n-th call of each kind that the library makes of the C library fail, once and lastingly,
// in eight scenarios, each time in a new process. Hunts a crash, a byte that differs, an operation
// that neither does its work nor tells, rooms at odds with themselves, a lock that is kept, and a
// name, descriptor or view that is left.
//     prove_points MOST_POINTS SEED [SCENARIO KIND N LASTING]

#include "Mem/Mem_MemFragmentsAllocator.h"
#include "Mem/Mem_MemInfo.h"
#include "Mem/Mem_MemPager.h"
#include "Zor/Zor_Buffer.h"
#include "prove/below.h"
#include "prove/prove.h"
#include "support/Footprint.h"
#include "support/Mem_TestAccess.h"
#include "support/PagerWorld.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <numeric>
#include <optional>
#include <random>
#include <thread>

namespace
{
struct Point {
    std::size_t scenario;
    int kind;
    std::uint64_t n;
    bool lasting;
};

const std::string* temp_folder;
std::string descriptors_of_maker; ///< a process that lives on
long names_of_maker = 0;
std::optional<Point> only; ///< to be seen once more

/// What has been promised and not kept, by name; the number is the child's exit code.
const char* const broken_promises[] = {"",
                                       "an operation was refused without a failure",
                                       "a piece has lost bytes",
                                       "a piece can't be mapped any more",
                                       "a room is at odds with itself",
                                       "a lock is kept",
                                       "the pager has pieces or views when all are freed",
                                       "a descriptor is left",
                                       "a view is left",
                                       "the library can't go on when calls succeed again",
                                       "an exception that isn't std::bad_alloc",
                                       "a child of a fork has lost its pieces",
                                       "a living process's name was taken"};
enum Promise {
    kept,
    refused,
    bytes,
    unmappable,
    room,
    lock,
    rest,
    descriptor,
    view,
    goes_on,
    odd,
    forked,
    name
};

struct Broken {
    Promise promise;
};
void Expect(bool holds, Promise promise)
{
    if (!holds)
        throw Broken{promise};
}

/// A process's pieces, each full of a number of its own.
class World
{
public:
    /// Runs a step that may be refused, by its result or for want of memory.
    bool Try(auto step)
    {
        try {
            if (step() == 0)
                return true;
        } catch (const std::bad_alloc&) {
        } catch (const Broken&) {
            throw;
        } catch (...) {
            throw Broken{odd};
        }
        ++refusals;
        return false;
    }
    void Add(unsigned size)
    {
        MEM_PagerInfo& info = pieces[count];
        if (!Try([&] { return pager()->Allocate(size, &info, 64); }))
            return;
        std::memset(info.Ptr(), static_cast<int>(++count), size);
    }
    void Take(Zor_iBuffer& in)
    {
        MEM_PagerInfo& piece = pieces[count++];
        Try([&] {
            MEM_MemInfo info;
            piece = (in >> info, pager()->Register(info));
            return piece.IsValid() ? 0 : -1;
        });
    }
    void ClearCache()
    {
        Try([] { return pager()->ClearCache(), 0; });
    }
    static bool Holds(const MEM_PagerInfo& info, std::size_t number)
    {
        const auto* const first = static_cast<const unsigned char*>(info.Ptr());
        return std::all_of(first, first + info.Size(),
                           [number](auto byte) { return byte == number; });
    }
    /// Maps a piece that may not be mappable now, and unmaps it.
    void Look(std::size_t i)
    {
        if (!pieces[i].IsValid() || !Try([&] { return pieces[i].Map(); }))
            return;
        Expect(Holds(pieces[i], i + 1), bytes);
        Try([&] { return pieces[i].Unmap(); });
    }
    void UnmapAll()
    {
        for (std::size_t i = 0; i < count; ++i)
            while (pieces[i].Ptr() != nullptr)
                pieces[i].Unmap();
    }
    void LookAtAll()
    {
        for (std::size_t i = 0; i < count; ++i)
            Look(i);
    }
    /// Nothing fails any more: all have to be there.
    void ExpectWhole()
    {
        for (std::size_t i = 0; i < count; ++i) {
            if (!pieces[i].IsValid())
                continue; // a descriptor that was refused
            Expect(pieces[i].Map() == 0, unmappable);
            Expect(Holds(pieces[i], i + 1), bytes);
            pieces[i].Unmap();
        }
    }
    static MEM_MemPager* pager() { return MEM_MemPager::GetHandle(); }

    MEM_PagerInfo pieces[16];
    std::size_t count = 0;
    int refusals = 0;
    std::optional<Mem_MemFragmentsAllocator> fragments;
    std::size_t elements = 0; ///< of 1000 bytes
};

// The scenarios ---------------------------------------------------------------------------------

void Nothing(World&) {}
void Settle(World& world)
{
    for (const unsigned size : {1000u, 1000u, 100000u, 60000u, 60000u})
        world.Add(size);
    world.UnmapAll();
}

void FirstUse(World& world)
{
    for (const unsigned size : {1000u, 1000u, 100000u})
        world.Add(size);
    world.UnmapAll();
    world.LookAtAll();
}

void Cached(World& world)
{
    world.LookAtAll();
    world.Try([&] { return world.pieces[0].Cache(); });
    MEM_PagerInfo* infos[] = {&world.pieces[0], &world.pieces[1], &world.pieces[2]};
    if (world.Try([&] { return World::pager()->MapMemPagerInfoVec(infos, 3); }))
        World::pager()->UnmapMemPagerInfoVec(infos, 3);
    World::pager()->ReduceWorkingSet();
    world.ClearCache();
    world.LookAtAll();
}

void Spilled(World& world)
{
    for (const unsigned size : {100000u, 300000u, 1000u, 100000u})
        world.Add(size);
    world.UnmapAll();
    world.ClearCache();
    world.LookAtAll();
}

void FragmentsMake(World& world)
{
    world.fragments.emplace(1000, world.elements = 22, 4000);
    for (std::size_t at = 0; at < 22000; at += 1000)
        std::memset(world.fragments->GetPointerAtIndex(at), static_cast<int>(at / 1000), 1000);
}
void FragmentsLook(World& world, bool may_miss)
{
    for (std::size_t at = 0; at < std::min<std::size_t>(world.elements, 22); ++at) {
        const auto* const byte = static_cast<char*>(world.fragments->GetPointerAtIndex(at * 1000));
        Expect(byte != nullptr || may_miss, unmappable);
        Expect(byte == nullptr || byte[999] == static_cast<char>(at), bytes);
    }
}
void Fragments(World& world)
{
    for (const std::size_t to : {31, 27, 8, 9}) {
        if (world.Try([&] { return world.fragments->Reallocate(to); }))
            world.elements = world.elements < to && world.elements < 22 ? world.elements : to;
        FragmentsLook(world, true);
    }
}

void SecondProcess(World& world)
{
    std::optional<Zor_iBuffer> in;
    if (!world.Try([&] {
            return in.emplace(descriptors_of_maker.data(), descriptors_of_maker.size()), 0;
        }))
        return;
    for (int i = 0; i < 4; ++i)
        world.Take(*in);
    world.ClearCache();
    world.LookAtAll();
}

void Fork(World& world)
{
    world.Add(1000);
    const int refusals = world.refusals;
    const pid_t child = fork();
    if (child == 0) {
        try {
            world.LookAtAll();
            world.Add(50000);
            Below::Disarm();
            world.UnmapAll();
            world.ExpectWhole();
        } catch (const Broken& broken) {
            _exit(broken.promise);
        }
        std::exit(refusals == world.refusals || Below::Failed() > 0 ? kept : refused);
    }
    Expect(EndOfChild(child) == 0, forked);
    world.UnmapAll();
    world.LookAtAll();
}

void LeaveADeadName(World& world)
{
    Settle(world);
    EndOfChild(StartChild([] {
        MEM_PagerInfo info;
        World::pager()->Allocate(70000, &info, 0);
        return 0;
    }));
}
void Inspection(World& world)
{
    const std::string& temp = *temp_folder;
    world.Try([&] { return Mem_Inspection::List(temp.c_str()).unread.empty() ? 0 : -1; });
    world.Try([&] { return Mem_Inspection::Examine(temp.c_str()).empty() ? -1 : 0; });
    world.Try([&] { return Mem_Inspection::Clean(false, temp.c_str()).unread.empty() ? 0 : -1; });
    world.Try([&] { return MEM_MemPager::PrintVirtualMemoryStatus(), 0; });
    world.Try([&] { return World::pager()->PrintSharedMemoryStatus(), 0; });
}

struct Scenario {
    const char* name;
    const char* shared_memory;
    unsigned swap_mb;
    void (*prepare)(World&);
    void (*act)(World&);
};
constexpr Scenario scenarios[] = {
    {"first use", "", 1500, Nothing, FirstUse},
    {"cached", "", 1500, Settle, Cached},
    {"spilled", "", 0, Nothing, Spilled},
    {"small", "size=256k", 1500, Nothing, Spilled},
    {"fragments", "", 1500, FragmentsMake, Fragments},
    {"second process", "", 1500, Nothing, SecondProcess},
    {"fork", "", 1500, Settle, Fork},
    {"inspection", "", 1500, LeaveADeadName, Inspection},
};

// One point -------------------------------------------------------------------------------------

void ExpectSound()
{
    for (MEM_MemPager* pager : {MEM_MemPager::GetHandle(), MEM_MemPager::GetHandleForMP()})
        Expect(Mem_TestAccess::Broken(*pager) == nullptr, room);
    bool free = false; // asked from another thread, since a lock lets its own thread in
    std::thread([&free] { free = Mem_TestAccess::TryAllLocks(); }).join();
    Expect(free, lock);
}

/// @param calls gets how many of each kind there were, if it isn't null.
void RunPoint(const Point& point, std::uint64_t* calls)
{
    const Scenario& scenario = scenarios[point.scenario];
    const Footprint before = Footprint::Now();
    {
        World world;
        scenario.prepare(world);
        Expect(world.refusals == 0, refused);
        const long names = Footprint::Now().names;
        Below::Arm(point.kind, point.n, point.lasting);
        scenario.act(world);
        Below::Disarm();
        const std::uint64_t failed = Below::Failed();
        for (int kind = 0; calls != nullptr && kind < Below::Kinds; ++kind)
            calls[kind] = Below::Calls(kind);
        Expect(world.refusals == 0 || failed > 0, refused);
        ExpectSound();
        Expect(scenario.act != Inspection || Footprint::Now().names == names, name);
        world.UnmapAll();
        world.ExpectWhole();
        if (world.fragments)
            FragmentsLook(world, false);
    }
    World::pager()->ClearCache();
    Mem_Status status;
    World::pager()->GetCurrentStatus(status);
    Expect(status.blocks_count == 0, rest);
    Expect(status.total_mapped == 0, rest);
    ExpectSound();
    const Footprint after = Footprint::Now();
    Expect(after.descriptors <= before.descriptors, descriptor);
    const bool stays = std::strcmp(Below::Names[std::max(point.kind, 0)], "munmap") == 0;
    Expect(after.maps <= before.maps + (stays ? static_cast<long>(Below::Failed()) : 0), view);
    World once_more;
    once_more.Add(100000);
    Expect(once_more.count == 1, goes_on);
}

int BodyOf(const Point& point, std::uint64_t* calls)
{
    alarm(20);
    TestConfiguration::Scope configuration;
    TestConfiguration::cache_limit = 2 * 65536 - 1;
    TestConfiguration::trim_limit = 1;
    Configure(scenarios[point.scenario].swap_mb, *temp_folder);
    Prove::QuietLog(*temp_folder);
    try {
        RunPoint(point, calls);
        return kept;
    } catch (const Broken& broken) {
        return broken.promise;
    }
}

/// The end of a process is part of it.
int EndOf(const Point& point, std::uint64_t* calls = nullptr)
{
    return InChild([&] {
        std::exit(BodyOf(point, calls));
        return 0;
    });
}

// All points ------------------------------------------------------------------------------------

struct Sum {
    long points = 0, broken = 0, left = 0;
};

void Tell(const Point& point, const std::string& what)
{
    std::printf("%s, %s call %llu%s (%zu %d %llu %d): %s\n", scenarios[point.scenario].name,
                Below::Names[point.kind], static_cast<unsigned long long>(point.n),
                point.lasting ? " and all after it" : "", point.scenario, point.kind,
                static_cast<unsigned long long>(point.n), point.lasting, what.c_str());
}

void Judge(const Point& point, Sum& sum)
{
    const int end = EndOf(point);
    ++sum.points;
    if (end != 0) {
        ++sum.broken;
        Tell(point, end < 0 ? "signal " + std::to_string(-end) : broken_promises[end]);
    }
    if (Prove::Names(*temp_folder) != names_of_maker &&
        Prove::NamesAfterASweep(*temp_folder) != names_of_maker) {
        ++sum.left;
        Tell(point, "a name is left");
    }
}

/// Another process's pieces, for as long as it lives.
int MakePieces(int output, int input)
{
    alarm(0);
    const TestConfiguration::Scope configuration;
    Configure(1500, *temp_folder);
    World world;
    Settle(world);
    Zor_oBuffer out;
    for (std::size_t i = 0; i < 4; ++i)
        World::pager()->StreamMemInfo(world.pieces[i], out);
    char byte = 0;
    return write(output, out.Bytes().data(), out.Bytes().size()) < 0 || read(input, &byte, 1) < 0;
}

std::vector<Point> PointsOf(std::size_t scenario)
{
    auto* const calls = static_cast<std::uint64_t*>(Prove::SharedPage());
    std::vector<Point> points;
    const int end = EndOf({scenario, -1, 0, false}, calls);
    if (end != 0)
        std::printf("%s, with no failure: %d %s\n", scenarios[scenario].name, end,
                    broken_promises[std::max(end, 0)]);
    for (int kind = 0; end == 0 && kind < Below::Kinds; ++kind)
        for (std::uint64_t n = 1; n <= calls[kind]; ++n)
            for (const bool lasting : {false, true})
                points.push_back({scenario, kind, n, lasting});
    return points;
}
/// Sends the sum of a scenario's points to the parent, among mounts of its own.
int RunScenario(std::size_t scenario, std::size_t most, unsigned seed, Sum& sum)
{
    if (!Prove::MountOwn(scenarios[scenario].shared_memory))
        return not_permitted;
    int to_maker[2], from_maker[2];
    char descriptors[1000];
    CHILD_CHECK(pipe(to_maker) == 0, pipe(from_maker) == 0);
    const pid_t maker = StartChild([&] { return MakePieces(from_maker[1], to_maker[0]); });
    const ssize_t size = read(from_maker[0], descriptors, sizeof descriptors);
    CHILD_CHECK(size > 0);
    descriptors_of_maker.assign(descriptors, static_cast<std::size_t>(size));
    names_of_maker = Prove::Names(*temp_folder);
    std::vector<Point> points = PointsOf(scenario);
    CHILD_CHECK(!points.empty());
    if (only)
        points.assign(1, *only);
    std::shuffle(points.begin(), points.end(), std::mt19937(seed));
    points.resize(std::min(points.size(), most));
    for (const Point& point : points)
        Judge(point, sum);
    return EndByKill(maker) ? 0 : 2;
}
} // namespace

int main(int argc, char** argv)
{
    if (argc < 3)
        return 2;
    const TempFolder temp;
    temp_folder = &temp.path;
    std::setvbuf(stdout, nullptr, _IONBF, 0); // children that exit have nothing to write twice
    auto& sum = *static_cast<Sum*>(Prove::SharedPage());
    const std::size_t most = std::stoul(argv[1]) / std::size(scenarios);
    const auto seed = static_cast<unsigned>(std::stoul(argv[2]));
    if (argc == 7)
        only = {std::stoul(argv[3]), std::stoi(argv[4]), std::stoul(argv[5]), *argv[6] == '1'};
    for (std::size_t scenario = only ? only->scenario : 0;
         scenario < (only ? only->scenario + 1 : std::size(scenarios)); ++scenario) {
        const long before = sum.points;
        const int code = InChild([&] {
            alarm(0);
            return RunScenario(scenario, most, seed, sum);
        });
        if (code != 0)
            return std::printf("%s: %d\n", scenarios[scenario].name, code), code;
        std::printf("%s: %ld points\n", scenarios[scenario].name, sum.points - before);
    }
    std::printf(
        "= %ld points in %zu scenarios, %d kinds of calls: %ld with a broken promise\nleft %ld\n",
        sum.points, std::size(scenarios), Below::Kinds, sum.broken, sum.left);
    return sum.broken + sum.left == 0 ? 0 : 1;
}
