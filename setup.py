"""pip install --no-build-isolation . : the extension is built by the project's CMake."""

import shutil
import subprocess
import sys
from pathlib import Path

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext


class BuildByCMake(build_ext):
    def build_extension(self, ext):
        source = Path(__file__).resolve().parent
        build = Path(self.build_temp).resolve()
        build.mkdir(parents=True, exist_ok=True)
        generator = ["-G", "Ninja"] if shutil.which("ninja") else []
        switches = ["-DTQNLP_PYTHON=ON", "-DTQNLP_TESTS=OFF", "-DTQNLP_EXAMPLES=OFF"]
        subprocess.run(
            ["cmake", "-S", source, "-B", build, *generator, *switches,
             "-DCMAKE_BUILD_TYPE=Release", f"-DPython_EXECUTABLE={sys.executable}"],
            check=True,
        )
        subprocess.run(
            ["cmake", "--build", build, "--target", "tqnlp_python", "--parallel"], check=True
        )
        wanted = Path(self.get_ext_fullpath(ext.name)).resolve()
        wanted.parent.mkdir(parents=True, exist_ok=True)
        for made in (build / "python" / "tqnlp").glob("_core*.so"):
            shutil.copy2(made, wanted)


setup(ext_modules=[Extension("tqnlp._core", [])], cmdclass={"build_ext": BuildByCMake})
