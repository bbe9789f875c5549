#include "Platform/Posix/AddressSpace.h"

#include "Platform/Posix/Fork.h"
#include "Platform/Posix/Lines.h"
#include "Platform/Posix/Mappings.h"
#include "Platform/Posix/Process.h"

#include <algorithm>
#include <charconv>
#include <iterator>

#include <sys/sysmacros.h>
#include <unistd.h>

namespace
{

using Map = Platform::Process::Map;

struct MapLine {
    std::uint64_t begin;
    std::uint64_t end;
    std::string_view access;
    FileIdentity file; ///< none if it is of no file
    std::string_view name;
};

template <class Number = std::uint64_t>
Number number(std::string_view text, int base)
{
    Number result = 0;
    std::from_chars(text.data(), text.data() + text.size(), result, base);
    return result;
}

dev_t device(std::string_view text)
{
    const auto major = number<unsigned>(take(text, ":"), 16);
    return makedev(major, number<unsigned>(text, 16));
}

/// A line is "begin-end access offset device inode   name".
MapLine parse_map(std::string_view line)
{
    MapLine map;
    map.begin = number(take(line, "-"), 16);
    map.end = number(take(line, " "), 16);
    map.access = take(line, " ");
    take(line, " ");
    map.file.device = device(take(line, " "));
    map.file.inode = number(take(line, " "), 10);
    line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
    map.name = line;
    return map;
}

/// Calls `visit` with each map, in the order of addresses. @return false if there is none.
template <class Visitor>
bool for_each_map(Visitor visit)
{
    std::uint64_t last_end = 0;
    Lines lines("/proc/self/maps");
    for (std::string_view line; lines.Next(line);) {
        const MapLine map = parse_map(line);
        // The rest of a line that was longer than any should be isn't a map.
        if (map.begin < last_end || map.end <= map.begin || map.end > EndOfAddresses)
            continue;
        last_end = map.end;
        visit(map);
    }
    return last_end != 0;
}

// This library's maps ----------------------------------------------------------------------------

/// Mappings by a number of theirs. Whoever reads the maps is alone.
class Buckets
{
public:
    template <class Key>
    void Fill(SharedMapping* mappings, Key key)
    {
        std::fill(std::begin(m_first), std::end(m_first), nullptr);
        for (SharedMapping* mapping = mappings; mapping != nullptr; mapping = mapping->next) {
            SharedMapping*& first = m_first[key(*mapping) % std::size(m_first)];
            mapping->next_in_bucket = first;
            first = mapping;
        }
    }

    SharedMapping* Of(std::uint64_t key) const { return m_first[key % std::size(m_first)]; }

private:
    SharedMapping* m_first[4093] = {}; // a prime: pages and inodes come in rows
};
constinit Buckets buckets;

std::uint64_t page_size()
{
    return static_cast<std::uint64_t>(getpagesize());
}

std::uint64_t page_of(const SharedMapping& mapping)
{
    return reinterpret_cast<std::uintptr_t>(mapping.file.anchor.Page());
}

/// Finds out what the maps call each mapping's file. That isn't always what fstat() says (some file
/// systems stack on others), but it is what stands at the anchor's place.
bool learn_identities(SharedMapping* mappings)
{
    const std::uint64_t page = page_size();
    for (SharedMapping* mapping = mappings; mapping != nullptr; mapping = mapping->next)
        mapping->in_maps = {};
    buckets.Fill(mappings,
                 [page](const SharedMapping& mapping) { return page_of(mapping) / page; });
    return for_each_map([page](const MapLine& map) {
        for (SharedMapping* at = buckets.Of(map.begin / page); at; at = at->next_in_bucket)
            if (page_of(*at) == map.begin)
                at->in_maps = map.file;
    });
}

bool is_own(const MapLine& map, Map::Kind& kind)
{
    if (map.file == FileIdentity{})
        return false;
    bool own = false;
    for (const SharedMapping* at = buckets.Of(map.file.inode); at; at = at->next_in_bucket) {
        if (at->in_maps != map.file)
            continue;
        const bool anchor = page_of(*at) == map.begin && map.end - map.begin == page_size();
        if (!own || anchor)
            kind = anchor ? Map::Kind::OpenMapping : Map::Kind::View;
        own = true;
    }
    return own;
}

/// Stacks of other threads aren't told: they are anonymous.
Map::Kind kind_of(const MapLine& map, std::uint64_t own_stack)
{
    using enum Map::Kind;
    if (map.name == "[stack]" || (map.begin <= own_stack && own_stack < map.end))
        return Stack;
    if (map.name == "[heap]")
        return Heap;
    if (map.name.empty() || map.name.starts_with("[anon"))
        return Anonymous;
    return map.name.starts_with('[') ? Other : File;
}

Map map_of(const MapLine& map, std::uint64_t own_stack)
{
    const auto may = [&map](char right) { return map.access.find(right) != map.access.npos; };
    Map result{map.begin, map.end - map.begin,     may('r'), may('w'), may('x'),
               may('s'),  kind_of(map, own_stack), map.name};
    is_own(map, result.kind);
    return result;
}

} // namespace

bool PosixProcess::ListMaps(Maps& maps)
{
    const NoFork whole;
    SharedMapping* const mappings = PosixMappings::Instance().First();
    if (!learn_identities(mappings))
        return false;
    buckets.Fill(mappings, [](const SharedMapping& mapping) { return mapping.in_maps.inode; });
    const auto own_stack = reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
    return for_each_map([&](const MapLine& map) { maps.Take(map_of(map, own_stack)); });
}

std::uint64_t CountMaps()
{
    std::uint64_t count = 0;
    for_each_map([&count](const MapLine&) { ++count; });
    return count;
}

std::uint64_t MostMaps()
{
    Lines lines("/proc/sys/vm/max_map_count");
    std::string_view line;
    return lines.Next(line) ? number(line, 10) : 0;
}
