"""Builds the quorvex Python package with CMake.

The module links libQuorvex.so, which goes into the package beside it (the
module finds it through its $ORIGIN run path), so an installed package needs
nothing from the repository. Everything comes from Debian's packages:
cmake, g++, pybind11-dev, python3-dev, python3-setuptools; nothing is
downloaded.
"""

import os
import shutil
import subprocess
import sys
from pathlib import Path

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = Path(__file__).resolve().parent


class CMakeExtension(Extension):
    def __init__(self, name):
        super().__init__(name, sources=[])


class CMakeBuild(build_ext):
    def build_extension(self, extension):
        build = Path(self.build_temp).resolve() / "cmake"
        configure = [
            "cmake", "-S", str(ROOT), "-B", str(build),
            "-DCMAKE_BUILD_TYPE=Release",
            "-DQUORVEX_BUILD_PYTHON=ON", "-DQUORVEX_BUILD_TOOLS=OFF", "-DQUORVEX_BUILD_TESTS=OFF",
            "-DPYTHON_EXECUTABLE=" + sys.executable,
            # The module finds the library beside it, not in this build tree.
            "-DCMAKE_BUILD_WITH_INSTALL_RPATH=ON",
        ]
        subprocess.run(configure, check=True)
        jobs = str(os.cpu_count() or 2)
        subprocess.run(["cmake", "--build", str(build), "--target", "quorvex_python", "-j", jobs], check=True)

        package = Path(self.get_ext_fullpath(extension.name)).resolve().parent
        package.mkdir(parents=True, exist_ok=True)
        shutil.copy2(build / "python" / "quorvex" / Path(self.get_ext_filename(extension.name)).name, package)
        # The library under its SONAME, the name the module asks for.
        shutil.copy2(build / "src" / "libQuorvex.so.0", package, follow_symlinks=True)


setup(ext_modules=[CMakeExtension("quorvex._quorvex")], cmdclass={"build_ext": CMakeBuild})
