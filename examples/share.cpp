// One piece, two processes: the parent fills it, the child reads it where it lies. What goes from
// one to the other is a descriptor of a few dozen bytes.
#include "ChildProcess.h"
#include "Mem/Mem_MemPager.h"
#include "Zor/Zor_Buffer.h"

#include <cstdint>
#include <cstdio>
#include <span>
#include <string>

namespace
{
int Read()
{
    std::uint32_t size = 0; // then as many bytes
    char bytes[1024];
    if (Receive(&size, sizeof size) != sizeof size || size > sizeof bytes ||
        Receive(bytes, size) != size)
        return 1; // the creator has failed

    const auto descriptor = std::as_bytes(std::span(bytes, size));
    MEM_PagerInfo piece = MEM_MemPager::GetHandle()->Register(descriptor);
    if (piece.Map() != 0)
        return 1; // refused, or its creator is gone; the log says why

    std::printf("Reader %ld sees: %s\n", OwnProcess(), static_cast<const char*>(piece.Ptr()));
    std::puts("It can't write there: the memory is opened for reading only.");
    std::fflush(stdout);
    piece.Unmap();
    return 0; // its handle goes with it; the piece stays the creator's
}

int Make(const char* program)
{
    MEM_MemPager& pager = *MEM_MemPager::GetHandle();
    MEM_PagerInfo piece;
    if (pager.Allocate(1000000, &piece, 0) != 0)
        return 1;
    std::snprintf(static_cast<char*>(piece.Ptr()), 100, "a piece made by process %ld",
                  OwnProcess());

    Zor_oBuffer out;
    pager.StreamMemInfo(piece, out);
    const std::string bytes = out.Bytes();
    const auto size = static_cast<std::uint32_t>(bytes.size());
    ReaderProcess reader(program);
    const bool sent = reader.Send(&size, sizeof size) && reader.Send(bytes.data(), size);
    return reader.End() && sent ? 0 : 1; // the piece has to live until the reader has mapped it
}
} // namespace

int main(int argc, char** argv)
{
    return argc == 1 ? Make(argv[0]) : Read();
}
