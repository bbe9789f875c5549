"""Hunts bytes that Dask sends though they could stay, and results that a death of a worker takes."""
import os
import signal

import dask.array as da
import numpy as np
import pytest
from distributed import Client, LocalCluster
from distributed.protocol import deserialize, serialize

import mempager
from conftest import assert_nothing_is_left_of, names_of, only_root, run

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


def die(array, note):
    """The first time, the worker is killed with the array and a piece of its own in its hands."""
    own = mempager.array(array[63])
    if not note.exists():
        note.write_text(f"{os.getpid()} {names_of(os.getpid())}")
        os.kill(os.getpid(), signal.SIGKILL)
    return own.mapped()[0] + float(np.asarray(array).sum())


def test_a_killed_worker_loses_nothing_and_leaves_nothing(client, tmp_path):
    array, note = filled(), tmp_path / "note"
    total = np.asarray(array).sum()
    assert client.submit(die, array, note).result(timeout=60) == 63 + total
    assert array.to_dask().sum().compute() == total
    process, names = map(int, note.read_text().split())
    assert names > 0
    assert_nothing_is_left_of(process)


def test_on_disks_bytes_go():
    array = filled()
    header, frames = serialize(array)  # as Dask does where it spills
    assert sum(memoryview(frame).nbytes for frame in frames) >= array.nbytes
    got = deserialize(header, [bytes(frame) for frame in frames])
    np.testing.assert_array_equal(np.asarray(got), np.asarray(array))


ELSEWHERE = """
    import subprocess, sys
    import dask.array as da
    import numpy as np
    import mempager
    from distributed import Client, LocalCluster

    def see(value):
        status = mempager.status()
        return status.foreign_piece_bytes, status.local_piece_bytes, float(np.asarray(value).sum())

    def make():
        return mempager.array(np.arange(1000.0))

    if __name__ == "__main__":
        host, *worker = sys.argv[1:]
        worker += [sys.executable, "-m", "distributed.cli.dask_worker", "--nthreads", "1",
                   "--no-nanny", "--no-dashboard", "--local-directory", "/var/tmp"]
        place = subprocess.Popen(worker, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        place.stdout.readline()  # its network is there
        with LocalCluster(n_workers=0, host=host, dashboard_address=":0") as cluster:
            print(cluster.scheduler_address, file=place.stdin, flush=True)
            with Client(cluster) as client:
                client.wait_for_workers(1)
                array = mempager.Array((64, 1000), "f8", chunk_bytes=100_000)
                array[...] = np.arange(64)[:, None]
                print(*client.submit(see, array).result(), *client.submit(see, make()).result())
                made = client.submit(make).result()
                print(made.mapped().sum(), array.to_dask().mean().compute(), mempager.status()[5])
                try:
                    da.store(array.to_dask() * 2, array, lock=False)
                except ValueError as failure:
                    print(failure)
        place.kill()
    """
OWN_FILES = "mount -t tmpfs tmpfs /dev/shm && mount -t tmpfs tmpfs /var/tmp && "
OWN_NETWORK = """
    ip link set lo up && ip link add name there type veth peer name here netns $PPID &&
    nsenter -t $PPID -n sh -c 'ip addr add 10.9.9.1/24 dev here && ip link set here up' &&
    ip addr add 10.9.9.2/24 dev there && ip link set there up && """


@pytest.mark.parametrize("host, flags, place", [
    ("127.0.0.1", "-m", OWN_FILES),  # it reaches the maker, but can't open what the maker has
    ("10.9.9.1", "-mn", OWN_FILES + OWN_NETWORK),
], ids=["another_shared_memory", "another_machine"])
def test_a_worker_elsewhere_gets_bytes(host, flags, place):
    worker = ["unshare", flags, "sh", "-c", place + 'echo && read address && exec "$@" "$address"', "sh"]
    with only_root("a network and folders of its own"):
        told = run(ELSEWHERE, host, *worker, cwd="/tmp",
                   prefix=["unshare", "-n", "sh", "-c", 'ip link set lo up && exec "$@"', "sh"])
    assert told == ("0 512000 2016000.0 0 8000 499500.0\n"  # nothing foreign, all its own
                    "499500.0 31.5 0\n"
                    "assignment destination is read-only: it came as a copy\n")


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
