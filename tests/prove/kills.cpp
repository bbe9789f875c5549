// Kills processes that allocate, map, resize and hand out their pieces, four at a time, beside a
// neighbour that lives on. Hunts a name of the living that goes, one of the dead that stays after a
// sweep, and a byte of the neighbour's that changes.
//     prove_kills KILLS SEED

#include "Mem/Mem_MemInfo.h"
#include "Zor/Zor_Buffer.h"
#include "prove/prove.h"

#include <atomic>

#include <sys/socket.h>

namespace
{
constexpr unsigned workers = 4;
struct Shared {
    std::atomic<bool> is_inside[workers], end;
    std::atomic<long> looks, read;
} * shared;
int line[2]; ///< descriptors of the workers' pieces, to the neighbour

/// Goes on until it is killed. @return only if a piece has lost a byte.
int Work(unsigned worker, unsigned seed)
{
    Prove::Life life(seed);
    MEM_MemoryConfiguration::GetInstance()->SetSwapMaxSizeInMb(worker % 2 * 4); // or in files
    const auto inside = [&](auto call) { // marked, so that it is seen where it was killed
        shared->is_inside[worker] = true;
        const int result = call();
        shared->is_inside[worker] = false;
        return result == 0;
    };
    for (;;) {
        const unsigned place = life.Below(8), kind = life.Below(8), big = life.Below(4);
        MEM_PagerInfo& piece = life.pieces[place];
        if (kind == 0)
            inside([&] { return life.buffer.Reallocate(1 + life.Below(60)); });
        else if (kind < 3 || !piece.IsValid()) {
            const unsigned size = 1 + life.Below(big == 0 ? 400000 : 5000);
            if (!inside([&] { return life.pager->Allocate(size, &piece, 0); }))
                continue;
            Prove::Fill(piece, place);
            inside([&] { return piece.Unmap(); });
        } else if (kind < 5) {
            Zor_oBuffer out;
            inside([&] { return life.pager->StreamMemInfo(piece, out), 0; });
            send(line[0], out.Bytes().data(), out.Bytes().size(), MSG_DONTWAIT);
        } else if (inside([&] { return piece.Map(); })) {
            CHILD_CHECK(Prove::IsFullOf(piece, place));
            inside([&] { return piece.Unmap(); });
        }
    }
}

/// Maps and reads a piece that was handed out, perhaps by somebody who is dead.
bool ReadOne()
{
    char bytes[1000];
    const ssize_t size = recv(line[1], bytes, sizeof bytes, MSG_DONTWAIT);
    if (size <= 0)
        return false;
    Zor_iBuffer in(bytes, static_cast<std::size_t>(size));
    MEM_MemInfo info;
    MEM_PagerInfo piece = (in >> info, MEM_MemPager::GetHandle()->Register(info));
    if (piece.Map() == 0 && piece.Size() > 0)
        shared->read += static_cast<const volatile char*>(piece.Ptr())[piece.Size() - 1] < 9;
    return true;
}

int Neighbour()
{
    alarm(0);
    MEM_PagerInfo pieces[24];
    for (unsigned i = 0; i < 24; ++i) {
        const unsigned size = i % 3 == 0 ? 400000 : 5000;
        CHILD_CHECK(MEM_MemPager::GetHandle()->Allocate(size, &pieces[i], 0) == 0);
        Prove::Fill(pieces[i], i);
        pieces[i].Unmap();
    }
    while (!shared->end) {
        if (ReadOne())
            continue;
        const auto i = static_cast<unsigned>(shared->looks++ % 24);
        CHILD_CHECK(pieces[i].Map() == 0);
        CHILD_CHECK(Prove::IsFullOf(pieces[i], i));
        CHILD_CHECK(pieces[i].Unmap() == 0);
    }
    return 0;
}

/// @return how many were inside of a call; below 0 if one ended by itself.
int KillFour(std::minstd_rand& random)
{
    pid_t children[workers];
    for (unsigned worker = 0; worker < workers; ++worker) {
        const auto seed = static_cast<unsigned>(random());
        children[worker] = StartChild([=] { return Work(worker, seed); });
    }
    usleep(1000 + static_cast<useconds_t>(random()) % 60000);
    int inside = 0;
    for (unsigned worker = 0; worker < workers; ++worker) {
        if (!EndByKill(children[worker]))
            return -1;
        inside += shared->is_inside[worker].exchange(false) ? 1 : 0;
    }
    return inside;
}
} // namespace

int main(int, char** argv)
{
    shared = &Prove::Share<Shared>();
    const TempFolder temp;
    if (!Prove::MountOwn())
        return not_permitted;
    Prove::Settle(4, temp.path);
    CHILD_CHECK(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, line) == 0);
    const pid_t neighbour = StartChild(Neighbour);
    while (shared->looks < 100)
        usleep(1000);
    const long living = Prove::Names(temp.path);
    long killed = 0, inside = 0, left = 0, swept = 0;
    std::minstd_rand random(Prove::Number(argv[2]));
    for (; killed < Prove::Number(argv[1]); killed += workers) {
        const int now = KillFour(random);
        CHILD_CHECK(now >= 0);
        inside += now;
        swept += Prove::Names(temp.path) - living;
        left += std::abs(Prove::NamesAfterASweep(temp.path) - living);
    }
    shared->end = true;
    const int end = EndOfChild(neighbour);
    left += Prove::NamesAfterASweep(temp.path);
    std::printf("= %ld killed, %ld of them inside a call; %ld names of the dead, all swept; the "
                "neighbour looked %ld times at its pieces and read %ld of the others', and ended "
                "with %d\nleft %ld\n",
                killed, inside, swept, shared->looks.load(), shared->read.load(), end, left);
    return end == 0 && left == 0 ? 0 : 1;
}
