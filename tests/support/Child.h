#ifndef SUPPORT_CHILD_H
#define SUPPORT_CHILD_H

#include <cstdio>
#include <memory>
#include <optional>
#include <string>

/// Ends a child's function with 1, after telling what went wrong.
#define CHILD_CHECK(condition)                                                                     \
    if (!(condition))                                                                              \
    return std::fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition), 1

/// Defines what a child does in that role: the body has an `argument`, std::string, and returns the
/// child's exit code. It talks with its parent by its standard input and output.
#define CHILD_ROLE(name)                                                                           \
    int role_##name(const std::string& argument);                                                  \
    [[maybe_unused]] inline const bool role_of_##name = Child::AddRole(#name, role_##name);        \
    inline int role_##name([[maybe_unused]] const std::string& argument)

/// This test program once more, as a process of its own that plays a role. It begins anew, with
/// nothing of its parent's memory. Each system has an implementation of its own.
/// Threads: one at a time for each object.
class Child
{
public:
    /// What End() gives for a child that was killed.
    static constexpr int killed = -1;

    /// Starts it. If it can't be started, all that is asked of it fails.
    explicit Child(const char* role, const std::string& argument = "");

    /// Kills it, if its end wasn't waited for.
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    /// Its process id.
    long Id() const;

    /// Gives its standard input some bytes; whether it reads them isn't seen here.
    void Write(const std::string& bytes);
    /// Ends its standard input.
    void EndInput();

    /// Waits for that many bytes of its standard output. @return fewer if it has ended.
    std::string Read(std::size_t size);

    /// Ends it at once, without the clean-up of a normal exit.
    void Kill();

    /// Waits for its end. One that takes longer than two minutes to get there is ended.
    /// @return its exit code, or `killed`; again the same when called again.
    int End();

    using Role = int (*)(const std::string& argument);
    static bool AddRole(const char* name, Role role);

    /// For main(): plays the role that the command line names, if it does, in a child.
    /// @return the exit code then.
    static std::optional<int> PlayRole(int argc, char** argv);

private:
    struct Process;
    const std::unique_ptr<Process> m_process;
};

#endif
