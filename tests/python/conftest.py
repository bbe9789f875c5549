"""What the tests of the Python package share: processes to talk to, and a look at what is left."""
import contextlib
import gc
import multiprocessing
import os
import pathlib
import subprocess
import sys
import textwrap
import time

import pytest

import mempager

FOLDERS = [pathlib.Path("/dev/shm"), pathlib.Path(mempager.config.temp_folder)]


def names_of(process):
    """How many names it has in the library's folders."""
    return sum(f"_{process}_" in path.name for folder in FOLDERS for path in folder.iterdir())


def held():
    """What this process has: memory, and names."""
    gc.collect()
    mempager.clear_cache()
    return mempager.status(), names_of(os.getpid())


def assert_nothing_is_left_of(process):
    """That the next process removes what a killed one has left; with its first regions it does."""
    if names_of(process) != 0:
        script = "import mempager\nfor _ in range(50): mempager.empty(9 << 20, 'u1')"
        subprocess.run([sys.executable, "-c", script], check=True, timeout=100)
    assert names_of(process) == 0


def until(condition):
    """Waits for what another process or thread does, for some seconds."""
    end = time.monotonic() + 20
    while not condition():
        assert time.monotonic() < end
        time.sleep(.05)


def run(script, *arguments, prefix=(), **options):
    """A process of its own that runs a script; returns what it has printed, and fails with it, or
    if it leaves anything."""
    command = [*prefix, sys.executable, "-c", textwrap.dedent(script), *map(str, arguments)]
    sent = options.pop("input", None)
    with subprocess.Popen(command, text=True, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, **options) as process:
        printed, failed = process.communicate(sent, timeout=100)
    assert process.returncode == 0, failed
    assert_nothing_is_left_of(process.pid)
    return printed


@pytest.fixture(autouse=True)
def nothing_left():
    """Each test gives back what it takes, if not at once, since others may have to let go of it."""
    before = held()
    yield
    until(lambda: held() == before)


@pytest.fixture(params=["spawn", "fork"])
def processes(request):
    """multiprocessing, by each way to start a process."""
    return multiprocessing.get_context(request.param)


@contextlib.contextmanager
def only_root(what):
    """Skips what needs a place of its own where that can't be had."""
    if os.geteuid() != 0:
        pytest.skip(f"only root can make {what}")
    yield
