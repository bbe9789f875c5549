// What Boost.Interprocess's example of a vector in shared memory does (example/doc_spawn_vector.cpp
// there): a program puts 100 numbers into memory that it shares, and starts itself anew; that
// process uses them in reverse order. It finds them by a descriptor, and there is no name to
// remove, but it can't write.
#include "Mem/Mem_Configuration.h"
#include "mempager/piece.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <functional>
#include <numeric>
#include <span>
#include <string>
#include <vector>

int main(int argc, char** argv)
{
    if (argc == 1) {
        MEM_MemoryConfiguration::GetInstance()->SetBaseBlockSize(0); // 64 KB, as there
        mempager::piece<int> numbers(100);
        std::iota(numbers.map().begin(), numbers.map().end(), 0);
        const auto bytes = numbers.descriptor();
        std::FILE* const child = popen((std::string(argv[0]) + " child").c_str(), "w");
        std::fwrite(bytes.data(), 1, bytes.size(), child);
        return pclose(child) == 0 ? 0 : 1;
    }
    std::array<std::byte, 1024> bytes;
    const std::size_t length = std::fread(bytes.data(), 1, bytes.size(), stdin);
    const mempager::foreign<int> numbers(std::span<const std::byte>(bytes.data(), length));
    const auto values = numbers.map();
    const std::vector<int> reversed(values.rbegin(), values.rend());
    return std::ranges::is_sorted(reversed, std::greater()) ? 0 : 1;
}
