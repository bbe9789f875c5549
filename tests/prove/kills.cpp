// Kills processes that allocate, map, resize and hand out their pieces, four at a time, beside a
// neighbour that lives on. Hunts a name of the living that goes, one of the dead that stays after a
// sweep, and a byte of the neighbour's that changes.
//     prove_kills KILLS SEED

#include "Mem/Mem_MemFragmentsAllocator.h"
#include "Mem/Mem_MemInfo.h"
#include "Mem/Mem_MemPager.h"
#include "Zor/Zor_Buffer.h"
#include "prove/prove.h"
#include "support/PagerWorld.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <random>

#include <sys/socket.h>

namespace
{
constexpr unsigned workers = 4;
struct Shared {
    std::atomic<bool> is_inside[workers], end;
    std::atomic<long> looked, mapped;
} * shared;
int line[2]; ///< descriptors of the workers' pieces, to the neighbour

MEM_MemPager* pager()
{
    return MEM_MemPager::GetHandle();
}
bool IsFullOf(const MEM_PagerInfo& info, unsigned char number)
{
    const auto* const first = static_cast<const unsigned char*>(info.Ptr());
    return std::all_of(first, first + info.Size(), [number](auto byte) { return byte == number; });
}

/// Does something until it is killed. @return only if a piece has lost a byte.
class Worker
{
public:
    Worker(unsigned place, unsigned seed) : m_is_inside(shared->is_inside[place]), m_random(seed) {}
    int Live()
    {
        for (;;) {
            const unsigned place = Below(8), kind = Below(8);
            MEM_PagerInfo& piece = m_pieces[place];
            const auto number = static_cast<unsigned char>(place);
            if (kind == 0)
                Resize();
            else if (kind < 3 || !piece.IsValid())
                Replace(piece, number);
            else if (kind < 5)
                HandOut(piece);
            else if (Inside([&] { return piece.Map() == 0; })) {
                if (!IsFullOf(piece, number))
                    return 3;
                Inside([&] { return piece.Unmap() == 0; });
            }
        }
    }

private:
    unsigned Below(unsigned end) { return static_cast<unsigned>(m_random()) % end; }
    bool Inside(auto call)
    {
        m_is_inside = true;
        const bool good = call();
        m_is_inside = false;
        return good;
    }
    void Replace(MEM_PagerInfo& piece, unsigned char number)
    {
        const unsigned size = 1 + Below(Below(4) == 0 ? 400000 : 5000);
        if (!Inside([&] { return pager()->Allocate(size, &piece, 0) == 0; }))
            return;
        std::memset(piece.Ptr(), number, size);
        Inside([&] { return piece.Unmap() == 0; });
    }
    void Resize()
    {
        Inside([&] { return m_fragments.Reallocate(1 + Below(60)) == 0; });
    }
    void HandOut(MEM_PagerInfo& piece)
    {
        Zor_oBuffer out;
        Inside([&] { return pager()->StreamMemInfo(piece, out), true; });
        send(line[0], out.Bytes().data(), out.Bytes().size(), MSG_DONTWAIT);
    }

    std::atomic<bool>& m_is_inside;
    std::minstd_rand m_random;
    MEM_PagerInfo m_pieces[8];
    Mem_MemFragmentsAllocator m_fragments{1000, 10, 4000};
};

/// Reads what it is handed, of the living and of the dead, and looks at its own pieces.
int Neighbour()
{
    MEM_PagerInfo pieces[24];
    for (unsigned char i = 0; MEM_PagerInfo & piece : pieces) {
        CHILD_CHECK(pager()->Allocate(i % 3 == 0 ? 400000 : 5000, &piece, 0) == 0);
        std::memset(piece.Ptr(), ++i, piece.Size());
        piece.Unmap();
    }
    for (; !shared->end; ++shared->looked) {
        char bytes[1000];
        const ssize_t size = recv(line[1], bytes, sizeof bytes, MSG_DONTWAIT);
        if (size > 0) {
            Zor_iBuffer in(bytes, static_cast<std::size_t>(size));
            MEM_MemInfo info;
            MEM_PagerInfo piece = (in >> info, pager()->Register(info));
            if (piece.Map() == 0) {
                const auto* const first = static_cast<const volatile char*>(piece.Ptr());
                shared->mapped += first[0] + first[piece.Size() - 1] >= -256 ? 1 : 0;
            }
            continue;
        }
        const auto i = static_cast<unsigned char>(shared->looked % 24);
        CHILD_CHECK(pieces[i].Map() == 0, IsFullOf(pieces[i], i + 1), pieces[i].Unmap() == 0);
    }
    return 0;
}

/// Four of them, for a random time. @return how many were inside of a call; below 0 if one ended
/// by itself.
int KillFour(std::minstd_rand& random)
{
    pid_t children[workers];
    for (unsigned place = 0; place < workers; ++place) {
        const auto seed = static_cast<unsigned>(random());
        children[place] = StartChild([=] { return Worker(place, seed).Live(); });
    }
    usleep(1000 + static_cast<useconds_t>(random()) % 60000);
    int inside = 0;
    for (unsigned place = 0; place < workers; ++place) {
        if (!EndByKill(children[place]))
            return -1;
        inside += shared->is_inside[place].exchange(false) ? 1 : 0;
    }
    return inside;
}

int Run(long kills, unsigned seed)
{
    const TempFolder temp;
    const TestConfiguration::Scope configuration;
    Configure(4, temp.path);
    Prove::QuietLog(temp.path);
    CHILD_CHECK(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, line) == 0);
    const pid_t neighbour = StartChild([] { return alarm(0), Neighbour(); });
    while (shared->looked < 100)
        usleep(1000);
    const long living = Prove::Names(temp.path);
    long killed = 0, inside = 0, left = 0, found = 0;
    std::minstd_rand random(seed);
    for (; killed < kills; killed += workers) {
        const int now = KillFour(random);
        CHILD_CHECK(now >= 0);
        inside += now;
        found += Prove::Names(temp.path) - living;
        left += std::abs(Prove::NamesAfterASweep(temp.path) - living);
    }
    shared->end = true;
    const int end = EndOfChild(neighbour);
    left += Prove::NamesAfterASweep(temp.path);
    std::printf(
        "= %ld killed, %ld inside a call, %ld names of the dead swept; neighbour: %ld looks, "
        "%ld pieces of others read, ended with %d\nleft %ld\n",
        killed, inside, found, shared->looked.load(), shared->mapped.load(), end, left);
    return end == 0 && left == 0 ? 0 : 1;
}
} // namespace

int main(int argc, char** argv)
{
    shared = new (Prove::SharedPage()) Shared{};
    if (argc != 3 || !Prove::MountOwn())
        return argc == 3 ? not_permitted : 2;
    return Run(std::stol(argv[1]), static_cast<unsigned>(std::stoul(argv[2])));
}
