"""The build backend: setuptools, from Debian's packages if the environment has none.

pip builds in an environment without packages, and without this backend it needs the network to add setuptools."""
import importlib.util
import sys


def missing():
    return [name for name in ("setuptools", "wheel") if not importlib.util.find_spec(name)]


if missing() and sys.base_prefix == "/usr":  # a Python that Debian built
    sys.path.append("/usr/lib/python3/dist-packages")


def get_requires_for_build_wheel(config_settings=None):
    return missing()


get_requires_for_build_sdist = get_requires_for_build_wheel

if not missing():
    from setuptools.build_meta import build_sdist, build_wheel, prepare_metadata_for_build_wheel  # noqa: F401
