#include "support/Child.h"

#include "Platform/Windows/System.h"

#include <io.h>

namespace
{
/// What a child is to this process. Its object keeps this record's address.
struct Line {
    HANDLE process = nullptr;
    HANDLE to = nullptr;
    HANDLE from = nullptr;
};

Line& line_of(std::intptr_t number)
{
    return *reinterpret_cast<Line*>(number);
}

void Close(HANDLE& handle)
{
    if (handle != nullptr)
        CloseHandle(handle);
    handle = nullptr;
}

/// A pipe of which a child gets one end, and this process keeps the other to itself.
void MakePipe(HANDLE& read, HANDLE& write, const HANDLE& own)
{
    SECURITY_ATTRIBUTES inherited{sizeof inherited, nullptr, TRUE};
    CreatePipe(&read, &write, &inherited, 0);
    SetHandleInformation(own, HANDLE_FLAG_INHERIT, 0);
}
} // namespace

/// A program without a folder is looked for beside this one first.
Child::Child(std::vector<std::string> command)
{
    auto* const line = new Line;
    HANDLE in = nullptr;
    HANDLE out = nullptr;
    MakePipe(in, line->to, line->to);
    MakePipe(line->from, out, line->from);
    std::string whole;
    for (const std::string& argument : command)
        whole += '"' + argument + "\" ";
    STARTUPINFOA start{};
    start.cb = sizeof start;
    start.dwFlags = STARTF_USESTDHANDLES;
    start.hStdInput = in;
    start.hStdOutput = out;
    start.hStdError = GetStdHandle(STD_ERROR_HANDLE);
    PROCESS_INFORMATION started{};
    if (!CreateProcessA(nullptr, whole.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &start,
                        &started))
        m_end = 127; // as a shell says it
    Close(in);
    Close(out);
    Close(started.hThread);
    line->process = started.hProcess;
    m_id = static_cast<long>(started.dwProcessId);
    m_line = reinterpret_cast<std::intptr_t>(line);
}

Child::~Child()
{
    Kill();
    End();
    EndInput();
    Close(line_of(m_line).from);
    Close(line_of(m_line).process);
    delete &line_of(m_line);
}

void Child::Write(const std::string& bytes)
{
    DWORD written = 0;
    WriteFile(line_of(m_line).to, bytes.data(), static_cast<DWORD>(bytes.size()), &written,
              nullptr);
}

void Child::EndInput()
{
    Close(line_of(m_line).to);
}

std::string Child::Read(std::size_t size)
{
    std::string bytes(size, '\0');
    DWORD done = 0;
    DWORD step = 0;
    while (done < size && ReadFile(line_of(m_line).from, bytes.data() + done,
                                   static_cast<DWORD>(size) - done, &step, nullptr))
        done += step;
    bytes.resize(done);
    return bytes;
}

void Child::Kill()
{
    if (!m_end)
        TerminateProcess(line_of(m_line).process, static_cast<UINT>(killed));
}

int Child::End()
{
    if (m_end)
        return *m_end;
    DWORD code = 0;
    if (WaitForSingleObject(line_of(m_line).process, 120'000) != WAIT_OBJECT_0) {
        Kill();
        WaitForSingleObject(line_of(m_line).process, INFINITE);
    }
    GetExitCodeProcess(line_of(m_line).process, &code);
    m_end = static_cast<int>(code);
    return *m_end;
}

std::optional<int> Child::PlayRole(int argc, char** argv)
{
    char program[MAX_PATH] = "";
    GetModuleFileNameA(nullptr, program, sizeof program);
    own_program = program;
    const auto role = roles.find(argc == 3 ? argv[1] : "");
    if (role == roles.end())
        return {};
    _setmode(0, 0x8000); // bytes as they are
    _setmode(1, 0x8000);
    return role->second(argv[2]);
}
