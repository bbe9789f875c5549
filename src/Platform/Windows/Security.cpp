#include "Platform/Windows/Security.h"

#include "Platform/Windows/Failure.h"
#include "Platform/Windows/Scoped.h"

#include <cstdio>

#include <aclapi.h>
#include <sddl.h>

bool FindUser(HANDLE process, UserId& user)
{
    HANDLE opened = nullptr;
    if (!OpenProcessToken(process, TOKEN_QUERY, &opened))
        return false;
    const ScopedHandle token(opened);
    alignas(TOKEN_USER) unsigned char buffer[sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE];
    DWORD size = 0;
    return GetTokenInformation(token.Get(), TokenUser, buffer, sizeof buffer, &size) &&
           CopySid(sizeof user.bytes, user.bytes, reinterpret_cast<TOKEN_USER*>(buffer)->User.Sid);
}

bool FindOwner(HANDLE file, UserId& user)
{
    alignas(8) unsigned char buffer[1024];
    DWORD size = 0;
    PSID owner = nullptr;
    BOOL by_default = FALSE;
    return GetKernelObjectSecurity(file, OWNER_SECURITY_INFORMATION, buffer, sizeof buffer,
                                   &size) &&
           GetSecurityDescriptorOwner(buffer, &owner, &by_default) && owner != nullptr &&
           CopySid(sizeof user.bytes, user.bytes, owner);
}

bool IsThisUser(UserId& user)
{
    UserId own;
    return FindUser(GetCurrentProcess(), own) && EqualSid(own.Get(), user.Get());
}

void WriteUserName(UserId& user, char* text, std::size_t size)
{
    char domain[256] = "";
    char name[256] = "";
    DWORD domain_size = sizeof domain;
    DWORD name_size = sizeof name;
    SID_NAME_USE kind;
    LookupAccountSidA(nullptr, user.Get(), name, &name_size, domain, &domain_size, &kind);
    std::snprintf(text, size, "%s", name);
}

Rights::Rights(const char* text)
{
    if (!ConvertStringSecurityDescriptorToSecurityDescriptorA(text, SDDL_REVISION_1, &m_descriptor,
                                                              nullptr))
        m_descriptor = nullptr;
    m_attributes.nLength = sizeof m_attributes;
    m_attributes.lpSecurityDescriptor = m_descriptor;
    m_attributes.bInheritHandle = FALSE; // a name lives no longer than its creator
}

Rights::~Rights()
{
    const KeepError keep;
    LocalFree(m_descriptor);
}

Rights Rights::AllRead()
{
    return Rights("D:P(A;;GR;;;WD)");
}

Rights Rights::OwnOnly()
{
    UserId user;
    char* number = nullptr;
    char text[256] = ""; // no rights for anybody
    if (FindUser(GetCurrentProcess(), user) && ConvertSidToStringSidA(user.Get(), &number))
        std::snprintf(text, sizeof text, "D:P(A;;GA;;;%s)", number);
    LocalFree(number);
    return Rights(text);
}
