#include "memory.h"

#include <limits>

namespace mempager::python
{
namespace
{
std::size_t lines_for(std::uint64_t bytes)
{
    // What can't be had is told as the piece tells it, with the bytes that were asked for.
    if (bytes > std::numeric_limits<unsigned int>::max() - sizeof(line))
        detail::fail(errc::too_large, "piece", bytes);
    return static_cast<std::size_t>((bytes + sizeof(line) - 1) / sizeof(line));
}

piece<line> make(std::uint64_t bytes, bool zeros)
{
    const std::size_t count = lines_for(bytes);
    return zeros ? piece<line>(count) : piece<line>(count, for_overwrite);
}

foreign<line> open(std::span<const std::byte> descriptor, std::uint64_t bytes)
{
    foreign<line> found;
    if (!descriptor.empty())
        found = foreign<line>(descriptor);
    if (found.size() < lines_for(bytes))
        detail::fail(errc::bad_descriptor, "foreign", bytes);
    return found;
}
} // namespace

memory::memory(std::uint64_t bytes, bool zeros) : m_size(bytes), m_lines(make(bytes, zeros)) {}

memory::memory(std::span<const std::byte> descriptor, std::uint64_t bytes)
    : m_size(bytes), m_lines(open(descriptor, bytes))
{
}

std::shared_ptr<mapping> memory::map(bool readonly)
{
    if (const auto* const other = std::get_if<std::shared_ptr<memory>>(&m_lines))
        return (*other)->map(true);
    return std::make_shared<mapping>(shared_from_this(), readonly);
}

std::string memory::descriptor() const
{
    const auto* const own = std::get_if<piece<line>>(&m_lines);
    if (own == nullptr)
        detail::fail(errc::bad_descriptor, "piece::descriptor");
    const std::vector<std::byte> bytes = own->descriptor();
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

mapping::mapping(std::shared_ptr<memory> of, bool readonly)
    : m_of(std::move(of)), m_readonly(readonly || m_of->is_foreign())
{
    if (auto* const own = std::get_if<piece<line>>(&m_of->m_lines))
        m_lines = own->map();
    else
        m_lines = std::get<foreign<line>>(m_of->m_lines).map();
    ++m_of->m_mappings;
}

mapping::~mapping()
{
    --m_of->m_mappings;
}

void* mapping::data() const noexcept
{
    static line nothing; // of memory without a byte
    const void* const at = std::visit(
        [](const auto& lines) { return static_cast<const void*>(lines.data()); }, m_lines);
    return at != nullptr ? const_cast<void*>(at) : &nothing;
}
} // namespace mempager::python
