#ifndef BENCH_BYITSELF_H
#define BENCH_BYITSELF_H

/// A function that all callers call as it is. The compiler neither makes it a part of a caller,
/// where sums can come to lie in memory, nor a copy of it for one caller's arguments.
#if defined(__clang__)
#define BENCH_BY_ITSELF [[gnu::noinline]]
#else
#define BENCH_BY_ITSELF [[gnu::noinline, gnu::noclone]]
#endif

#endif
