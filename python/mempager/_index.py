"""What an index of an array means, row by row: the arithmetic of Array, without its memory."""
from __future__ import annotations

import operator
from typing import Any, Iterator, NamedTuple, Tuple, Union

import numpy as np

Rows = Union[int, range]


class Basic(NamedTuple):
    """An index of numbers and slices, with the first axis apart."""

    new_axes: int  # in front of the first
    rows: Rows  # of the first axis, none of them negative
    rest: Tuple[Any, ...]  # for the other axes

    def takes_whole_rows(self) -> bool:
        """Whether the other axes come as they are."""
        return all(part == slice(None) for part in self.rest)


class Part(NamedTuple):
    """What an index takes of one chunk."""

    chunk: int
    inside: slice  # of the chunk's rows
    there: slice  # of the rows that the index takes


def _is_basic(part: Any) -> bool:
    if part is None or part is Ellipsis or isinstance(part, slice):
        return True
    return not isinstance(part, (bool, np.bool_)) and hasattr(part, "__index__") \
        and np.ndim(part) == 0


def _row(part: Any, length: int) -> int:
    row = operator.index(part)
    if not -length <= row < length:
        raise IndexError(f"index {row} is out of bounds for axis 0 with size {length}")
    return row + length if row < 0 else row


def as_tuple(key: Any, ndim: int) -> Tuple[Any, ...]:
    """The index with a part for each axis, as far as the first axis needs it."""
    parts = key if isinstance(key, tuple) else (key,)
    at = next((i for i, part in enumerate(parts) if part is Ellipsis), None)
    if at is None:
        return parts if any(part is not None for part in parts) else (*parts, slice(None))
    taken = sum(part is not None and part is not Ellipsis for part in parts)
    if any(part is Ellipsis for part in parts[at + 1:]):
        raise IndexError("an index can only have a single ellipsis ('...')")
    return (*parts[:at], *(slice(None),) * (ndim - taken), *parts[at + 1:])


def split(key: Any, shape: Tuple[int, ...]) -> Basic | None:
    """The parts of a basic index; None for one with arrays, which is another matter."""
    parts = as_tuple(key, len(shape))
    if not all(_is_basic(part) for part in parts):
        return None
    new_axes = next(i for i, part in enumerate(parts) if part is not None)
    first, rest = parts[new_axes], parts[new_axes + 1:]
    rows: Rows
    if isinstance(first, slice):
        rows = range(*first.indices(shape[0]))
    else:
        rows = _row(first, shape[0])
    return Basic(new_axes, rows, rest)


def result_shape(rows: range, rest: Tuple[Any, ...], tail: Tuple[int, ...]) -> Tuple[int, ...]:
    """The shape of what an index takes, as NumPy has it, with NumPy's errors."""
    nothing = np.broadcast_to(np.empty((), "V1"), (len(rows), *tail))
    return nothing[(slice(None), *rest)].shape


def parts_of(rows: range, per_chunk: int) -> Iterator[Part]:
    """The rows by the chunks that they lie in, in the order of memory."""
    if not rows:
        return
    forwards = rows if rows.step > 0 else rows[::-1]
    step, done = forwards.step, 0
    while done < len(forwards):
        chunk, first = divmod(forwards[done], per_chunk)
        count = min(-(-(per_chunk - first) // step), len(forwards) - done)
        there = slice(done, done + count)
        if rows.step < 0:
            last = len(rows) - 1 - done
            there = slice(last, last - count if last >= count else None, -1)
        yield Part(chunk, slice(first, first + (count - 1) * step + 1, step), there)
        done += count


def box(key: Any, shape: Tuple[int, ...]) -> Tuple[slice, Tuple[Any, ...]]:
    """For an index with arrays: rows that hold all it takes, and the index within them."""
    parts = as_tuple(key, len(shape))
    new_axes = next(i for i, part in enumerate(parts) if part is not None)
    first = parts[new_axes]
    if _is_basic(first):
        rows: Any = first if isinstance(first, slice) else _row(first, shape[0])
        if isinstance(rows, int):
            return slice(rows, rows + 1), (*parts[:new_axes], 0, *parts[new_axes + 1:])
        return rows, (*parts[:new_axes], slice(None), *parts[new_axes + 1:])
    numbers = np.asarray(first)
    if numbers.dtype == bool or numbers.size == 0 or not np.issubdtype(numbers.dtype, np.integer):
        return slice(None), parts
    if numbers.min() < -shape[0] or numbers.max() >= shape[0]:
        raise IndexError(f"an index is out of bounds for axis 0 with size {shape[0]}")
    numbers = np.where(numbers < 0, numbers + shape[0], numbers)
    low = int(numbers.min())
    moved = (*parts[:new_axes], numbers - low, *parts[new_axes + 1:])
    return slice(low, int(numbers.max()) + 1), moved
