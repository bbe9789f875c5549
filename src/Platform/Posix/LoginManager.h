#ifndef PLATFORM_POSIX_LOGINMANAGER_H
#define PLATFORM_POSIX_LOGINMANAGER_H

/// What the login manager does to this user's files in shared memory when the user's last session
/// ends: their names go, or why they stay.
enum class AtLogout { NoManager, SystemUser, NamesStay, UserLingers, NamesGo };

/// @param user the name of this process's user. Throws std::bad_alloc.
AtLogout WhatHappensAtLogout(const char* user);

#endif
