#ifndef MEMPAGER_VERSION_H
#define MEMPAGER_VERSION_H

/// @file
/// The version of these headers, as macros. CMake and the packages read it here, too.
/// CONTRIBUTING.md says what may change with which of its parts.

/// Rises with changes that clients have to follow.
#define MEMPAGER_VERSION_MAJOR 0
/// Rises with additions, and below 1.0 with any change of the interface.
#define MEMPAGER_VERSION_MINOR 1
/// Rises with corrections.
#define MEMPAGER_VERSION_PATCH 0

/// One number to compare: 100 for 0.1.0, 10203 for 1.2.3.
#define MEMPAGER_VERSION                                                                           \
    (MEMPAGER_VERSION_MAJOR * 10000 + MEMPAGER_VERSION_MINOR * 100 + MEMPAGER_VERSION_PATCH)

/// @cond
#define MEMPAGER_QUOTE_2(a, b, c) #a "." #b "." #c
#define MEMPAGER_QUOTE(a, b, c) MEMPAGER_QUOTE_2(a, b, c) // expands what it is given
/// @endcond

/// A text, such as "0.1.0".
#define MEMPAGER_VERSION_STRING                                                                    \
    MEMPAGER_QUOTE(MEMPAGER_VERSION_MAJOR, MEMPAGER_VERSION_MINOR, MEMPAGER_VERSION_PATCH)

#endif
