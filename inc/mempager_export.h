#ifndef MEMPAGER_EXPORT_H
#define MEMPAGER_EXPORT_H

/// MEMPAGER_EXPORT marks what the shared library shows to its clients. Everything else is
/// hidden: the library is built with hidden visibility. Whoever links the library's objects into
/// a program of its own, as its tests do, defines MEMPAGER_LINKED_IN.
#if defined(_WIN32)
#if defined(MEMPAGER_LINKED_IN)
#define MEMPAGER_EXPORT
#elif defined(MEMPAGER_BUILDING)
#define MEMPAGER_EXPORT __declspec(dllexport)
#else
#define MEMPAGER_EXPORT __declspec(dllimport)
#endif
#else
#define MEMPAGER_EXPORT __attribute__((visibility("default")))
#endif

/// Grants the test suite access to private state. Defined by the tests only.
struct Mem_TestAccess;

#endif
