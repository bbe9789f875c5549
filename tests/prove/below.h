#ifndef PROVE_BELOW_H
#define PROVE_BELOW_H

#include <cstdint>

/// Stands between the library and the C library, as a shared library that is found first, and lets
/// chosen calls fail. What is counted and failed are the calls of the whole process while it is
/// armed, so whoever arms it calls nothing but the library then.
/// Threads: one at a time. A forked child goes on as its parent was.
namespace Below
{

/// The kinds of calls, in this order.
extern const char* const Names[];
extern const int Kinds;

/// From now on the n-th call (from 1) of the kind fails, and all that follow if that is lasting.
/// What fails does nothing, but a failing close() is really done. With a kind below 0 all succeed.
void Arm(int kind, std::uint64_t n, bool lasting);
void Disarm();

/// The calls of a kind since Arm() was called, until Disarm() was.
std::uint64_t Calls(int kind);
/// How many of them have failed.
std::uint64_t Failed();

} // namespace Below

#endif
