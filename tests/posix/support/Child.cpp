#include "support/Child.h"

#include <cstdlib>
#include <filesystem>
#include <map>
#include <string_view>

#include <csignal>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{
constexpr std::string_view role_option = "--role=";

std::map<std::string_view, Child::Role>& Roles()
{
    static std::map<std::string_view, Child::Role> roles;
    return roles;
}

std::string g_program;
} // namespace

struct Child::Process {
    pid_t id = -1;
    int line = -1; ///< both its input and its output
    std::optional<int> end;
};

Child::Child(const char* role, const std::string& argument) : m_process(new Process)
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
        return;
    m_process->line = ends[0];
    std::string option = std::string(role_option) + role;
    std::string copy = argument;
    char* const arguments[] = {g_program.data(), option.data(), copy.data(), nullptr};
    posix_spawn_file_actions_t streams;
    posix_spawn_file_actions_init(&streams);
    posix_spawn_file_actions_adddup2(&streams, ends[1], 0);
    posix_spawn_file_actions_adddup2(&streams, ends[1], 1);
    if (posix_spawn(&m_process->id, g_program.c_str(), &streams, nullptr, arguments, environ) != 0)
        m_process->end = 127;
    posix_spawn_file_actions_destroy(&streams);
    close(ends[1]);
}

Child::~Child()
{
    Kill();
    End();
    close(m_process->line);
}

long Child::Id() const
{
    return m_process->id;
}

void Child::Write(const std::string& bytes)
{
    send(m_process->line, bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

void Child::EndInput()
{
    shutdown(m_process->line, SHUT_WR);
}

std::string Child::Read(std::size_t size)
{
    std::string bytes(size, '\0');
    const ssize_t length = recv(m_process->line, bytes.data(), size, MSG_WAITALL);
    bytes.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
    return bytes;
}

void Child::Kill()
{
    if (!m_process->end)
        kill(m_process->id, SIGKILL);
}

int Child::End()
{
    int status = 0;
    if (!m_process->end && waitpid(m_process->id, &status, 0) == m_process->id)
        m_process->end = WIFEXITED(status) ? WEXITSTATUS(status) : killed;
    return m_process->end.value_or(127);
}

bool Child::AddRole(const char* name, Role role)
{
    return Roles().emplace(name, role).second;
}

std::optional<int> Child::PlayRole(int argc, char** argv)
{
    g_program = std::filesystem::absolute(argv[0]).string();
    const std::string_view option = argc == 3 ? argv[1] : "";
    if (!option.starts_with(role_option))
        return {};
    alarm(120);
    return Roles().at(option.substr(role_option.size()))(argv[2]);
}
