// One piece, two processes: the parent fills it, the child reads it where it lies. What goes from
// one to the other is a descriptor of a few dozen bytes.
#include "Mem/Mem_MemInfo.h"
#include "Mem/Mem_MemPager.h"
#include "Zor/Zor_Buffer.h"

#include <cstdio>
#include <string>

#include <sys/wait.h>
#include <unistd.h>

namespace
{
int Read(int from)
{
    char bytes[1024];
    const ssize_t size = read(from, bytes, sizeof bytes); // short enough to arrive whole
    if (size <= 0)
        return 1;

    Zor_iBuffer in(bytes, static_cast<std::size_t>(size));
    MEM_MemInfo info;
    in >> info;
    MEM_PagerInfo piece = MEM_MemPager::GetHandle()->Register(info);
    if (piece.Map() != 0)
        return 1; // refused, or its creator is gone; the log says why

    std::printf("Reader %d sees: %s\n", getpid(), static_cast<const char*>(piece.Ptr()));
    std::puts("It can't write there: the memory is opened for reading only.");
    std::fflush(stdout);
    piece.Unmap();
    return 0; // its handle goes with it; the piece stays the creator's
}

bool Make(MEM_PagerInfo& piece, int to)
{
    MEM_MemPager& pager = *MEM_MemPager::GetHandle();
    if (pager.Allocate(1000000, &piece, 0) != 0)
        return false;
    std::snprintf(static_cast<char*>(piece.Ptr()), 100, "a piece made by process %d", getpid());

    Zor_oBuffer out;
    pager.StreamMemInfo(piece, out);
    const std::string bytes = out.Bytes();
    return write(to, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
}
} // namespace

int main()
{
    int ends[2];
    if (pipe(ends) != 0)
        return 1;
    // First the reader, then the piece: to a child that is forked later, the parent's memory is
    // its own already, and the descriptor would be refused.
    const pid_t reader = fork();
    if (reader == 0) {
        close(ends[1]);
        return Read(ends[0]);
    }
    MEM_PagerInfo piece;
    const bool made = Make(piece, ends[1]);
    close(ends[1]); // a reader that got nothing sees the end

    // The piece has to live until the reader has mapped it.
    int status = 1;
    return made && waitpid(reader, &status, 0) == reader && status == 0 ? 0 : 1;
}
