// Four processes of eight threads each live for a while. Hunts a byte that differs, and memory,
// descriptors or maps that grow.
//     prove_soak SECONDS SEED

#include "Zor/Zor_Buffer.h"
#include "prove/prove.h"

#include <atomic>
#include <fstream>
#include <thread>
#include <vector>

#include <malloc.h>

namespace
{
constexpr unsigned processes = 4, threads = 8, samples = 20;
constexpr double most_rise =
    50; ///< in percent; short runs scatter, and what grows for ever doubles
struct Process {
    std::atomic<long> operations, wrong, given; ///< the last in bytes, by malloc
};
struct Shared {
    std::atomic<bool> end;
    std::atomic<std::size_t> length; ///< of `lent`, the descriptor of another process's piece
    std::byte lent[1000];
    Process of[processes];
} * shared;

constexpr unsigned char lent_byte = 250;

int Lend()
{
    alarm(0);
    MEM_PagerInfo piece;
    Zor_oBuffer out;
    CHILD_CHECK(MEM_MemPager::GetHandle()->Allocate(9000, &piece, 0) == 0);
    Prove::Fill(piece, lent_byte);
    MEM_MemPager::GetHandle()->StreamMemInfo(piece, out);
    std::memcpy(shared->lent, out.Bytes().data(), out.Bytes().size());
    for (shared->length = out.Bytes().size(); !shared->end;)
        usleep(50000);
    return 0;
}

bool IsWhole(MEM_PagerInfo& piece, unsigned byte)
{
    const bool is_whole = piece.Map() == 0 && Prove::IsFullOf(piece, byte);
    return piece.Unmap() == 0 && is_whole;
}

/// One thread's pieces, each full of its own number. Whatever is refused is wrong.
void LiveOn(Process& process, unsigned thread, unsigned seed)
{
    Prove::Life life(seed);
    for (; !shared->end; ++process.operations) {
        const unsigned place = life.Below(24), kind = life.Below(100), number = thread * 24 + place;
        MEM_PagerInfo& piece = life.pieces[place];
        if (kind == 0)
            life.pager->ClearCache();
        else if (kind == 3) {
            MEM_PagerInfo borrowed = life.pager->Register({shared->lent, shared->length});
            process.wrong += !IsWhole(borrowed, lent_byte);
        } else if (kind == 4 && piece.IsValid() && life.Below(20) == 0)
            process.wrong += InChild([&] { return IsWhole(piece, number) ? 0 : 1; }) != 0;
        else if (kind < 3)
            process.wrong += life.buffer.Reallocate(1 + life.Below(60)) != 0;
        else if (kind < 20 || !piece.IsValid()) {
            const unsigned most = life.Below(4) == 0 ? 200000 : 9000;
            if (life.pager->Allocate(1 + life.Below(most), &piece, 0) == 0)
                Prove::Fill(piece, number);
            process.wrong += piece.Unmap() != 0;
        } else
            process.wrong += !IsWhole(piece, number);
    }
}

int Live(unsigned process, unsigned seed)
{
    alarm(0);
    std::vector<std::jthread> all;
    for (unsigned thread = 0; thread < threads; ++thread)
        all.emplace_back(LiveOn, std::ref(shared->of[process]), thread, seed * 100 + thread);
    while (!shared->end) {
        usleep(50000);
        shared->of[process].given = static_cast<long>(mallinfo2().uordblks);
    }
    all.clear();
    Mem_Status status;
    MEM_MemPager::GetHandle()->GetCurrentStatus(status);
    CHILD_CHECK(status.blocks_count == 0);
    return 0;
}

/// What a process holds at one moment.
struct Sample {
    Sample(pid_t id, const Process& process) : given_kb(process.given / 1024)
    {
        const std::string folder = "/proc/" + std::to_string(id);
        descriptors = std::distance(std::filesystem::directory_iterator(folder + "/fd"), {});
        std::string word;
        for (std::ifstream rollup(folder + "/smaps_rollup"); rollup >> word;)
            if (word == "Anonymous:")
                rollup >> private_kb;
        for (std::ifstream all(folder + "/maps"); std::getline(all, word);)
            ++maps;
        std::printf("%d: %ld KB private, %ld KB given by malloc, %ld descriptors, %ld maps, "
                    "%ld operations\n",
                    id, private_kb, given_kb, descriptors, maps, process.operations.load());
    }
    long private_kb = 0, given_kb = 0, descriptors = 0, maps = 0;
};
using Samples = std::vector<Sample>[processes];

/// By how many percent the most of the last quarter exceeds that of the second, where it is worst.
/// Of what is counted, `few` come and go.
double Rise(const Samples& all, long Sample::*member, long few = 0)
{
    const auto most = [=](const std::vector<Sample>& of, std::size_t from) {
        const auto begin = of.begin() + static_cast<std::ptrdiff_t>(from * samples / 4);
        const auto less = [=](const auto& a, const auto& b) { return a.*member < b.*member; };
        return static_cast<double>((*std::max_element(begin, begin + samples / 4, less)).*member +
                                   few);
    };
    double worst = -100;
    for (const std::vector<Sample>& of : all)
        worst = std::max(worst, 100 * most(of, 3) / most(of, 1) - 100);
    return worst;
}
} // namespace

int main(int, char** argv)
{
    shared = &Prove::Share<Shared>();
    const TempFolder temp;
    if (!Prove::MountOwn())
        return not_permitted;
    const unsigned seconds = Prove::Number(argv[1]);
    Prove::Settle(10, temp.path);
    TestConfiguration::cache_limit = 1 << 20;
    const pid_t lender = StartChild(Lend);
    while (shared->length == 0)
        usleep(1000);
    pid_t children[processes];
    for (unsigned process = 0; process < processes; ++process)
        children[process] =
            StartChild([=] { return Live(process, Prove::Number(argv[2]) * 4 + process); });
    Samples all;
    for (unsigned i = 0; i < samples; ++i) {
        usleep(static_cast<useconds_t>(1000) * 1000 / samples * seconds);
        for (unsigned process = 0; process < processes; ++process)
            all[process].emplace_back(children[process], shared->of[process]);
    }
    shared->end = true;
    long operations = 0, wrong = EndOfChild(lender) != 0;
    for (unsigned process = 0; process < processes; ++process) {
        wrong += EndOfChild(children[process]) != 0;
        wrong += shared->of[process].wrong;
        operations += shared->of[process].operations;
    }
    const long left = Prove::NamesAfterASweep(temp.path);
    const double rises[] = {Rise(all, &Sample::given_kb), Rise(all, &Sample::private_kb),
                            Rise(all, &Sample::descriptors, threads), Rise(all, &Sample::maps)};
    std::printf(
        "= %ld operations in %u s, %ld wrong; from the second quarter of the time to the "
        "last, in the process where it is most: bytes given by malloc %+.1f %%, private "
        "memory %+.1f %%, descriptors and one for each thread %+.1f %%, maps %+.1f %%\nleft %ld\n",
        operations, seconds, wrong, rises[0], rises[1], rises[2], rises[3], left);
    return wrong + left == 0 && *std::ranges::max_element(rises) < most_rise ? 0 : 1;
}
