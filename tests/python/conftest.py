"""What the tests of the Python package share: processes to talk to, and a look at what is left."""
import contextlib
import gc
import multiprocessing
import os
import pathlib
import subprocess
import sys
import textwrap

import pytest

import mempager

FOLDERS = [pathlib.Path("/dev/shm"), pathlib.Path(mempager.config.temp_folder)]


def names():
    """What living processes of the library have in its folders; the next one removes the rest."""
    found = {path for folder in FOLDERS for path in folder.iterdir()
             if path.name.startswith(("NorvaneMemoryBlock_", "TempFile_"))}
    return {path for path in found if os.path.exists(f"/proc/{path.name.split('_')[-3]}")}


def run(script, *arguments, prefix=(), **options):
    """A process of its own that runs a script; returns what it has printed, and fails with it."""
    command = [*prefix, sys.executable, "-c", textwrap.dedent(script), *map(str, arguments)]
    done = subprocess.run(command, text=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          timeout=100, check=False, **options)
    assert done.returncode == 0, done.stderr
    return done.stdout


@pytest.fixture(autouse=True)
def nothing_left():
    """Each test gives back what it takes: memory, names, descriptors."""
    gc.collect()
    mempager.clear_cache()
    before = mempager.status(), names()
    yield
    gc.collect()
    mempager.clear_cache()
    assert (mempager.status(), names()) == before


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
