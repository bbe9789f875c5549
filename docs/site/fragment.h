// What fragments in pages and comments speak of without saying what it is.
#include <cstddef>
#include <cstdio>
#include <cstring>

static const unsigned int size = 1000000;
static const std::size_t count = 1000000;
static const std::size_t elements = 1000000;
[[maybe_unused]] static void fill(void* bytes, std::size_t length)
{
    std::memset(bytes, 1, length);
}
[[maybe_unused]] static void use(const void*, std::size_t) {}
[[maybe_unused]] static void work(const void*, std::size_t) {}
