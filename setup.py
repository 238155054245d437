"""Builds libvqpack into the Python package; pyproject.toml has the rest."""

import os
import re
import shutil
import subprocess
import tempfile

from setuptools import setup
from setuptools.command.build_py import build_py
from setuptools.dist import Distribution

try:
    from setuptools.command.bdist_wheel import bdist_wheel
except ImportError:  # before setuptools 70
    from wheel.bdist_wheel import bdist_wheel

SOURCE = os.path.dirname(os.path.abspath(__file__))
LIBRARY = "libvqpack.so.0"


def version():
    with open(os.path.join(SOURCE, "coder", "vqcomp.h"), encoding="utf-8") as header:
        numbers = re.findall(r"^#define VQCOMP_VERSION_\w+ (\d+)$", header.read(), re.MULTILINE)
    return ".".join(numbers)


def build_library(folder):
    """Builds the library alone, outside the source tree, and copies it into the folder."""
    with tempfile.TemporaryDirectory() as build:
        options = [
            *("-DCMAKE_BUILD_TYPE=Release", "-DVQPACK_BUILD_PROGRAM=OFF"),
            *("-DVQPACK_INSTALL=OFF", "-DVQPACK_TESTS=OFF"),
        ]
        cores = str(len(os.sched_getaffinity(0)))
        try:
            subprocess.check_call(["cmake", "-S", SOURCE, "-B", build, *options])
            subprocess.check_call(
                ["cmake", "--build", build, "--target", "vqpack_c", "--parallel", cores]
            )
        except FileNotFoundError:
            raise SystemExit("cmake is needed to build libvqpack: install cmake, make and g++")
        shutil.copy(os.path.join(build, LIBRARY), os.path.join(folder, LIBRARY))


class BuildWithLibrary(build_py):
    def run(self):
        super().run()
        folder = os.path.join(SOURCE, "python") if self.editable_mode else self.build_lib
        build_library(os.path.join(folder, "vqpack"))


class LibraryDistribution(Distribution):
    """Pure Python, but with a library for one platform."""

    def has_ext_modules(self):
        return True


class WheelForAnyPython(bdist_wheel):
    def get_tag(self):
        return ("py3", "none", super().get_tag()[2])


# What setuptools notes down goes where all builds go.
os.makedirs(os.path.join(SOURCE, "build"), exist_ok=True)
setup(
    version=version(),
    distclass=LibraryDistribution,
    cmdclass={"build_py": BuildWithLibrary, "bdist_wheel": WheelForAnyPython},
    options={"egg_info": {"egg_base": "build"}},
)
