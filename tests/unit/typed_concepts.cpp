// Nothing to run: every template of the typed layer is made, and what it promises to the compiler
// is held against the standard's concepts; so is what must not compile. scripts/check_layers
// compiles this as a stranger would.

#include "mempager/mempager.h"

#include <ranges>
#include <type_traits>

struct Pixel {
    explicit Pixel(float value) : grey(value) {} // no default constructor
    float grey;
};

template class mempager::mapped<double>;
template class mempager::mapped<const double>;
template class mempager::piece<double>;
template class mempager::foreign<double>;
template class mempager::buffer<double>;
template class mempager::cursor<double>;
template class mempager::cursor<const double>;
template class mempager::owned_parts<double>;

namespace
{
using namespace mempager;

[[maybe_unused]] void without_a_default(buffer<Pixel>& pixels)
{
    pixels.resize(3, for_overwrite);
    pixels.push_back(Pixel(1));
}

template <class Range>
constexpr bool is_full_range =
    std::ranges::random_access_range<Range>&& std::ranges::sized_range<Range>;

static_assert(is_full_range<cursor<double>>);
static_assert(is_full_range<const cursor<const double>>);
static_assert(is_full_range<cursor<double>::parts_range>);
static_assert(is_full_range<cursor<double>::rows_range>);
static_assert(is_full_range<cursor<double>::slices_range>);
static_assert(std::ranges::forward_range<owned_parts<const double>>);
static_assert(std::sortable<cursor<double>::iterator>);
static_assert(std::permutable<cursor<Pixel>::iterator>);
static_assert(!std::indirectly_writable<cursor<const double>::iterator, double>);
static_assert(std::is_same_v<std::iterator_traits<cursor<int>::iterator>::iterator_category,
                             std::random_access_iterator_tag>);
static_assert(std::derived_from<mapped<int>, std::span<int>>);

// What crashed, or could, doesn't compile.
template <class Owner>
constexpr bool is_moved_only =
    std::is_nothrow_move_constructible_v<Owner>&& std::is_nothrow_move_assignable_v<Owner> &&
    !std::is_copy_constructible_v<Owner>;
static_assert(is_moved_only<piece<double>>);
static_assert(is_moved_only<mapped<double>>);
static_assert(is_moved_only<buffer<double>>);
static_assert(is_moved_only<cursor<double>>);

template <class Piece>
concept maps_a_temporary = requires(Piece (&make)())
{
    make().map();
};
template <class Cursor>
concept gives_rows_of_a_temporary = requires(Cursor (&make)())
{
    make().rows();
};
template <class Buffer>
concept has_elements_without_a_cursor = requires(Buffer& elements)
{
    elements.begin();
};
template <class Buffer>
concept writes_through_const = requires(const Buffer& elements)
{
    elements.elements()[0] = 1;
};
template <class T>
concept can_lie_in_a_buffer = requires
{
    typename buffer<T>;
};
static_assert(!gives_rows_of_a_temporary<cursor<double>>);
static_assert(!has_elements_without_a_cursor<buffer<double>>);
static_assert(!writes_through_const<buffer<double>>);
static_assert(!can_lie_in_a_buffer<std::vector<int>>);
static_assert(!can_lie_in_a_buffer<const int>);
static_assert(can_lie_in_a_buffer<Pixel>);
} // namespace
