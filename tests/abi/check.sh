#!/bin/sh
# Compares what the shared library exports with the reviewed list beside this script. Adding to the list is a new
# promise; taking from it breaks users. After such a decision: check.sh LIBRARY --print >exported.txt
set -eu

exported() {
    nm -D --defined-only -C "$1" | cut -d ' ' -f 3- | LC_ALL=C sort -u
}

if [ "${2-}" = --print ]; then
    exported "$1"
else
    exported "$1" | diff -u "$(dirname "$0")/exported.txt" -
fi
