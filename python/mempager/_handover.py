"""How pieces go to other processes.

What is pickled is a ticket: for each memory a token, what it is opened by, and the address of its
maker's keeper, a socket in this machine's network namespace without a file (see _keeper.py). A
receiver claims the tokens there, maps the memory once, and tells so. From then on it has the bytes
whatever becomes of the maker; and as the maker's memory stays taken until the receiver lets go of
it, or is gone, these bytes serve nothing else meanwhile.

Memory that the receiver can't open, it asks of the keeper as bytes.
"""
from __future__ import annotations

import contextlib
import itertools
import operator
import os
import pickle
import secrets
import sys
import threading
import weakref
from typing import Any, Dict, Iterator, List, NamedTuple, Optional, SupportsIndex, Tuple

import numpy as np

from . import _keeper
from ._core import Memory
from ._errors import FreedError

_TOKEN_BYTES = _keeper.TOKEN_BYTES


class Entry(NamedTuple):
    """What a receiver needs to know of one memory."""

    address: bytes  # of the keeper
    user: int  # the maker's
    token: bytes
    made: Tuple[bytes, int]  # what a process that was forked from the maker knows it by
    descriptor: bytes
    size: int


Ticket = List[Tuple[Any, ...]]  # entries as plain tuples, which pickle smaller


class _Choice(threading.local):
    by_bytes = False


_choice = _Choice()

# What this process, or one that it was forked from, has made: by a number that no process shares
# with another, and one that counts.
_made: weakref.WeakValueDictionary[Tuple[bytes, int], Memory] = weakref.WeakValueDictionary()
_process = secrets.token_bytes(8)
_count = itertools.count()


def new_memory(size: int, zeros: bool) -> Memory:
    """Memory of this process, which its children will know. MemoryError, OverflowError."""
    memory = Memory(size, zeros)
    made = memory.__dict__["made"] = (_process, next(_count))
    _made[made] = memory
    return memory


def _become_another() -> None:
    global _process
    _process = secrets.token_bytes(8)


os.register_at_fork(after_in_child=_become_another)


@contextlib.contextmanager
def by_bytes() -> Iterator[None]:
    """For a `with` block: pieces and arrays that this thread pickles in it carry their bytes, for
    another machine, or for a file. With protocol 5 and a buffer_callback these go out of band and
    aren't copied here. They arrive in pieces of the receiver's, read-only as those in place are.
    """
    before, _choice.by_bytes = _choice.by_bytes, True
    try:
        yield
    finally:
        _choice.by_bytes = before


def is_by_bytes() -> bool:
    """Whether this thread is in by_bytes(), or has a Dask client with workers elsewhere."""
    dask = sys.modules.get("mempager._dask")
    return _choice.by_bytes or (dask is not None and dask.workers_elsewhere())


def bytes_of(array: np.ndarray, protocol: SupportsIndex) -> Any:
    """The bytes of an array on a mapping, which they keep if the protocol can."""
    flat = array.reshape(-1).view(np.uint8).data if array.nbytes else memoryview(b"")
    return pickle.PickleBuffer(flat) if operator.index(protocol) >= 5 else bytes(flat)


# Sending -----------------------------------------------------------------------------------------


def ticket(memories: List[Memory]) -> Ticket:
    """What another process opens the memories by. They are kept for one receiver to come, at least
    for config.handover_seconds; see Keeper.lease()."""
    entries = [_foreign_entry(memory) or _own_entry(memory) for memory in memories]
    return [tuple(entry) for entry in entries]


def _own_entry(memory: Memory) -> Entry:
    keeper = _keeper.own()
    known = memory.__dict__.get("ticket")
    if known is None or known.address != keeper.address:  # that of the process we were forked from
        known = Entry(keeper.address, os.getuid(), secrets.token_bytes(_TOKEN_BYTES),
                      memory.__dict__["made"], memory.descriptor(), memory.size)
        memory.__dict__["ticket"] = known
    keeper.lease(known.token, memory)
    return known


def _foreign_entry(memory: Memory) -> Optional[Entry]:
    claim = _claim_of(memory)
    if claim is None:
        return None
    still_ours(memory)
    claim = _claim_of(memory)
    claim.connection.lease([claim.entry.token])
    return claim.entry


# Receiving ---------------------------------------------------------------------------------------


class Claim(NamedTuple):
    """That this process has a memory of another."""

    connection: _keeper.Connection
    entry: Entry
    process: int  # that claimed it


def _claim_of(memory: Memory) -> Any:
    return memory.__dict__.get("claim")


def _hold(memory: Memory, connection: _keeper.Connection, entry: Entry) -> Memory:
    """Keeps the claim until the memory goes, and with it the last array on it."""
    memory.__dict__["claim"] = Claim(connection, entry, os.getpid())
    weakref.finalize(memory, connection.release, entry.token).atexit = False
    return memory


def still_ours(memory: Memory) -> Memory:
    """The memory, claimed anew in a child of the process that claimed it. FreedError."""
    claim = _claim_of(memory)
    if claim is not None and claim.process != os.getpid():
        connection = _keeper.connect(claim.entry.address, claim.entry.user)
        connection.claim([claim.entry.token])
        connection.arrived([claim.entry.token])
        _hold(memory, connection, claim.entry)
    return memory


def receive(sent: Ticket) -> List[Memory]:
    """The memories of a ticket, in its order. FreedError if one is gone, or its maker; MemoryError
    if one can be neither opened nor copied."""
    entries = [Entry(*entry) for entry in sent]
    found: Dict[int, Memory] = {}
    for address in dict.fromkeys(entry.address for entry in entries):
        group = {i: entry for i, entry in enumerate(entries) if entry.address == address}
        here = _keeper.is_own(address)
        found.update(zip(group, (_find_here if here else _claim_all)(list(group.values()))))
    return [found[i] for i in range(len(entries))]


def _find_here(entries: List[Entry]) -> List[Memory]:
    memories = _keeper.own().take([entry.token for entry in entries])
    if any(memory is None for memory in memories):
        raise FreedError("the piece was freed")
    return memories  # type: ignore[return-value]


def _claim_all(entries: List[Entry]) -> List[Memory]:
    tokens = [entry.token for entry in entries]
    connection = _keeper.connect(entries[0].address, entries[0].user)
    connection.claim(tokens)
    held: List[Memory] = []
    try:
        for entry in entries:
            held.append(_open_or_copy(connection, entry))
    except BaseException:
        for token in tokens[len(held):]:
            connection.release(token)
        raise
    finally:
        connection.arrived(tokens)
    return held


def _open_or_copy(connection: _keeper.Connection, entry: Entry) -> Memory:
    try:
        return _hold(_open(entry), connection, entry)
    except (ValueError, MemoryError):
        # In another place than ours, or made by one that we were forked from after that.
        memory = _copy(connection, entry)
    connection.release(entry.token)
    return memory


def _open(entry: Entry) -> Memory:
    inherited = _made.get(entry.made)
    if inherited is not None:
        return inherited.alias()
    memory = Memory.open(entry.descriptor, entry.size)
    memory.map()  # from now on the bytes stay, also without their maker
    return memory


def _copy(connection: _keeper.Connection, entry: Entry) -> Memory:
    memory = new_memory(entry.size, False)
    connection.fetch(entry.token, memoryview(memory.map()))  # type: ignore[arg-type]
    return memory


def write(memory: Memory, shape: Tuple[int, ...], index: Tuple[Any, ...],
          values: np.ndarray) -> None:
    """Has the maker of a received memory put values there, as of an array of that shape. The index
    has slices and numbers only, and the values have the shape that it gives.

    ValueError if the memory is a copy, which its maker wouldn't see; FreedError."""
    claim = _claim_of(still_ours(memory))
    if claim is None:
        raise ValueError("assignment destination is read-only: it came as a copy")
    claim.connection.write(claim.entry.token, shape, index, values)
