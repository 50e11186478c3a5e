"""pip install --no-build-isolation . : the extension is built by the project's CMake.

The module belongs to the interpreter that runs pip: pybind11 has no form that serves several
versions of Python at once.
"""

import shutil
import subprocess
import sys
from importlib.util import find_spec
from pathlib import Path

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext


class BuildByCMake(build_ext):
    def build_extension(self, ext):
        if find_spec("numpy") is None:
            sys.exit(f"{sys.executable} has no NumPy, which the package needs")
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
        made = build / "python" / "tqnlp" / Path(self.get_ext_filename(ext.name)).name
        made.unlink(missing_ok=True)
        subprocess.run(
            ["cmake", "--build", build, "--target", "tqnlp_python", "--parallel"], check=True
        )
        if not made.exists():
            sys.exit(f"the module was not built for {sys.executable}: are its headers installed?")
        wanted = Path(self.get_ext_fullpath(ext.name)).resolve()
        wanted.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy2(made, wanted)


setup(ext_modules=[Extension("tqnlp._core", [])], cmdclass={"build_ext": BuildByCMake})
