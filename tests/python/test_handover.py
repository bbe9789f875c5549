"""Hunts memory that goes too early or never, readers that see another's bytes, and makers that wait
for the dead."""
import copy
import os
import pickle
import signal
import subprocess
import sys
import textwrap
from concurrent.futures import ProcessPoolExecutor
from concurrent.futures.process import BrokenProcessPool

import numpy as np
import pytest

import mempager
from mempager import _keeper
from conftest import assert_nothing_is_left_of, names_of, only_root, run, until

RECEIVER = """
    import pickle, sys
    import numpy as np
    import mempager
    received = pickle.load(sys.stdin.buffer)
    """


# It removes what the killed ones of a pool have left, some with each new region.
NEXT_PROCESS = """
import mempager, os
for _ in range(1000):
    if os.listdir('/dev/shm'):
        mempager.zeros(9 << 20, 'u1')
"""


def show(value):
    """What a process of a pool sees of a piece or array."""
    foreign = mempager.status().foreign_piece_bytes
    array = np.asarray(value)
    return type(value).__name__, value.readonly, foreign > 0, array.sum()


def make(rows):
    """A process of a pool gives back what it has made, and keeps nothing."""
    return mempager.array(np.full(rows, 3.0)), mempager.Array(rows, "i2")


def write(array, row, value):
    """A process of a pool writes."""
    array[row, ..., :] = value


def refused(piece):
    """Why a process of a pool can't write."""
    with piece.map() as a:
        try:
            a[0] = 1
        except ValueError as failure:
            return str(failure)


def die(piece):
    """A process of a pool is killed, with a piece of its own too."""
    own = mempager.array(piece.mapped())
    os.kill(os.getpid(), own.nbytes and signal.SIGKILL)


def is_kept():
    return _keeper._own is not None and bool(_keeper._own._leases)


def test_a_pool_reads_in_place_and_gives_back(processes):
    piece = mempager.array(np.arange(30_000.0))
    array = mempager.Array((100, 1000), "f8", chunk_bytes=200_000)
    array[...] = np.arange(100_000.0).reshape(100, 1000)
    with processes.Pool(2) as pool:
        late = mempager.array(np.arange(300.0))  # in a region that a forked child has as its own
        for value, kind in [(piece, "Piece"), (array, "Array"), (late, "Piece")]:
            name, readonly, foreign, total = pool.apply(show, (value,))
            assert (name, readonly, total) == (kind, True, np.asarray(value).sum())
            assert foreign or processes.get_start_method() == "fork"
        assert pool.apply(refused, (piece,)) == "assignment destination is read-only"
        pool.apply(write, (array, slice(20, 90, 7), -1))
        pool.apply(write, (array, 5, np.arange(1000)))
        assert array[20:90:7].sum() == -10 * 1000
        assert array[5, 999] == 999
        with pytest.raises(ValueError, match="broadcast"):
            pool.apply(write, (array, slice(0, 3), np.zeros(3)))
        made, empty = pool.apply(make, (5000,))
        assert made.readonly and not made.copy().readonly
        assert (np.asarray(made).sum(), empty.shape) == (15_000, (5000,))
        with pytest.raises(ValueError, match="only the process"):
            empty.resize(3)
    until(lambda: not is_kept())
    assert np.asarray(made).sum() == 15_000  # its maker is gone


def test_a_killed_process_of_a_pool_is_an_exception_and_leaves_nothing(processes):
    piece = mempager.array(np.arange(1000.0))
    with ProcessPoolExecutor(1, mp_context=processes) as pool:
        child = pool.submit(os.getpid).result()
        with pytest.raises(BrokenProcessPool):
            pool.submit(die, piece).result()
    assert piece.mapped().sum() == 499500
    assert names_of(child) > 0
    assert_nothing_is_left_of(child)


def test_a_ticket_is_small_and_keeps_the_piece_until_its_receiver_is_gone():
    piece = mempager.array(np.arange(1_000_000.0))
    sent = pickle.dumps(piece, protocol=5)
    assert len(sent) < 1000
    del piece
    assert mempager.status().local_piece_bytes >= 8_000_000
    receiver = subprocess.Popen([sys.executable, "-c", """
import pickle, sys, mempager
piece = pickle.load(sys.stdin.buffer)
print(piece.mapped().sum(), flush=True)
sys.stdin.close(), __import__("time").sleep(100)"""], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    receiver.stdin.write(sent)
    receiver.stdin.close()
    assert float(receiver.stdout.readline()) == 499999500000.0
    assert not is_kept()
    assert mempager.status().local_piece_bytes >= 8_000_000  # its bytes serve nobody else
    receiver.kill()
    receiver.wait()
    receiver.stdout.close()
    until(lambda: mempager.status().local_piece_bytes == 0)


def test_what_nobody_fetches_is_kept_for_the_time_that_is_set():
    seconds = mempager.config.handover_seconds
    try:
        mempager.config.handover_seconds = 1
        sent = pickle.dumps(mempager.zeros(1000))
        assert is_kept()
        until(lambda: not is_kept())
    finally:
        mempager.config.handover_seconds = seconds
    with pytest.raises(mempager.FreedError):
        pickle.loads(sent)
    told = run("import pickle, mempager\ntry: pickle.loads(bytes.fromhex(input()))\n"
               "except mempager.FreedError as failure: print(failure)", input=sent.hex())
    assert "freed" in told


def test_a_maker_that_ends_waits_for_its_receiver_and_its_bytes_outlive_it():
    maker = """
        import pickle, sys, numpy, mempager
        pickle.dump(mempager.array(numpy.arange(100_000)), sys.stdout.buffer)
        """
    command = f"{sys.executable} -c '{{}}' | (sleep .5; {sys.executable} -c '{{}}')"
    reader = RECEIVER + "print(received.mapped().sum())\n"
    done = subprocess.run(command.format(*map(textwrap.dedent, (maker, reader))), shell=True, text=True,
                          capture_output=True, timeout=60, check=True)
    assert int(done.stdout) == 4999950000
    sent = bytes.fromhex(run("import pickle, mempager, os\n"
                             "print(pickle.dumps(mempager.zeros(9)).hex(), flush=True); os._exit(0)"))
    with pytest.raises(mempager.FreedError, match="ended, or is on another machine"):
        pickle.loads(sent)


def test_a_receiver_that_sends_on_may_be_gone_then():
    piece = mempager.array(np.arange(50_000))
    sent = run("""
        import os, pickle, mempager
        piece = pickle.loads(bytes.fromhex(input()))
        print(pickle.dumps([piece, piece]).hex(), flush=True)
        os._exit(0)
        """, input=pickle.dumps(piece).hex())
    del piece
    told = run("""
        import pickle, mempager
        one, other = pickle.loads(bytes.fromhex(input()))
        print(one is other, one.mapped().sum())
        """, input=sent)
    assert told == "True 1249975000\n"
    until(lambda: not is_kept())


def test_a_forked_child_of_a_receiver_claims_for_itself():
    piece = mempager.array(np.arange(1000))
    told = run("""
        import os, pickle, sys, mempager
        piece = pickle.loads(bytes.fromhex(input()))
        if os.fork() == 0:
            print(piece.mapped().sum(), flush=True)
            os._exit(0)
        os.wait()
        print(piece.mapped().sum())
        """, input=pickle.dumps(piece).hex())
    assert told == "499500\n" * 2


def test_bytes_go_where_asked_for_or_where_the_region_cannot_be_opened():
    piece = mempager.array(np.arange(100.0).reshape(4, 25))
    array = mempager.Array((10, 7), [("x", "i2"), ("y", "f4")], chunk_bytes=200)
    array[3:6] = (1, 2)
    for value in (piece, array, mempager.zeros((0, 3)), mempager.Array((0, 3))):
        for protocol in (2, 5):
            buffers = []
            options = {"buffer_callback": buffers.append} if protocol == 5 else {}
            with mempager.by_bytes():
                sent = pickle.dumps(value, protocol, **options)
            assert sum(buffer.raw().nbytes for buffer in buffers) == value.nbytes * bool(options)
            there = pickle.loads(sent, buffers=[bytes(buffer) for buffer in buffers])
            assert there.readonly
            np.testing.assert_array_equal(np.asarray(there), np.asarray(value))
    with pytest.raises(ValueError, match="read-only"), mempager.by_bytes():
        pickle.loads(pickle.dumps(array))[3] = 0
    with only_root("another /dev/shm"):
        elsewhere = ["unshare", "-m", "sh", "-c",
                     'mount -t tmpfs tmpfs /dev/shm && mount -t tmpfs tmpfs /var/tmp && exec "$@"',
                     "sh"]
        told = run("""
            import pickle, numpy, mempager
            array = pickle.loads(bytes.fromhex(input()))
            print(array[3:5]["y"].sum(), array.readonly)
            """, input=pickle.dumps(array).hex(), prefix=elsewhere, cwd="/tmp")
        assert told == "28.0 True\n"
    until(lambda: not is_kept())


def test_copies_are_made_here_and_start_nothing():
    piece, array = mempager.array([1, 2]), mempager.Array(3)
    for value in (piece, array):
        for made in (copy.copy(value), copy.deepcopy(value)):
            assert not made.readonly
            np.testing.assert_array_equal(np.asarray(value), np.asarray(made))
    made[0] = 5
    assert array[0] == 0
    assert not is_kept()
    same = pickle.loads(pickle.dumps(piece))
    piece.mapped()[0] = 7
    assert same.mapped()[0] == 7


def test_workers_without_memory_end_in_an_exception_and_leave_nothing():
    script = """
        import multiprocessing, mempager
        def take(size):
            return mempager.zeros(size, "u1")
        if __name__ == "__main__":
            with multiprocessing.get_context("fork").Pool(2) as pool:
                kept = []
                try:
                    while True:
                        kept.extend(pool.map(take, [8 << 20] * 2))
                except MemoryError as failure:
                    print(len(kept) > 1, failure)
                print(all(piece.mapped()[-1] == 0 for piece in kept))
        """
    with only_root("a /dev/shm and a temp folder of its own"):
        small = ["unshare", "-m", "sh", "-c",
                 'mount -t tmpfs -o size=64m tmpfs /dev/shm && '
                 'mount -t tmpfs -o size=8m tmpfs /var/tmp && cd /var/tmp && "$@" && '
                 f'{sys.executable} -c "{NEXT_PROCESS}" && ls -A /dev/shm',
                 "sh"]
        told = run(script, prefix=small)
    assert told.startswith("True ")
    assert "no memory left" in told
    assert told.endswith("True\n")
