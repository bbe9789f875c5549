#include "support/Child.h"

#include <csignal>
#include <filesystem>

#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

Child::Child(std::vector<std::string> command)
{
    std::vector<char*> arguments;
    for (std::string& argument : command)
        arguments.push_back(argument.data());
    arguments.push_back(nullptr);
    int ends[2] = {-1, -1};
    pid_t id = -1;
    posix_spawn_file_actions_t streams;
    posix_spawn_file_actions_init(&streams);
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0 ||
        posix_spawn_file_actions_adddup2(&streams, ends[1], 0) != 0 ||
        posix_spawn_file_actions_adddup2(&streams, ends[1], 1) != 0 ||
        posix_spawn(&id, arguments[0], &streams, nullptr, arguments.data(), environ) != 0)
        m_end = 127; // as a shell says it
    posix_spawn_file_actions_destroy(&streams);
    close(ends[1]);
    m_id = id;
    m_line = ends[0];
}

Child::~Child()
{
    Kill();
    End();
    close(static_cast<int>(m_line));
}

void Child::Write(const std::string& bytes)
{
    send(static_cast<int>(m_line), bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

void Child::EndInput()
{
    shutdown(static_cast<int>(m_line), SHUT_WR);
}

std::string Child::Read(std::size_t size)
{
    std::string bytes(size, '\0');
    const ssize_t length = recv(static_cast<int>(m_line), bytes.data(), size, MSG_WAITALL);
    bytes.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
    return bytes;
}

void Child::Kill()
{
    if (!m_end)
        kill(static_cast<pid_t>(m_id), SIGKILL);
}

int Child::End()
{
    int status = 0;
    if (!m_end && waitpid(static_cast<pid_t>(m_id), &status, 0) == m_id)
        m_end = WIFEXITED(status) ? WEXITSTATUS(status) : killed;
    return m_end.value_or(127);
}

std::optional<int> Child::PlayRole(int argc, char** argv)
{
    own_program = std::filesystem::absolute(argv[0]).string();
    const auto role = roles.find(argc == 3 ? argv[1] : "");
    if (role == roles.end())
        return {};
    alarm(120);
    return role->second(argv[2]);
}
