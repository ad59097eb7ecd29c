#!/bin/sh
# Compares what the shared library exports with the reviewed list, debian/libcrrecord1.symbols, by which Debian's
# packages also tell which version a program needs. Adding to the list is a new promise: a line with the version that
# makes it. Taking from it breaks users.
#
#   check.sh LIBRARY
set -eu

listed() {
    sed -n 's/^ (c++)"\(.*\)@Base" [0-9.]*$/\1/p' "$(dirname "$0")/../../debian/libcrrecord1.symbols"
}

# The names as Debian's tools write them, which isn't quite how nm does.
exported() {
    nm -D --defined-only "$1" | cut -d ' ' -f 3- | c++filt
}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
listed | LC_ALL=C sort >"$work/listed"
exported "$1" | LC_ALL=C sort -u >"$work/exported"
cd "$work"
diff -u listed exported
