// Four processes of eight threads each live for a while. Hunts a byte that differs, and memory,
// descriptors or maps that grow.
//     prove_soak SECONDS SEED [SAMPLES]

#include "Mem/Mem_MemFragmentsAllocator.h"
#include "Mem/Mem_MemPager.h"
#include "prove/prove.h"
#include "support/PagerWorld.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <fstream>
#include <random>
#include <thread>
#include <vector>

#include <malloc.h>

namespace
{
constexpr unsigned processes = 4, threads = 8, pieces = 24;
struct Shared {
    std::atomic<bool> end;
    struct {
        std::atomic<long> operations, broken, refused, kept; ///< bytes that malloc has given out
    } of[processes];
} * shared;

/// One thread's pieces, each full of its own number, and a buffer in fragments of 1000 bytes.
class Life
{
public:
    Life(unsigned process, unsigned thread, unsigned seed)
        : m_process(process), m_number(static_cast<unsigned char>(thread * pieces)), m_random(seed)
    {
    }
    void Step()
    {
        auto& told = shared->of[m_process];
        const unsigned place = Below(pieces), kind = Below(100);
        told.operations += 1;
        if (kind < 20 || !m_pieces[place].IsValid())
            told.refused += Replace(place) ? 0 : 1;
        else if (kind < 22)
            Resize();
        else if (kind == 22)
            MEM_MemPager::GetHandle()->ClearCache();
        else
            told.broken += Look(place) ? 0 : 1;
    }

private:
    unsigned Below(unsigned end) { return static_cast<unsigned>(m_random()) % end; }
    bool Replace(unsigned place)
    {
        const unsigned size = 1 + Below(Below(4) == 0 ? 200000 : 9000);
        if (MEM_MemPager::GetHandle()->Allocate(size, &m_pieces[place], 0) != 0)
            return false;
        std::memset(m_pieces[place].Ptr(), static_cast<int>(m_number + place), size);
        return m_pieces[place].Unmap() == 0;
    }
    bool Look(unsigned place)
    {
        MEM_PagerInfo& piece = m_pieces[place];
        if (piece.Map() != 0)
            return false;
        const auto number = static_cast<unsigned char>(m_number + place);
        const auto* const first = static_cast<const unsigned char*>(piece.Ptr());
        const bool holds = std::all_of(first, first + piece.Size(),
                                       [number](auto byte) { return byte == number; });
        return piece.Unmap() == 0 && holds;
    }
    void Resize()
    {
        if (m_fragments.Reallocate(1 + Below(60)) != 0)
            shared->of[m_process].refused += 1;
    }

    const unsigned m_process;
    const unsigned char m_number;
    std::minstd_rand m_random;
    MEM_PagerInfo m_pieces[pieces];
    Mem_MemFragmentsAllocator m_fragments{1000, 10, 4000};
};

int Live(unsigned process, unsigned seed)
{
    std::vector<std::jthread> all;
    for (unsigned thread = 0; thread < threads; ++thread)
        all.emplace_back([=] {
            Life life(process, thread, seed * 100 + process * threads + thread);
            while (!shared->end)
                life.Step();
        });
    while (!shared->end) {
        usleep(50000);
        shared->of[process].kept = static_cast<long>(mallinfo2().uordblks);
    }
    all.clear();
    Mem_Status status;
    MEM_MemPager::GetHandle()->GetCurrentStatus(status);
    return status.blocks_count == 0 ? 0 : 3;
}

/// What a process holds at one moment.
struct Sample {
    long private_kb, kept_kb, descriptors, maps;

    static Sample Of(pid_t child, unsigned process)
    {
        const std::string folder = "/proc/" + std::to_string(child);
        Sample now{0, shared->of[process].kept / 1024, 0, 0};
        now.descriptors = std::distance(std::filesystem::directory_iterator(folder + "/fd"), {});
        std::string word;
        for (std::ifstream rollup(folder + "/smaps_rollup"); rollup >> word;)
            if (word == "Anonymous:")
                rollup >> now.private_kb;
        std::ifstream maps(folder + "/maps");
        while (std::getline(maps, word))
            ++now.maps;
        return now;
    }
};

/// The most of a quarter of a process's samples.
long Most(const std::vector<Sample>& all, bool last, long Sample::*member)
{
    const std::size_t quarter = all.size() / 4, from = last ? all.size() - quarter : quarter;
    long most = 0;
    for (std::size_t i = from; i < from + quarter; ++i)
        most = std::max(most, all[i].*member);
    return most;
}

double Rise(const std::vector<Sample> (&samples)[processes], long Sample::*member)
{
    double worst = -1;
    for (const std::vector<Sample>& all : samples)
        worst = std::max(worst, static_cast<double>(Most(all, true, member)) /
                                        static_cast<double>(Most(all, false, member)) -
                                    1);
    return 100 * worst;
}

int Run(unsigned seconds, unsigned seed, unsigned count)
{
    const TempFolder temp;
    const TestConfiguration::Scope configuration;
    Configure(10, temp.path);
    Prove::QuietLog(temp.path);
    pid_t children[processes];
    for (unsigned process = 0; process < processes; ++process)
        children[process] = StartChild([=] { return alarm(0), Live(process, seed); });
    std::vector<Sample> samples[processes];
    for (unsigned i = 1; i <= count; ++i) {
        usleep(static_cast<useconds_t>(1e6 * seconds / count));
        for (unsigned process = 0; process < processes; ++process) {
            const Sample now = Sample::Of(children[process], process);
            samples[process].push_back(now);
            std::printf("%3u process %u: %ld KB private, %ld KB of malloc, %ld descriptors, %ld "
                        "maps, %ld operations\n",
                        i, process, now.private_kb, now.kept_kb, now.descriptors, now.maps,
                        shared->of[process].operations.load());
        }
    }
    shared->end = true;
    long operations = 0, broken = 0;
    for (unsigned process = 0; process < processes; ++process) {
        broken += EndOfChild(children[process]) != 0 ? 1 : 0;
        operations += shared->of[process].operations;
        broken += shared->of[process].broken + shared->of[process].refused;
    }
    const long left = Prove::NamesAfterASweep(temp.path);
    std::printf(
        "= %ld operations in %u s, %ld wrong; from the second to the last quarter of %u samples "
        "the worst process's most private memory %+.1f %%, malloc's bytes %+.1f %%, "
        "descriptors %+.1f %%, maps %+.1f %%\nleft %ld\n",
        operations, seconds, broken, count, Rise(samples, &Sample::private_kb),
        Rise(samples, &Sample::kept_kb), Rise(samples, &Sample::descriptors),
        Rise(samples, &Sample::maps), left);
    return broken + left == 0 ? 0 : 1;
}
} // namespace

int main(int argc, char** argv)
{
    shared = new (Prove::SharedPage()) Shared{};
    if (argc < 3 || !Prove::MountOwn())
        return argc < 3 ? 2 : not_permitted;
    return Run(static_cast<unsigned>(std::stoul(argv[1])),
               static_cast<unsigned>(std::stoul(argv[2])),
               argc > 3 ? static_cast<unsigned>(std::stoul(argv[3])) : 20);
}
