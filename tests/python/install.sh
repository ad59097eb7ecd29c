#!/bin/bash
# Installs the Python package outside of the build tree and uses it there: install.sh WAY PYTHON BUILD
#
#   component   cmake --install BUILD --component python
#   wheel       builds a source distribution, and from it a wheel, without network, for a new virtual environment. Exits
#               with 77 if PYTHON is not Debian's, or lacks packages for it.

set -euo pipefail
way=$1 python=$2 build=$3
source=$(realpath "$(dirname "$0")/../..")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export PYTHONDONTWRITEBYTECODE=1

case $way in
component)
    cmake --install "$build" --component python --prefix "$work" >"$work/log"
    PYTHONPATH=$(dirname "$work"/lib/python3*/*-packages/crrecord)
    export PYTHONPATH
    ;;
wheel)
    "$python" -c 'import ensurepip, setuptools, sys, wheel; sys.exit(sys.base_prefix != "/usr")' 2>/dev/null || exit 77
    unset PYTHONPATH
    (cd "$source/python" && "$python" -c "import os, wheel_backend as b; os.chdir('..'); b.build_sdist('$work')" >"$work/log")
    "$python" -m venv "$work/venv"
    export PIP_NO_INDEX=1 PIP_DISABLE_PIP_VERSION_CHECK=1
    # Compiles in seconds.
    CMAKE_ARGS="-DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG=-O0 -DCMAKE_UNITY_BUILD=ON" \
        "$work/venv/bin/pip" wheel --quiet --wheel-dir "$work" "$work"/crrecord-*.tar.gz
    "$work/venv/bin/pip" install --quiet "$work"/crrecord-*.whl
    python=$work/venv/bin/python
    for name in _crrecord _store; do
        module=$(echo "$work"/venv/lib/python3*/site-packages/crrecord/$name.*.so)
        exported=$(nm --dynamic --defined-only --format=just-symbols "$module")
        [ "$exported" = "PyInit_$name" ] || {
            echo "$module exports $exported" >&2
            exit 1
        }
    done
    ;;
esac

cd "$source"
"$python" - "$work" <<'END'
import importlib.metadata
import pathlib
import sys

import crrecord

assert crrecord.__file__.startswith(sys.argv[1]), crrecord.__file__
declared = importlib.metadata.version("crrecord")
assert declared == crrecord.__version__, (declared, crrecord.__version__)
# Either inside of the module or installed with it, not the library of the build tree or of the system.
for line in pathlib.Path("/proc/self/maps").read_text().splitlines():
    assert "libcrrecord" not in line or line.split()[-1].startswith(sys.argv[1]), line
END
# The new environment has no NumPy, which the examples of docs/python.md need.
document=docs/python.md
[ "$way" != wheel ] || document=README.md
"$python" -m doctest "$document"
