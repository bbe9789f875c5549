// One process makes numbers, another reads them where they lie. What goes from one to the other is
// a descriptor of some 150 bytes.
#include "mempager/piece.h"

#include <array>
#include <cstdio>
#include <numeric>
#include <span>

#include <sys/wait.h>
#include <unistd.h>

namespace
{
int Read(int from)
{
    std::array<std::byte, 1024> bytes;
    const ssize_t length = read(from, bytes.data(), bytes.size()); // short: it arrives whole
    if (length <= 0)
        return 1; // the creator has failed
    const auto descriptor = std::span(bytes).first(static_cast<std::size_t>(length));
    const mempager::foreign<double> numbers(descriptor);
    const auto values = numbers.map();
    std::printf("Process %d sees %zu numbers, %.0f in all\n", getpid(), values.size(),
                std::accumulate(values.begin(), values.end(), 0.0));
    std::fflush(stdout);
    return 0;
}

/// @return the numbers: they have to live until the reader has mapped them.
mempager::piece<double> Make(int to)
{
    mempager::piece<double> numbers(1000000);
    const auto values = numbers.map();
    std::iota(values.begin(), values.end(), 1.0);
    const auto bytes = numbers.descriptor(); // after the last write
    if (write(to, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
        std::perror("two_processes");
    return numbers;
}
} // namespace

int main()
{
    int ends[2];
    if (pipe(ends) != 0)
        return 1;
    try {
        // First the reader, then the numbers: those of its parent would be its own already.
        const pid_t reader = fork();
        if (reader == 0) {
            close(ends[1]);
            _exit(Read(ends[0]));
        }
        const mempager::piece<double> numbers = Make(ends[1]);
        close(ends[1]);
        int status = 1;
        return waitpid(reader, &status, 0) == reader && status == 0 ? 0 : 1;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "two_processes: %s\n", failure.what());
        return 1;
    }
}
