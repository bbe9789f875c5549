#ifndef SUPPORT_CHILD_H
#define SUPPORT_CHILD_H

#include <cstdint>
#include <cstdio>
#include <map>
#include <optional>
#include <string>
#include <vector>

/// Checks up to three conditions, one after the other. The first that doesn't hold is told, and
/// ends a child's function with 1.
#define CHILD_CHECK(...)                                                                           \
    CHILD_CHECK_OF(__VA_ARGS__, CHILD_CHECK_3, CHILD_CHECK_2, CHILD_CHECK_1)(__VA_ARGS__)
#define CHILD_CHECK_OF(first, second, third, check, ...) check
#define CHILD_CHECK_1(condition)                                                                   \
    if (!(condition))                                                                              \
    return std::fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition), 1
#define CHILD_CHECK_2(first, second)                                                               \
    CHILD_CHECK_1(first);                                                                          \
    else CHILD_CHECK_1(second)
#define CHILD_CHECK_3(first, second, third)                                                        \
    CHILD_CHECK_2(first, second);                                                                  \
    else CHILD_CHECK_1(third)

/// Defines what a child does in that role: the body has an `argument`, std::string, and returns the
/// child's exit code. It talks with its parent by its standard input and output.
#define CHILD_ROLE(name)                                                                           \
    int role_##name(const std::string& argument);                                                  \
    [[maybe_unused]] inline const auto role_of_##name =                                            \
        Child::roles.emplace("--role=" #name, role_##name);                                        \
    inline int role_##name([[maybe_unused]] const std::string& argument)

/// A process of its own: this test program once more, which plays a role and begins anew, with
/// nothing of its parent's memory, or another program. Each system has an implementation of its
/// own. Threads: one at a time for each object.
class Child
{
public:
    /// What End() gives for a child that was killed.
    static constexpr int killed = -1;

    explicit Child(const char* role, const std::string& argument = "")
        : Child({own_program, std::string("--role=") + role, argument})
    {
    }
    /// A program and its arguments, without quotation marks.
    explicit Child(std::vector<std::string> command);
    /// Kills it, if its end wasn't waited for.
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    long Id() const { return m_id; }
    /// Gives its standard input some bytes; whether it reads them isn't seen here.
    void Write(const std::string& bytes);
    void EndInput();
    /// Waits for that many bytes of its standard output. @return fewer if it has ended.
    std::string Read(std::size_t size);
    /// Ends it at once, without the clean-up of a normal exit.
    void Kill();
    /// Waits for its end. One that takes longer than two minutes to get there is killed.
    /// @return its exit code, or `killed`; again the same when called again.
    int End();

    /// For main(): plays the role that the command line names, if it names one, to its exit code.
    static std::optional<int> PlayRole(int argc, char** argv);

    inline static std::map<std::string, int (*)(const std::string& argument)> roles;
    inline static std::string own_program; ///< known once PlayRole() was called

private:
    long m_id = -1;
    std::intptr_t m_line = -1; ///< the system's handle for its input and output
    std::optional<int> m_end;
};

#endif
