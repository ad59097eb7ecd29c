#!/bin/sh
# The store gives back what it was given, changes all records or none, and refuses what is no record.
#
#   store.sh STORE GOLDEN

set -eu

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$folder"

store() {
    "$program" database "$@" >>output 2>&1
}
program=$1
expected() {
    cat >expected
    diff -u expected output
    : >output
}

: >output
store put first "$2/do0-md5.network"
store put second "$2/do3-sha256.host"
head -c 200 "$2/do0-md5.network" >short
store put third short && exit 1
store show third && exit 1
expected <<END
first: 3 segments in 226 bytes
second: 3 segments in 270 bytes
store: Invalid DO record: recsize 226, size 200
store: NotFound: 
END

store move 17 18 first second
store move 18 19 first second first && exit 1 # the last one is moved already
store show first
store show second
expected <<END
store: first is not kept by task 18
first: 260 bytes in 3 segments
  container 64: 160 bytes
  container 65: 100 bytes
  kept by kind 2, id 18
second: 177 bytes in 3 segments
  kept by kind 2, id 18
END
