// Sorts more numbers than there is memory for: 512 MB in 256 MB of address space, most of it in
// temp files. First runs that fit, in place; then all runs into one.
//
//     external_sort [megabytes]
//
// Ends with 0 if all is sorted and no number was lost, with 77 if there is no room for it.
#include "Common.h"
#include "Mem/Mem_Configuration.h"
#include "mempager/buffer.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <functional>
#include <queue>
#include <random>
#include <utility>
#include <vector>

namespace
{
using Number = std::uint64_t;
using Numbers = mempager::buffer<Number>;

constexpr std::size_t kPerMegabyte = (1 << 20) / sizeof(Number);
constexpr std::size_t kRun = 64 * kPerMegabyte; // fits into what a cursor keeps mapped

Numbers MakeNumbers(std::size_t count)
{
    Numbers numbers(count, mempager::for_overwrite);
    std::mt19937_64 random(1);
    Progress progress("numbers");
    std::size_t done = 0;
    for (const std::span<Number> part : numbers.parts()) {
        std::ranges::generate(part, std::ref(random));
        progress(done += part.size(), count);
    }
    return numbers;
}

void SortRuns(Numbers& numbers)
{
    Progress progress("runs");
    const auto all = numbers.elements();
    for (auto first = all.begin(); first != all.end();) {
        const auto end = first + std::min<std::ptrdiff_t>(kRun, all.end() - first);
        std::sort(first, end);
        first = end;
        progress(static_cast<std::uint64_t>(first - all.begin()), all.size());
    }
}

/// What is left of a run, by its least number: a place in the buffer is no pointer, and stays good.
struct Rest {
    Number least;
    std::size_t at;
    std::size_t end;

    bool operator>(const Rest& other) const { return least > other.least; }
};

Numbers Merge(const Numbers& runs)
{
    const auto from = runs.elements(runs.size() / kRun + 4); // a fragment of each run
    std::priority_queue<Rest, std::vector<Rest>, std::greater<>> rests;
    for (std::size_t at = 0; at < from.size(); at += kRun)
        rests.push({from[at], at, std::min(at + kRun, from.size())});

    Numbers merged;
    Progress progress("merged");
    while (!rests.empty()) {
        Rest rest = rests.top();
        rests.pop();
        merged.push_back(rest.least);
        if (++rest.at != rest.end) {
            rest.least = from[rest.at];
            rests.push(rest);
        }
        progress(merged.size(), runs.size());
    }
    return merged;
}

Number SumOf(const Numbers& numbers)
{
    Number sum = 0;
    for (const std::span<const Number> part : numbers.parts())
        for (const Number number : part)
            sum += number;
    return sum;
}
} // namespace

int main(int argc, char** argv)
{
    const std::size_t megabytes = NumberFrom(argc, argv, 512, 1, 65536);
    if (megabytes == 0) {
        std::fputs("usage: external_sort [megabytes, 1 to 65536]\n", stderr);
        return 2;
    }
    try {
        LimitAddressSpace(256 << 20);
        MEM_MemoryConfiguration::GetInstance()->SetSwapMaxSizeInMb(128); // then temp files
        Numbers numbers = MakeNumbers(megabytes * kPerMegabyte);
        const Number sum = SumOf(numbers);
        SortRuns(numbers);
        const Numbers sorted = Merge(numbers);
        const bool right = std::ranges::is_sorted(sorted.elements()) && SumOf(sorted) == sum &&
                           sorted.size() == numbers.size();
        std::printf("%zu MB sorted: %s\n", megabytes, right ? "right" : "WRONG");
        return right ? 0 : 1;
    } catch (const mempager::error& failure) {
        std::printf("There is no room for it: %s\n", failure.what());
        return 77;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "external_sort: %s\n", failure.what());
        return 1;
    }
}
