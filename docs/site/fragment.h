// What fragments in pages and comments speak of without saying what it is.
#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <span>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

static const unsigned int size = 1000000;
static const std::size_t count = 1000000;
static const std::size_t elements = 1000000;
[[maybe_unused]] static void fill(void* bytes, std::size_t length)
{
    std::memset(bytes, 1, length);
}
[[maybe_unused]] static void use(const void*, std::size_t) {}
[[maybe_unused]] static void work(const void*, std::size_t) {}
[[maybe_unused]] static void write(std::span<const double>) {}
[[maybe_unused]] static void blur(std::span<float>) {}
[[maybe_unused]] static void plot(std::span<const double>) {}
[[maybe_unused]] static double measure()
{
    return 1.5;
}
static const std::size_t width = 640, height = 480, x = 1, y = 2;
static const std::vector<std::byte> bytes; // a descriptor that never came
static mempager::buffer<int> volume(1000);
