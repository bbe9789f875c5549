#include "Platform/Posix/LoginManager.h"

#include "Platform/Posix/Folder.h"
#include "Platform/Posix/Lines.h"

#include <map>
#include <string>

#include <sys/stat.h>
#include <unistd.h>

namespace
{

bool is_there(const std::string& path)
{
    struct stat status;
    return stat(path.c_str(), &status) == 0;
}

std::string_view without_spaces(std::string_view text)
{
    constexpr char spaces[] = " \t\r";
    text.remove_prefix(std::min(text.find_first_not_of(spaces), text.size()));
    return text.substr(0, text.find_last_not_of(spaces) + 1);
}

/// Takes the setting from a file, if it is there: a line is "RemoveIPC=boolean".
void read_setting(const char* path, bool& removes)
{
    Lines lines(path);
    for (std::string_view line; lines.Next(line);) {
        const std::string_view key = without_spaces(take(line, "="));
        const std::string_view value = without_spaces(line);
        if (key == "RemoveIPC" && !value.empty())
            removes = value[0] == '1' || value[0] == 'y' || value[0] == 't' || value == "on";
    }
}

/// Its main file, then what was dropped in beside it, by name; /etc stands for the same name in
/// /run, and that for one in /usr.
bool names_go_at_logout()
{
    constexpr const char* folders[] = {"/etc/systemd/", "/run/systemd/", "/usr/lib/systemd/"};
    std::map<std::string, std::string> files;
    for (const std::string folder : folders) {
        const std::string drop_ins = folder + "logind.conf.d/";
        files.emplace("", folder + "logind.conf"); // first of all
        ForEachName(drop_ins.c_str(), "", [&](const char* name) {
            if (std::string_view(name).ends_with(".conf"))
                files.emplace(name, drop_ins + name);
        });
        if (!is_there(files[""]))
            files.erase("");
    }
    bool removes = true;
    for (const auto& [name, path] : files)
        read_setting(path.c_str(), removes);
    return removes;
}

} // namespace

AtLogout WhatHappensAtLogout(const char* user)
{
    constexpr uid_t last_system_user = 999;
    if (!is_there("/run/systemd/system"))
        return AtLogout::NoManager;
    if (getuid() <= last_system_user)
        return AtLogout::SystemUser;
    if (!names_go_at_logout())
        return AtLogout::NamesStay;
    return is_there(std::string("/var/lib/systemd/linger/") + user) ? AtLogout::UserLingers
                                                                    : AtLogout::NamesGo;
}
