// What STXXL's example of its vector does (examples/containers/vector1.cpp there): 128 Mi random
// numbers go into a vector that keeps 32 MB in memory, and its even elements are counted.
#include "mempager/buffer.h"

#include <algorithm>
#include <iostream>
#include <random>

int main()
{
    mempager::buffer<unsigned> numbers;
    std::mt19937 random;
    for (int i = 0; i < 128 * 1024 * 1024; ++i)
        numbers.push_back(static_cast<unsigned>(random() % 123456789));

    const auto all = numbers.elements(4);
    const auto even = std::ranges::count_if(all, [](unsigned n) { return n % 2 == 0; });
    std::cout << "found " << even << " even numbers\n";
}
