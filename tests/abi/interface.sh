#!/bin/sh
# Compares the types and functions that users of the shared library compile against with crrecord-1.0.abi, which GCC 12
# has made of the optimised build with debug information, and says what differs. After a decision to change them:
# interface.sh LIBRARY --print >crrecord-1.0.abi
set -eu

here=$(dirname "$0")
root=$(cd "$here/../.." && pwd)

if [ "${2-}" = --print ]; then
    abidw --headers-dir "$root/include" --drop-private-types --exported-interfaces-only --no-parameter-names \
        --no-show-locs --no-corpus-path --no-comp-dir-path --no-elf-needed "$1" |
        sed "s/^ *//; s|='$root/|='|"
else
    abidiff --harmless "$here/crrecord-1.0.abi" "$1"
fi
