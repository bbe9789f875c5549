#include "Platform/Posix/Paths.h"

#include "Platform/Posix/Scoped.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <new>
#include <string_view>

#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

bool is_plain(const char* name)
{
    constexpr std::size_t longest_name = 255;
    const std::size_t length = std::strlen(name);
    if (length > longest_name)
        return Fail(ENAMETOOLONG);
    return (std::strspn(name, ".") < length && std::strchr(name, '/') == nullptr) || Fail(EINVAL);
}

bool is_absolute(const char* path)
{
    return path[0] == '/' || Fail(EINVAL);
}

int length_without_separators(const char* folder)
{
    std::size_t length = std::strlen(folder);
    while (length > 0 && folder[length - 1] == '/')
        --length;
    return static_cast<int>(length);
}

} // namespace

bool Fail(int error)
{
    errno = error;
    return false;
}

bool Identify(int file, FileIdentity& identity)
{
    struct stat status;
    if (fstat(file, &status) != 0)
        return false;
    identity = {status.st_dev, status.st_ino};
    return true;
}

bool StandsFor(const char* path, const FileIdentity& identity)
{
    struct stat status;
    return lstat(path, &status) == 0 && FileIdentity{status.st_dev, status.st_ino} == identity;
}

bool IsMissing(const char* path)
{
    struct stat status;
    return lstat(path, &status) != 0 && errno == ENOENT;
}

bool RemoveName(const char* path, const FileIdentity& identity)
{
    struct stat status;
    const bool is_there = lstat(path, &status) == 0;
    if (is_there && FileIdentity{status.st_dev, status.st_ino} != identity)
        return true;
    return (is_there && unlink(path) == 0) || errno == ENOENT || errno == ENOTDIR;
}

const char* LastPart(const char* path)
{
    const char* separator = std::strrchr(path, '/');
    return separator != nullptr ? separator + 1 : path;
}

bool BelongTogether(const char* name, const char* path)
{
    const std::string_view whole(name);
    const std::size_t second = whole.find('_', whole.find('_') + 1);
    const std::string_view creator = whole.substr(0, second == whole.npos ? second : second + 1);
    return std::string_view(LastPart(path)).find(creator) != whole.npos || Fail(EINVAL);
}

std::uint64_t UnforeseeableNumber()
{
    std::uint64_t number = 0;
    if (getrandom(&number, sizeof number, GRND_NONBLOCK) == sizeof number)
        return number;
    timespec now{}; // a machine that has only just started
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (static_cast<std::uint64_t>(now.tv_nsec) << 32) + static_cast<unsigned>(getpid());
}

bool Path::Join(const char* folder, const char* name)
{
    return is_absolute(folder) && is_plain(name) &&
           print("%.*s/%s", length_without_separators(folder), folder, name);
}

bool Path::SetAbsolute(const char* path)
{
    char current[PATH_MAX] = "";
    if (path[0] == '/')
        return print("%s", path);
    if (getcwd(current, sizeof current) == nullptr)
        return false;
    while (path[0] == '.' && path[1] == '/')
        path += 2;
    return std::strcmp(path, ".") == 0 ? print("%s", current) : print("%s/%s", current, path);
}

bool Path::SetWithNumber(const char* path, std::uint64_t number)
{
    const char* const name = LastPart(path);
    const char* const separator = std::strrchr(name, '_');
    if (separator == nullptr ||
        std::strspn(separator + 1, "-0123456789") != std::strlen(separator + 1))
        return Fail(EINVAL);
    return print("%.*s_%llu", static_cast<int>(separator - path), path,
                 static_cast<unsigned long long>(number));
}

bool Path::SetFolderOf(const char* path)
{
    const auto length = static_cast<int>(LastPart(path) - path);
    return length == 0 ? print(".") : print("%.*s", length, path);
}

bool Path::ReadLink(const char* link)
{
    const ssize_t length = readlink(link, m_text, sizeof m_text);
    if (length < 0)
        return false;
    if (static_cast<std::size_t>(length) >= sizeof m_text)
        return Fail(ENAMETOOLONG);
    m_text[length] = '\0';
    return is_absolute(m_text);
}

bool Path::print(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(m_text, sizeof m_text, format, arguments);
    va_end(arguments);
    return static_cast<std::size_t>(length) < sizeof m_text || Fail(ENAMETOOLONG);
}

bool OwnName::Prepare(const char* folder, const char* name)
{
    Path joined;
    if (!joined.Join(folder, name))
        return false;
    const std::size_t size = std::strlen(joined.Text()) + 1;
    path.reset(new (std::nothrow) char[size]);
    return path != nullptr ? std::memcpy(path.get(), joined.Text(), size) != nullptr : Fail(ENOMEM);
}

bool MakeLink(OwnName& name, const char* target)
{
    struct stat status;
    if (symlink(target, name.path.get()) != 0 || lstat(name.path.get(), &status) != 0)
        return false;
    name.identity = {status.st_dev, status.st_ino};
    return true;
}
