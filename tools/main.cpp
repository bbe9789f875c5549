// The program `mempager`: lists what the library's processes have left on the machine, cleans up
// after the dead ones, and tells whether there is room for the library to work.

#include "output.h"

#include "mempager_version.h"

#include <CLI/CLI.hpp>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <sstream>

namespace
{

/// What the program ends with; its manual page tells them, too.
enum Exit { AllWell = 0, Found = 1, Usage = 2, Trouble = 3 };

constexpr char footer[] = "Ends with 0 if all is well, 1 if doctor has found something or clean "
                          "had to leave something,\n2 after wrong usage, 3 if it couldn't do its "
                          "work.";

struct Request {
    CLI::App app{"Lists, cleans and examines what the library mempager needs of this machine.",
                 "mempager"};
    CLI::App* ls = app.add_subcommand("ls", "List the regions and temp files on this machine");
    CLI::App* clean = app.add_subcommand("clean", "Remove what dead processes have left");
    CLI::App* doctor = app.add_subcommand("doctor", "Tell what the library may run short of");
    std::string temp;
    bool has_temp = false;
    bool json = false;
    bool dry_run = false;

    Request()
    {
        app.set_version_flag("--version", "mempager " MEMPAGER_VERSION_STRING);
        app.require_subcommand(0, 1); // that there is one is looked at last
        app.footer(footer);
        for (CLI::App* const command : {ls, clean, doctor}) {
            command->add_flag("--json", json, "Print JSON");
            command->add_option("--temp", temp, "The temp folder, in place of TEMP or the system's")
                ->type_name("FOLDER")
                ->each([this](const std::string&) { has_temp = true; });
        }
        clean->add_flag("--dry-run", dry_run, "Only tell what would be removed");
    }

    const char* TempFolder() const { return has_temp ? temp.c_str() : nullptr; }
};

int complain(const std::string& text)
{
    std::fprintf(stderr, "mempager: %s\n", text.c_str());
    return Trouble;
}

/// What can't be printed is a failure: who asked would take silence for an answer.
int print(const std::string& text, int code)
{
    const bool written = std::fwrite(text.data(), 1, text.size(), stdout) == text.size();
    if (written && std::fflush(stdout) == 0 && std::fclose(stdout) == 0)
        return code;
    return complain("standard output: " + std::string(std::strerror(errno)));
}

int code_for(const std::vector<std::string>& unread, int otherwise)
{
    for (const std::string& folder : unread)
        complain(Shown(folder) + " can't be looked at");
    return unread.empty() ? otherwise : static_cast<int>(Trouble);
}

int list(const Request& request)
{
    const Mem_Inspection::Listing listing = Mem_Inspection::List(request.TempFolder());
    return print(request.json ? AsJson(listing) : AsText(listing),
                 code_for(listing.unread, AllWell));
}

int clean(const Request& request)
{
    const bool trial = request.dry_run;
    const Mem_Inspection::Cleaning cleaning = Mem_Inspection::Clean(trial, request.TempFolder());
    const bool all = SumOf(cleaning, Mem_Inspection::Outcome::Kept).count == 0;
    return print(request.json ? AsJson(cleaning, trial) : AsText(cleaning, trial),
                 code_for(cleaning.unread, all ? AllWell : Found));
}

int examine(const Request& request)
{
    const Findings findings = Mem_Inspection::Examine(request.TempFolder());
    const bool all = Count(findings, Mem_Inspection::Verdict::Ok) == findings.size();
    return print(request.json ? AsJson(findings) : AsText(findings), all ? AllWell : Found);
}

/// Help and version were asked for; all else was asked wrongly.
int answer(const CLI::App& app, const CLI::ParseError& error)
{
    std::ostringstream out, complaint;
    const bool asked_for = app.exit(error, out, complaint) == 0;
    if (asked_for)
        return print(out.str(), AllWell);
    std::istringstream lines(complaint.str());
    for (std::string line; std::getline(lines, line);) // which may quote an argument
        complain(Shown(line));
    return Usage;
}

int run(int argc, char** argv)
{
    Request request;
    try {
        request.app.parse(argc, argv);
        if (request.app.get_subcommands().empty())
            throw CLI::RequiredError::Subcommand(1);
    } catch (const CLI::ParseError& error) {
        return answer(request.app, error);
    }
    if (request.ls->parsed())
        return list(request);
    return request.clean->parsed() ? clean(request) : examine(request);
}

} // namespace

int main(int argc, char** argv)
{
#ifdef SIGPIPE
    std::signal(SIGPIPE, SIG_IGN); // told by the failing write
#endif
    try {
        return run(argc, argv);
    } catch (const std::exception& error) {
        return complain(error.what());
    }
}
