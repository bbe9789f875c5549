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


def held():
    """What this process has: memory, and names in the library's folders."""
    gc.collect()
    mempager.clear_cache()
    return mempager.status(), {
        path for folder in FOLDERS for path in folder.iterdir() if f"_{os.getpid()}_" in path.name}


def until(condition):
    """Waits for what another process or thread does, for some seconds."""
    end = time.monotonic() + 20
    while not condition():
        assert time.monotonic() < end
        time.sleep(.05)


def run(script, *arguments, prefix=(), **options):
    """A process of its own that runs a script; returns what it has printed, and fails with it."""
    command = [*prefix, sys.executable, "-c", textwrap.dedent(script), *map(str, arguments)]
    done = subprocess.run(command, text=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          timeout=100, check=False, **options)
    assert done.returncode == 0, done.stderr
    return done.stdout


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
