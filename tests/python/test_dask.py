"""Hunts bytes that Dask sends though they could stay, and results that a death of a worker takes."""
import os
import signal

import dask.array as da
import numpy as np
import pytest
from distributed import Client, LocalCluster
from distributed.protocol import deserialize, serialize

import mempager
from conftest import only_root, run

pytestmark = pytest.mark.filterwarnings("ignore::DeprecationWarning")


def filled(rows=64, width=32_768):
    """An array of chunks of 4 rows, 1 MB."""
    array = mempager.Array((rows, width), "f8", chunk_bytes=1 << 20)
    for rows_, block in array.blocks():
        block[...] = np.arange(rows_.start, rows_.stop)[:, None]
    return array


@pytest.fixture(scope="module")
def client():
    with LocalCluster(2, threads_per_worker=1, dashboard_address=":0", memory_limit="1GB") as cluster:
        with Client(cluster) as client:
            yield client


@pytest.mark.parametrize("scheduler", ["synchronous", "threads", "processes"])
def test_without_a_cluster(scheduler):
    array, out = filled(), mempager.Array((64, 32_768))
    lazy = array.to_dask()
    assert lazy.chunks[0] == (4,) * 16
    assert lazy.sum().compute(scheduler=scheduler) == np.asarray(array).sum()
    da.store(lazy + 1, out, scheduler=scheduler, lock=False)
    np.testing.assert_array_equal(np.asarray(out), np.asarray(array) + 1)
    assert da.from_array(array)[[5, 1], 3].compute(scheduler=scheduler).tolist() == [5, 1]


def test_a_cluster_reads_and_writes(client):
    array, out = filled(), mempager.Array((64, 32_768))
    lazy = da.from_array(array, chunks=array.chunks)
    assert lazy.mean().compute() == 31.5
    da.store(lazy * 2, out, lock=False)
    np.testing.assert_array_equal(np.asarray(out), np.asarray(array) * 2)
    made = client.submit(lambda: mempager.array(np.arange(1000.0)))
    assert client.submit(lambda piece: piece.mapped().sum(), made).result() == 499500
    assert made.result().readonly
    assert client.submit(lambda: mempager.config.cache_mb).result() <= 250


def without_memory():
    """Fills what a worker may have, and gives it back."""
    mempager.config.shared_memory_mb, before = 20, mempager.config.shared_memory_mb
    try:
        return [mempager.empty(1 << 30, "u1") for _ in range(30)]
    finally:
        mempager.config.shared_memory_mb = before


def test_a_worker_without_memory_says_so(client):
    with pytest.raises(mempager.OutOfMemoryError, match="no memory left") as failure:
        client.submit(without_memory).result()
    assert failure.value.wanted == 1 << 30


def die(array):
    """The first time, the worker is killed with the array in its hands."""
    array[0, 0]
    if array[63, 0] == 63 and not os.path.exists(f"/tmp/died_{os.getppid()}"):
        open(f"/tmp/died_{os.getppid()}", "w").close()
        os.kill(os.getpid(), signal.SIGKILL)
    os.remove(f"/tmp/died_{os.getppid()}")
    return float(np.asarray(array).sum())


def test_a_killed_worker_loses_nothing(client):
    array = filled()
    assert client.submit(die, array).result(timeout=60) == np.asarray(array).sum()
    assert array.to_dask().sum().compute() == np.asarray(array).sum()


def test_elsewhere_and_on_disks_bytes_go():
    array = filled()
    here, there = "tcp://192.0.2.1:10", "tcp://192.0.2.2:10"
    for sender, recipient, least, most in [(here, here, 0, 9000), (here, there, array.nbytes, 2**30)]:
        context = {"sender": {"address": sender}, "recipient": {"address": recipient}}
        header, frames = serialize(array, context=context)
        assert least <= sum(memoryview(frame).nbytes for frame in frames) <= most
        got = deserialize(header, [bytes(frame) for frame in frames])
        np.testing.assert_array_equal(np.asarray(got), np.asarray(array))
    assert sum(memoryview(frame).nbytes for frame in serialize(array)[1]) >= array.nbytes


def test_nothing_but_descriptors_is_sent():
    script = """
        import fcntl, pathlib, socket, struct, sys
        import numpy as np
        import mempager
        from distributed import Client, LocalCluster

        def sent():
            return int(pathlib.Path("/sys/class/net/lo/statistics/tx_bytes").read_text())

        if __name__ == "__main__":
            request = struct.pack("16sh", b"lo", 0x1)  # SIOCSIFFLAGS with IFF_UP
            fcntl.ioctl(socket.socket(), 0x8914, request + bytes(22))
            array = mempager.Array((64, 32_768), "f8", chunk_bytes=1 << 20)
            array[...] = 1
            with LocalCluster(2, threads_per_worker=1, dashboard_address=":0") as cluster:
                with Client(cluster) as client:
                    counts = []
                    for x in array.to_dask(), __import__("dask.array").array.from_array(
                            np.asarray(array), chunks=array.chunks):
                        before = sent()
                        assert x.sum().compute() == array.size
                        counts.append(sent() - before)
            print(*counts)
        """
    with only_root("a network of its own"):
        place = ["unshare", "-n", "-m", "sh", "-c", 'mount -t sysfs sys /sys && exec "$@"', "sh"]
        ours, plain = map(int, run(script, prefix=place).split())
    assert plain > 16 << 20  # what is counted is what is sent
    assert ours < 1 << 20
