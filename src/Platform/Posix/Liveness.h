#ifndef PLATFORM_POSIX_LIVENESS_H
#define PLATFORM_POSIX_LIVENESS_H

/// Each file that backs a mapping bears its creator's mark, a write lock of the open file. It
/// ends with the last anchor, descriptor or view of that open file, so also when the process is
/// killed, and stays with a forked child that has them. Readers of the file can't take it.
bool MarkAsLiving(int file);

/// Whether somebody holds the mark of the file that `file` is a descriptor of. What can't be
/// judged counts as living.
bool CreatorLives(int file);

/// Opens a file that may be anybody's, for reading. What isn't a plain file isn't opened.
/// @return a descriptor; -1 with errno.
int OpenToRead(const char* path);

// What is removed here has a name that ends in "_" and a number. A look at a name and its removal
// are two steps, and a namesake could come in between if another cleaner was faster. A lock on the
// file could keep other cleaners away, but whoever can read the file could take it, too, and keep
// it for ever. So the name is changed first, to one that nobody can foresee, and what bears that is
// looked at once more: then it goes, or gets its name back. A cleaner that is killed in between
// leaves a name of the same form, for the next one.

/// Removes the file if nobody holds it open who made it. @return true if it is gone by this; else
/// false with errno, EBUSY for one that is held.
bool RemoveIfDead(const char* path);

/// The same, or removes a link that this user has made to a file that is gone; a dead file of the
/// same name as the link, made by the same user, goes first. @return true if what bears `path` is
/// gone by this.
bool RemoveFileOrLinkIfDead(const char* path);

/// Removes a link, whoever made it, that leads to a mapping's file which is gone.
/// @return true if it is gone by this.
bool RemoveLinkIfLost(const char* path);

#endif
