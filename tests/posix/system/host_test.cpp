// Hosts that close what isn't theirs, cancel their threads, give them small stacks, or write to
// where nobody reads. Hunts bytes in the wrong file, a signal or an exception that ends the host,
// and names and descriptors that stay.

#include "Mem/Mem_Configuration.h"
#include "Mem/Mem_MemPager.h"
#include "Platform/LastError.h"
#include "Platform/Posix/AllocationFailure.h"
#include "posix/support/Children.h"
#include "support/Footprint.h"
#include "support/PagerWorld.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <random>
#include <vector>

#include <fcntl.h>
#include <locale.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>

namespace
{
namespace fs = std::filesystem;

struct Piece {
    Piece()
    {
        if (MEM_MemPager::GetHandle()->Allocate(3 << 20, &info, 0) == 0)
            std::memset(info.Ptr(), 'x', 3 << 20);
    }
    bool GoesAndComesBack()
    {
        info.Unmap();
        MEM_MemPager::GetHandle()->ClearCache();
        if (info.Map() != 0)
            return false;
        const char* bytes = static_cast<const char*>(info.Ptr());
        return std::all_of(bytes, bytes + info.Size(), [](char byte) { return byte == 'x'; });
    }
    MEM_PagerInfo info;
};

/// A file of the host's with a text in it.
struct HostFile {
    HostFile() : descriptor(mkstemp(path))
    {
        [[maybe_unused]] const ssize_t size = write(descriptor, text, sizeof text); // see IsWhole
    }
    ~HostFile() { unlink(path); }
    bool IsWhole() const
    {
        char now[2 * sizeof text];
        return pread(descriptor, now, sizeof now, 0) == sizeof text &&
               std::memcmp(now, text, sizeof text) == 0;
    }
    static constexpr char text[] = "of the host";
    char path[32] = "/var/tmp/host_file_XXXXXX";
    int descriptor;
};

CHILD_TEST(AHost, MayHaveClosedItsStandardStreams, InChild)
{
    Configure(0);
    for (const int stream : {0, 1, 2})
        close(stream);
    Piece piece;
    MEM_PagerInfo none;
    MEM_MemPager::GetHandle()->Allocate(0, &none, 0); // writes a line
    for (const int stream : {0, 1, 2})
        CHILD_CHECK(fcntl(stream, F_GETFD) == -1);
    CHILD_CHECK(uselocale(locale_t{}) == LC_GLOBAL_LOCALE); // the line had one of its own
    return piece.GoesAndComesBack() ? 0 : 2;
}

CHILD_TEST(AHost, MayCloseAllDescriptors, InChild)
{
    Configure(0);
    Piece piece;
    close_range(3, ~0u, 0);
    HostFile files[4];
    CHILD_CHECK(files[0].descriptor == 3);
    CHILD_CHECK(piece.GoesAndComesBack());
    piece.info = {};
    for (const HostFile& file : files)
        CHILD_CHECK(file.IsWhole());
    return 0;
}

/// Where a page can't be mapped anew by itself, as under some tools, a descriptor is kept for each
/// region; one that was closed is a refusal then.
int LiveWithoutPages()
{
    {
        const Footprint none = Footprint::Now();
        Piece piece;
        CHILD_CHECK(Footprint::Now().descriptors == none.descriptors + 1);
        CHILD_CHECK(piece.GoesAndComesBack());
        for (const auto& entry : fs::directory_iterator("/dev/shm"))
            fs::remove(entry);
        CHILD_CHECK(piece.GoesAndComesBack());
        close_range(3, ~0u, 0);
        const HostFile file;
        CHILD_CHECK(!piece.GoesAndComesBack(), Platform::LastError() == EBADF);
        piece.info = {};
        CHILD_CHECK(file.IsWhole(), close(file.descriptor) == 0);
    }
    const Footprint before = Footprint::Now();
    Limit(RLIMIT_NOFILE, 20);
    std::vector<MEM_PagerInfo> pieces(20);
    LogCapture log(3);
    while (MEM_MemPager::GetHandle()->Allocate(9 << 20, &pieces.back(), 0) == 0)
        pieces.emplace_back();
    CHILD_CHECK(log.Count(3, "MEM_MemPager::Allocate|\tA limit stands in the way: 20 open f") == 1);
    pieces.clear();
    return Footprint::Now() == before ? 0 : 2;
}

CHILD_TEST(AHost, MayRunUnderAToolThatMapsNoPageAnew, InChildAmongOwnMounts)
{
    if (!MallocComesByHere())
        return not_permitted; // a sanitizer has descriptors of its own, which are closed here
    CHILD_CHECK(Mount("tmpfs", "/dev/shm"));
    // to map a page's object once more
    return RefuseCall(SYS_mremap, 1, 0) ? LiveWithoutPages() : not_permitted;
}

/// Has the log written to a pipe that nobody reads, or to a file that may not grow.
void Break(int signal)
{
    int ends[2];
    if (signal == SIGPIPE && pipe(ends) == 0) {
        close(ends[0]);
        dup2(ends[1], 2);
    } else {
        const HostFile file;
        dup2(file.descriptor, 2);
        Limit(RLIMIT_FSIZE, sizeof HostFile::text);
    }
}

bool IsPending(int signal)
{
    sigset_t pending;
    return sigpending(&pending) == 0 && sigismember(&pending, signal) == 1;
}

TEST(AHost, IsNotEndedByItsLog)
{
    for (const int signal : {SIGPIPE, SIGXFSZ})
        EXPECT_EQ(0, InChild([signal] {
                      sigset_t set, mask;
                      Break(signal);
                      for (const bool one_is_pending : {false, true}) {
                          sigemptyset(&set);
                          sigaddset(&set, signal);
                          sigprocmask(one_is_pending ? SIG_BLOCK : SIG_UNBLOCK, &set, nullptr);
                          if (one_is_pending)
                              raise(signal);
                          MEM_PagerInfo none;
                          CHILD_CHECK(MEM_MemPager::GetHandle()->Allocate(0, &none, 0) == -1);
                          MEM_MemPager::GetHandle()->PrintSharedMemoryStatus(); // and a trace
                          CHILD_CHECK(IsPending(signal) == one_is_pending);
                          sigprocmask(SIG_BLOCK, nullptr, &mask);
                          CHILD_CHECK((sigismember(&mask, signal) == 1) == one_is_pending);
                      }
                      return 0;
                  }))
            << signal;
}

CHILD_TEST(AHost, MayTakeTheRightToItsNamesAway, InChildAmongOwnMounts)
{
    CHILD_CHECK(Mount("tmpfs", "/dev/shm"));
    for (const mode_t mode : {0555u, 0u}) { // a name that won't go, one that can't be looked at
        const int code = InChild([mode] {
            Piece piece;
            CHILD_CHECK(chmod("/dev/shm", mode) == 0, seteuid(65534) == 0);
            piece.info = {};
            CHILD_CHECK(seteuid(0) == 0, Footprint::Now().names == 1);
            std::exit(0);
            return 2;
        });
        CHILD_CHECK(code == 0, fs::is_empty("/dev/shm"));
    }
    return 0;
}

/// Lives with pieces of both kinds and a log of its own until it is cancelled.
void* LiveUntilCancelled(void*)
{
    std::minstd_rand random(static_cast<unsigned>(pthread_self() >> 12));
    for (;; pthread_testcancel()) {
        MEM_PagerInfo piece;
        MEM_MemPager::GetHandle()->Allocate(static_cast<unsigned>(random() % 3) << 22, &piece, 0);
        piece.Unmap();
        piece.Map();
        if (random() % 20 == 0)
            MEM_MemPager::GetHandle()->ClearCache();
        if (random() % 50 == 0)
            MEM_MemPager::GetHandle()->PrintSharedMemoryStatus();
    }
}

int CancelThreads(unsigned seed)
{
    std::minstd_rand random(seed);
    const HostFile log; // in which a line is a point where a thread can be cancelled
    Zor_LogFile::SetLogConfigDir("/nonexistent");
    ZorGLog.SetSink([&log](const Zor_LogRecord& record) {
        if (pwrite(log.descriptor, record.text, std::strlen(record.text), 0) < 0)
            std::abort();
    });
    Configure(seed % 2 * 1500);
    for (int round = 0; round < 6; ++round) {
        pthread_t threads[3];
        for (pthread_t& thread : threads)
            pthread_create(&thread, nullptr, LiveUntilCancelled, nullptr);
        for (const pthread_t thread : threads) {
            usleep(static_cast<useconds_t>(random() % 3000));
            pthread_cancel(thread);
        }
        for (const pthread_t thread : threads)
            pthread_join(thread, nullptr);
    }
    Piece piece;
    return piece.GoesAndComesBack() ? 0 : 2;
}

TEST(AHost, MayCancelInTheMidst)
{
    if (!MallocComesByHere())
        GTEST_SKIP() << "a sanitizer takes the unwinding for a fault";
    for (unsigned seed = 0; seed < 60; ++seed)
        ASSERT_EQ(InChild([seed] { return CancelThreads(seed); }), 0) << seed;
}

/// What a thread with a small stack does: all that a host calls, failures and reports among it.
void* LiveOnASmallStack(void* result)
{
    Piece piece;
    MEM_PagerInfo none;
    const bool lives = piece.GoesAndComesBack();
    Configure(0);
    const bool lives_in_a_file = Piece().GoesAndComesBack();
    const bool refuses = MEM_MemPager::GetHandle()->Allocate(~0u, &none, 0) == -1;
    MEM_MemPager::GetHandle()->PrintSharedMemoryStatus();
    *static_cast<bool*>(result) = lives && lives_in_a_file && refuses;
    return nullptr;
}

CHILD_TEST(AHost, MayHaveSmallStacks, InChildAmongOwnMounts)
{
    if (!MallocComesByHere())
        return not_permitted; // a sanitizer takes more of a stack
    constexpr std::size_t size = 64 << 10, host_needs = 16 << 10;
    CHILD_CHECK(Mount("tmpfs", "/dev/shm", "size=20m"));
    Zor_LogFile::SetLogConfigDir("/var/tmp");
    auto* stack = static_cast<unsigned char*>(
        mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    std::memset(stack, 0xa5, size);
    pthread_attr_t attributes;
    pthread_t thread;
    bool lived = false;
    pthread_attr_init(&attributes);
    CHILD_CHECK(pthread_attr_setstack(&attributes, stack, size) == 0);
    CHILD_CHECK(pthread_create(&thread, &attributes, LiveOnASmallStack, &lived) == 0);
    pthread_join(thread, nullptr);
    const auto untouched = std::find_if(stack, stack + size, [](int byte) { return byte != 0xa5; });
    std::fprintf(stderr, "%td bytes of stack used\n", stack + size - untouched);
    fs::remove("/var/tmp/mem_dump.log");
    CHILD_CHECK(untouched - stack >= static_cast<std::ptrdiff_t>(host_needs));
    return lived ? 0 : 2;
}
} // namespace
