"""Builds the package by CMake: with the library in it from the project's source tree, or on an
installed library where the tree isn't there, or MEMPAGER_INSTALLED is set.

    pip install --no-build-isolation ./python
"""
import os
import pathlib
import re
import shutil
import subprocess
import sys

import setuptools
from setuptools.command.build_ext import build_ext

HERE = pathlib.Path(__file__).resolve().parent
TREE = HERE.parent
HAS_TREE = (TREE / "inc" / "mempager_version.h").exists() and not os.environ.get("MEMPAGER_INSTALLED")


def version():
    """The library's, which is told once."""
    if not HAS_TREE:
        return "0.1.0"
    lines = (TREE / "inc" / "mempager_version.h").read_text()
    return ".".join(re.findall(r"^#define MEMPAGER_VERSION_[MP][A-Z]* (\d+)$", lines, re.M))


class Build(build_ext):
    """Has CMake do it, and puts the results beside the Python sources."""

    def build_extension(self, ext):
        folder = pathlib.Path(self.build_temp).resolve() / "cmake"
        if HAS_TREE:  # where the tree's other builds are
            folder = TREE / "build" / f"pip-{sys.implementation.cache_tag}"
        folder.mkdir(parents=True, exist_ok=True)
        options = [f"-DPython_EXECUTABLE={sys.executable}", "-DCMAKE_BUILD_TYPE=Release"]
        if HAS_TREE:
            options += ["-DMEMPAGER_PYTHON=ON", *(
                f"-DMEMPAGER_{part}=OFF"
                for part in ("TOOLS", "TESTS", "EXAMPLES", "BENCH", "INSTALL"))]
        source = TREE if HAS_TREE else HERE
        subprocess.run(["cmake", "-S", source, "-B", folder, *options], check=True)
        subprocess.run(["cmake", "--build", folder, "--target", "mempager_python", "--parallel"],
                       check=True)
        target = pathlib.Path(self.get_ext_fullpath(ext.name)).resolve().parent
        target.mkdir(parents=True, exist_ok=True)
        built = folder / "python" if HAS_TREE else folder
        for file in (built / "package" / "mempager").glob("*.so*"):
            shutil.copy2(file, target)


setuptools.setup(
    name="mempager",
    version=version(),
    description="NumPy arrays in pager memory: more data than address space or memory limits take",
    license="Apache-2.0",
    python_requires=">=3.9",
    install_requires=["numpy"],
    extras_require={"dask": ["dask[array]", "distributed"], "progress": ["tqdm"]},
    packages=["mempager"],
    package_data={"mempager": ["py.typed", "*.pyi"]},
    ext_modules=[setuptools.Extension("mempager._core", [])],
    cmdclass={"build_ext": Build},
    zip_safe=False,
)
