#!/bin/sh
# Compares the types and functions that users of the shared library compile against with those of the last release,
# crrecord-MAJOR.MINOR.abi, which GCC 12 has made of the optimised build with debug information. Says what differs, and
# fails unless that is only new functions and what abidiff calls harmless, such as new enumerators.
#
#   interface.sh LIBRARY
#   interface.sh LIBRARY --print >crrecord-MAJOR.MINOR.abi
set -eu

here=$(dirname "$0")
root=$(cd "$here/../.." && pwd)

if [ "${2-}" = --print ]; then
    abidw --headers-dir "$root/include" --drop-private-types --exported-interfaces-only --no-parameter-names \
        --no-show-locs --no-corpus-path --no-comp-dir-path --no-elf-needed "$1" |
        sed "s/^ *//; s|='$root/|='|"
else
    set -- "$1" "$here"/crrecord-*.abi
    if [ $# != 2 ] || [ ! -e "$2" ]; then
        echo "interface.sh: expected one crrecord-*.abi in $here" >&2
        exit 2
    fi
    abidiff --harmless "$2" "$1" || abidiff --no-added-syms "$2" "$1" >/dev/null
fi
