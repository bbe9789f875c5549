"""The two ends of a hand-over: the maker's keeper, and a receiver's connection to it.

The keeper is a thread that the first pickling of a piece starts, and a socket whose name has no
file. It keeps memory for receivers to come (leases) and for those that have claimed it; what a
receiver has claimed ends with its connection, so also with its death.

A request is an operation of one byte, a number of tokens and the tokens; see Operation.
"""
from __future__ import annotations

import atexit
import collections
import contextlib
import errno
import json
import multiprocessing.util
import operator
import os
import secrets
import select
import socket
import struct
import threading
import time
import weakref
from typing import Any, Deque, Dict, Iterator, List, Optional, Tuple

import numpy as np

from ._config import config
from ._core import Memory
from ._errors import FreedError

TOKEN_BYTES = 16

# How long the end of a process waits for receivers that are still to come.
LINGER_SECONDS = 5.0

_HEAD = struct.Struct("<cI")
_SIZES = struct.Struct("<IQ")


class Operation:
    """What a receiver asks for, and what it gets."""

    CLAIM = b"C"  # a byte for each token: 1, or 0 if that memory is gone
    ARRIVED = b"A"  # nothing: the claimed memory is mapped, or copied, or given up
    RELEASE = b"R"  # nothing: the receiver has let go of it
    LEASE = b"L"  # nothing: the receiver has sent it on to another one
    FETCH = b"F"  # the bytes of one memory
    WRITE = b"W"  # a text that is empty, or says what is wrong; comes with an index and bytes


def _read(connection: socket.socket, size: int) -> bytearray:
    data = bytearray(size)
    _read_into(connection, memoryview(data))
    return data


def _read_into(connection: socket.socket, to: memoryview) -> None:
    while to.nbytes:
        count = connection.recv_into(to)
        if count == 0:
            raise EOFError
        to = to[count:]


def _split(tokens: bytes) -> List[bytes]:
    return [tokens[i:i + TOKEN_BYTES] for i in range(0, len(tokens), TOKEN_BYTES)]


# The maker's end ---------------------------------------------------------------------------------


class Keeper:
    """Keeps memory of this process for those that it was sent to."""

    def __init__(self) -> None:
        self.address = b"\0mempager-" + secrets.token_hex(16).encode()
        self._listener = socket.socket(socket.AF_UNIX)
        self._listener.bind(self.address)
        self._listener.listen(64)
        self._wake, self._woken = socket.socketpair()
        self._changed = threading.Condition()
        self._leases: Dict[bytes, Tuple[Memory, Deque[float]]] = {}
        self._known: weakref.WeakValueDictionary[bytes, Memory] = weakref.WeakValueDictionary()
        self._arriving = 0  # claims of receivers that haven't mapped the memory yet
        self._guests: Dict[socket.socket, None] = {}
        threading.Thread(target=self._run, name="mempager-keeper", daemon=True).start()

    def lease(self, token: bytes, memory: Memory) -> None:
        """Keeps the memory until one more receiver has claimed it, or for the time that is
        configured."""
        with self._changed:
            self._known[token] = memory
            until = self._leases.setdefault(token, (memory, collections.deque()))[1]
            until.append(time.monotonic() + config.handover_seconds)
        self._wake.send(b".")

    def take(self, tokens: List[bytes]) -> List[Optional[Memory]]:
        """The memories for a receiver in this process; None for those that are gone."""
        found = [self._known.get(token) for token in tokens]
        with self._changed:
            for token in tokens:
                self._end_lease(token)
            self._changed.notify_all()
        return found

    def linger(self, seconds: float) -> None:
        """Waits for receivers that are to come."""
        with self._changed:
            self._changed.wait_for(lambda: not self._leases and not self._arriving, seconds)

    def close(self) -> None:
        """In a child, which has none of this: gives its descriptors up."""
        for end in (self._listener, self._wake, self._woken, *self._guests):
            end.close()

    def _end_lease(self, token: bytes) -> None:
        lease = self._leases.get(token)
        if lease is not None:
            lease[1].popleft()
            if not lease[1]:
                del self._leases[token]

    def _run(self) -> None:
        while True:
            ready, _, _ = select.select([self._listener, self._woken], [], [], self._expire())
            if self._woken in ready:
                self._woken.recv(4096)
            if self._listener in ready:
                guest, _ = self._listener.accept()
                self._guests[guest] = None
                threading.Thread(target=self._serve, args=(guest,), name="mempager-keeper-guest",
                                 daemon=True).start()

    def _expire(self) -> Optional[float]:
        """Ends the leases whose time is over; returns the time until the next one's is."""
        now = time.monotonic()
        with self._changed:
            for token, (_, until) in list(self._leases.items()):
                while until and until[0] <= now:
                    until.popleft()
                if not until:
                    del self._leases[token]
            self._changed.notify_all()
            return min((until[0] - now for _, until in self._leases.values()), default=None)

    def _serve(self, connection: socket.socket) -> None:
        guest = _Guest(self, connection)
        with contextlib.suppress(EOFError, OSError), connection:
            guest.serve()
        self._guests.pop(connection, None)
        guest.leave()


class _Guest:
    """One receiver, as its thread in the keeper sees it."""

    def __init__(self, keeper: Keeper, connection: socket.socket) -> None:
        self._keeper = keeper
        self._connection = connection
        self._claims: Dict[bytes, List[Memory]] = {}
        self._arriving: Deque[bytes] = collections.deque()

    def serve(self) -> None:
        """Answers until the receiver is gone: EOFError or OSError."""
        answers = {
            Operation.CLAIM: self._claim, Operation.ARRIVED: self._arrived,
            Operation.RELEASE: self._release, Operation.LEASE: self._lease,
            Operation.FETCH: self._fetch, Operation.WRITE: self._write,
        }
        while True:
            operation, count = _HEAD.unpack(_read(self._connection, _HEAD.size))
            tokens = _split(bytes(_read(self._connection, count * TOKEN_BYTES)))
            answers[operation](tokens)

    def leave(self) -> None:
        """What the receiver had is its no more."""
        self._arrived(list(self._arriving))
        self._claims.clear()

    def _claim(self, tokens: List[bytes]) -> None:
        found = [self._keeper._known.get(token) for token in tokens]
        for token, memory in zip(tokens, found):
            if memory is not None:
                self._claims.setdefault(token, []).append(memory)
                self._arriving.append(token)
        with self._keeper._changed:
            self._keeper._arriving += sum(memory is not None for memory in found)
        self._connection.sendall(bytes(memory is not None for memory in found))

    def _arrived(self, tokens: List[bytes]) -> None:
        with self._keeper._changed:
            for token in tokens:
                if token in self._arriving:
                    self._arriving.remove(token)
                    self._keeper._arriving -= 1
                    self._keeper._end_lease(token)
            self._keeper._changed.notify_all()

    def _release(self, tokens: List[bytes]) -> None:
        for token in tokens:
            held = self._claims.get(token, [])
            if held:
                held.pop()
            if not held:
                self._claims.pop(token, None)

    def _lease(self, tokens: List[bytes]) -> None:
        for token in tokens:
            if token in self._claims:
                self._keeper.lease(token, self._claims[token][0])

    def _fetch(self, tokens: List[bytes]) -> None:
        self._connection.sendall(self._claims[tokens[0]][0].map(True))  # type: ignore[arg-type]

    def _write(self, tokens: List[bytes]) -> None:
        length, size = _SIZES.unpack(_read(self._connection, _SIZES.size))
        where = json.loads(_read(self._connection, length))
        values = _read(self._connection, size)
        try:
            self._put(self._claims[tokens[0]][0], where, values)
            said = b""
        except Exception as failure:  # whatever it is, the receiver has to know
            said = str(failure).encode()
        self._connection.sendall(struct.pack("<I", len(said)) + said)

    @staticmethod
    def _put(memory: Memory, where: Dict[str, Any], values: bytearray) -> None:
        element = np.dtype((np.void, where["itemsize"]))
        array: np.ndarray = np.ndarray(where["shape"], element, memory.map())  # type: ignore
        index: Any = (*(i if isinstance(i, int) else slice(*i) for i in where["index"]), ...)
        there = array[index]
        there[...] = np.ndarray(there.shape, element, values)


def _plain(part: Any) -> Any:
    """A part of an index as JSON has it."""
    if not isinstance(part, slice):
        return operator.index(part)
    return [None if i is None else operator.index(i) for i in (part.start, part.stop, part.step)]


# The receiver's end ------------------------------------------------------------------------------


class Connection:
    """A receiver's way to one keeper. Threads: any."""

    def __init__(self, address: bytes, user: int) -> None:
        self._lock = threading.Lock()
        self._process = os.getpid()
        self._released: Deque[bytes] = collections.deque()
        self._broken = False  # in the middle of a request
        self._socket = socket.socket(socket.AF_UNIX)
        self._socket.connect(address)
        credentials = self._socket.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, 12)
        if struct.unpack("3i", credentials)[1] != user:
            self._socket.close()
            raise ConnectionRefusedError(errno.ECONNREFUSED, "another user took the address")

    def claim(self, tokens: List[bytes]) -> None:
        """Takes a share of each memory, or of none: FreedError."""
        with self._talk():
            self._ask(Operation.CLAIM, tokens)
            told = _read(self._socket, len(tokens))
        if not all(told):
            for token, is_there in zip(tokens, told):
                if is_there:
                    self.release(token)
            self.arrived([token for token, is_there in zip(tokens, told) if is_there])
            raise FreedError("its maker has freed the piece")

    def arrived(self, tokens: List[bytes]) -> None:
        """Tells that what was claimed is mapped, copied, or given up."""
        with self._talk():
            self._ask(Operation.ARRIVED, tokens)

    def lease(self, tokens: List[bytes]) -> None:
        """Has memory kept for another receiver, which it was sent on to."""
        with self._talk():
            self._ask(Operation.LEASE, tokens)

    def fetch(self, token: bytes, to: memoryview) -> None:
        """Copies the bytes of a memory."""
        with self._talk():
            self._ask(Operation.FETCH, [token])
            _read_into(self._socket, to)

    def write(self, token: bytes, shape: Tuple[int, ...], index: Tuple[Any, ...],
              values: np.ndarray) -> None:
        """Has values put into a memory. ValueError with what the maker says."""
        where = {"shape": shape, "itemsize": values.dtype.itemsize,
                 "index": [_plain(part) for part in index]}
        text = json.dumps(where).encode()
        flat = np.ascontiguousarray(values).reshape(-1).view(np.uint8)
        with self._talk():
            self._ask(Operation.WRITE, [token], _SIZES.pack(len(text), flat.nbytes) + text)
            self._socket.sendall(flat.data)
            said = _read(self._socket, struct.unpack("<I", _read(self._socket, 4))[0])
        if said:
            raise ValueError(said.decode())

    def release(self, token: bytes) -> None:
        """Gives a share back: now, or when the thread that talks is done. Never waits or fails, as
        the garbage collector may call it, at any point of any thread."""
        if self._process != os.getpid():
            return  # what this process was forked from had it
        self._released.append(token)
        while self._released and self._lock.acquire(blocking=False):
            try:
                self._tell_released()
            except OSError:
                self._released.clear()  # the maker is gone
            finally:
                self._lock.release()

    def is_over(self) -> bool:
        """Whether the maker has ended."""
        try:
            return self._socket.recv(1, socket.MSG_PEEK | socket.MSG_DONTWAIT) == b""
        except BlockingIOError:
            return False
        except OSError:
            return True

    def close(self) -> None:
        """Gives the descriptor up."""
        self._socket.close()

    @contextlib.contextmanager
    def _talk(self) -> Iterator[None]:
        try:
            with self._lock:
                yield
                self._tell_released()
        except (EOFError, OSError) as failure:
            _forget(self)
            raise FreedError("the maker of the piece has ended") from failure
        except BaseException:  # interrupted; what was claimed stays claimed
            self._broken = True
            _forget(self)
            raise
        if self._released:
            self.release(self._released.popleft())

    def _ask(self, operation: bytes, tokens: List[bytes], more: bytes = b"") -> None:
        self._socket.sendall(_HEAD.pack(operation, len(tokens)) + b"".join(tokens) + more)

    def _tell_released(self) -> None:
        tokens = []
        with contextlib.suppress(IndexError):
            while True:
                tokens.append(self._released.popleft())
        if tokens and not self._broken:
            self._ask(Operation.RELEASE, tokens)


# Those of this process ---------------------------------------------------------------------------

_lock = threading.Lock()
_own: Optional[Keeper] = None
_connections: Dict[bytes, Connection] = {}


def own() -> Keeper:
    """This process's keeper, made at the first call. OSError without descriptors."""
    global _own
    with _lock:
        if _own is None:
            _own = Keeper()
            # One runs at the end of an interpreter, the other of a process of multiprocessing.
            atexit.register(_linger)
            multiprocessing.util.Finalize(None, _linger, exitpriority=-100)
        return _own


def is_own(address: bytes) -> bool:
    """Whether that is this process's."""
    return _own is not None and _own.address == address


def connect(address: bytes, user: int) -> Connection:
    """The connection to a keeper. FreedError if there is none."""
    with _lock:
        known = _connections.get(address)
        if known is not None:
            return known
        for other, connection in list(_connections.items()):
            if connection.is_over():
                _connections.pop(other).close()
        try:
            made = _connections[address] = Connection(address, user)
        except OSError as failure:
            raise FreedError("the maker of the piece has ended, or is on another machine: there, "
                             "pickle it in mempager.by_bytes()") from failure
        return made


def _forget(connection: Connection) -> None:
    with _lock:
        for address, known in list(_connections.items()):
            if known is connection:
                del _connections[address]


def _linger() -> None:
    if _own is not None:
        _own.linger(min(LINGER_SECONDS, config.handover_seconds))


def _start_anew() -> None:
    """In a child: it keeps nothing for anybody, and has claimed nothing yet."""
    global _lock, _own
    _lock = threading.Lock()
    if _own is not None:
        _own.close()
    for connection in _connections.values():
        connection.close()
    _own = None
    _connections.clear()


os.register_at_fork(after_in_child=_start_anew)
