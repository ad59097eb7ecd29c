"""The wheel of the Python package. CMake builds the package, with the library in its extension module."""
import os
import pathlib
import re
import shlex
import shutil
import subprocess
import sys

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

SOURCE = pathlib.Path(__file__).resolve().parent
BUILD = "build/wheel"


def cmake(*arguments):
    jobs = os.environ.get("CMAKE_BUILD_PARALLEL_LEVEL", str(os.cpu_count()))
    subprocess.run(["cmake", *arguments], check=True, env=os.environ | {"CMAKE_BUILD_PARALLEL_LEVEL": jobs})


class CMakeBuild(build_ext):
    def run(self):
        build = os.path.abspath(self.build_temp)
        stage = os.path.join(build, "stage")
        cmake("-S", SOURCE, "-B", build, *(["-G", "Ninja"] if shutil.which("ninja") else []),
              "-DCMAKE_BUILD_TYPE=Release", "-DBUILD_SHARED_LIBS=OFF", "-DCRRECORD_BUILD_TOOLS=OFF",
              "-DCRRECORD_BUILD_PYTHON=ON", "-DCRRECORD_UNITY_BUILD=ON",
              f"-DCRRECORD_PYTHON={sys.executable}", "-DCRRECORD_PYTHON_INSTALL_DIR=.",
              *shlex.split(os.environ.get("CMAKE_ARGS", "")))
        cmake("--build", build)
        shutil.rmtree(stage, ignore_errors=True)
        cmake("--install", build, "--component", "python", "--strip", "--prefix", stage)
        self.copy_tree(os.path.join(stage, "crrecord"), os.path.join(self.build_lib, "crrecord"))


os.makedirs(SOURCE / BUILD, exist_ok=True)
version, description = re.search(r'VERSION ([\d.]+)\s+DESCRIPTION "(.*)"', (SOURCE / "CMakeLists.txt").read_text()).groups()
setup(
    name="crrecord",
    version=version,
    description=description,
    python_requires=">=3.9",
    packages=[],
    ext_modules=[Extension("crrecord._crrecord", sources=[])],
    cmdclass={"build_ext": CMakeBuild},
    options={"build": {"build_base": BUILD}, "egg_info": {"egg_base": BUILD}},
)
