#ifndef SUPPORT_CHILDREN_H
#define SUPPORT_CHILDREN_H

#include "support/Child.h"

#include <csignal>
#include <cstddef>
#include <iterator>
#include <optional>

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

/// Sets the soft limit, without a number to the hard one.
inline void Limit(__rlimit_resource what, std::optional<rlim_t> most)
{
    rlimit limit{};
    getrlimit(what, &limit);
    limit.rlim_cur = most.value_or(limit.rlim_max);
    setrlimit(what, &limit);
}

/// There where coverage is measured.
extern "C" [[gnu::weak]] void __gcov_dump();

/// Ends a child that has run to its end, at once. What it ran counts, whatever limits it has set.
[[noreturn]] inline void EndAtOnce(int code)
{
    if (__gcov_dump != nullptr) {
        for (const auto what : {RLIMIT_FSIZE, RLIMIT_AS, RLIMIT_NOFILE})
            Limit(what, std::nullopt);
        __gcov_dump();
    }
    _exit(code);
}

/// Starts a child whose body gives its exit code. It ends without the clean-up of a normal exit
/// unless the body calls exit() itself. One that hangs, or that a failed test left behind, ends
/// by SIGALRM after two minutes.
template <class Body>
pid_t StartChild(Body body)
{
    const pid_t child = fork();
    if (child == 0) {
        alarm(120);
        EndAtOnce(body());
    }
    return child;
}

/// Waits for a child's end. @return its exit code; the negative number of a signal that ended it.
inline int EndOfChild(pid_t child)
{
    int status = 0;
    waitpid(child, &status, 0);
    return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

/// Kills a child. @return whether that ended it.
inline bool EndByKill(pid_t child)
{
    return kill(child, SIGKILL) == 0 && EndOfChild(child) == -SIGKILL;
}

/// Gives up root's rights. @return whether there are none then.
inline bool GiveUpRights()
{
    return setuid(65534) == 0 || getuid() != 0;
}

template <class Body>
int InChild(Body body)
{
    return EndOfChild(StartChild(body));
}

/// The exit code of a child that wasn't allowed to do what its test needs.
constexpr int not_permitted = 77;

#define SKIP_IF_NOT_PERMITTED(code)                                                                \
    if ((code) == not_permitted)                                                                   \
    GTEST_SKIP() << "the system doesn't permit it here"

/// Runs the body in a child that may mount what it likes, unseen by others.
template <class Body>
int InChildAmongOwnMounts(Body body)
{
    return InChild([&body] {
        if (unshare(CLONE_NEWNS) != 0 || mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
            return not_permitted;
        return body();
    });
}

/// A test whose body runs in a child of its own and returns 0 if all is well.
/// `in_child` is InChild, or a function like it.
#define CHILD_TEST(suite, name, in_child)                                                          \
    int suite##_##name();                                                                          \
    TEST(suite, name)                                                                              \
    {                                                                                              \
        const int code = in_child(suite##_##name);                                                 \
        SKIP_IF_NOT_PERMITTED(code);                                                               \
        EXPECT_EQ(code, 0);                                                                        \
    }                                                                                              \
    int suite##_##name()

/// Mounts a new file system of that type over `where`.
inline bool Mount(const char* type, const char* where, const char* options = "",
                  unsigned long flags = 0)
{
    return mount(type, where, type, flags, options) == 0;
}

/// Has the system refuse, from now on, a call where an argument has that value, as some tools and
/// file systems do. @return whether it may.
inline bool RefuseCall(unsigned call, unsigned argument, unsigned value)
{
    const auto at = static_cast<unsigned>(offsetof(seccomp_data, args) + 8 * argument);
    sock_filter steps[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                           BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call, 0, 3),
                           BPF_STMT(BPF_LD | BPF_W | BPF_ABS, at),
                           BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, 0, 1),
                           BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EINVAL),
                           BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
    const sock_fprog program{std::size(steps), steps};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

#endif
