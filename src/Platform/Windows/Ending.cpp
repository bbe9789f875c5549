#include "Platform/Windows/Ending.h"

#include "Platform/Windows/System.h"

namespace
{

constinit bool others_have_ended = false;

} // namespace

bool OtherThreadsHaveEnded()
{
    return others_have_ended;
}

/// The system's call to a DLL. Nothing calls it where the library's objects are part of a program,
/// whose end is its other threads' business, too.
extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, void* is_process)
{
    if (reason == DLL_PROCESS_DETACH && is_process != nullptr)
        others_have_ended = true;
    return TRUE;
}
