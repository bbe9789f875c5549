#ifndef MEM_TEMPFOLDER_H
#define MEM_TEMPFOLDER_H

#include "Rw/RWCString.h"

#include <string>

/// `folder` whatever the current folder will be, or the system's own choice for an empty one. One
/// that can't be made absolute stays as it is, with a line at level 3. Throws std::bad_alloc.
RWCString AbsoluteFolder(const RWCString& folder);

/// The settings' temp folder, absolute. A derived configuration can answer with a relative one: it
/// stands for what it was when it was first asked for. Allocates nothing for an absolute one.
/// Threads: under the pager's mutex.
RWCString TempFolder();

/// The absolute form of `folder`, or of the settings' temp folder for null and for an empty text.
/// Throws std::bad_alloc.
std::string TempFolderOr(const char* folder);

#endif
