#!/bin/sh
# The store gives back what it was given, changes the references of all records or of none, and refuses what is no
# record.
#
#   store.sh STORE CRRECORD GOLDEN

set -eu

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$folder"

store() {
    "$program" database "$@" >>output 2>&1
}
program=$1
crrecord=$2
golden=$3
expected() {
    cat >expected
    diff -u expected output
    : >output
}

: >output
store put first "$golden/do0-md5.network"
head -c 200 "$golden/do0-md5.network" >short
store put third short && exit 1
store put third missing && exit 1
store get third && exit 1
store add ref8:1 first && exit 1
store add task:1x first && exit 1
store add task:1 && exit 1
expected <<END_OF_OUTPUT
first: 3 segments in 226 bytes
store: Invalid DO record: recsize 226, size 200
store: cannot read missing
store: third: NotFound: 
store: found "ref8:1", expected task:N, dsid:N, ref6:N or ref9:N
store: found "task:1x", expected task:N, dsid:N, ref6:N or ref9:N
usage: store DATABASE put KEY RECORD | show KEY | get KEY | add REFERENCE KEY... |
       remove REFERENCE KEY... | move FROM TO KEY... | check
END_OF_OUTPUT

# The same changes, made to the files. The times of change, 4 bytes at byte 48, differ.
records='do2-all-kinds.host do3-md5-gaps.network do4-sha1-list.host noted-do-legacy.network noted-do-reference-order.host'
for record in $records; do
    store put "$record" "$golden/$record"
done
: >output
store get do3-md5-gaps.network
cmp output "$golden/do3-md5-gaps.network"
start=$(date +%s)
# shellcheck disable=SC2086 # several words
store move task:17 task:18 first $records
# shellcheck disable=SC2086
store add dsid:5 $records
store add dsid:5 do2-all-kinds.host
store remove ref9:991 do2-all-kinds.host
store remove ref9:991 do2-all-kinds.host
store check
for record in $records; do
    "$crrecord" refs "$golden/$record" --remove task:17 --add task:18 --add dsid:5 --remove ref9:991 -o changed >output
    "$program" database get "$record" >stored
    cmp -n 48 stored changed
    cmp -i 52 stored changed
    mtime=$("$crrecord" show --json stored | sed 's/.*"mtime":\([0-9]*\).*/\1/')
    [ "$mtime" -ge "$start" ] && [ "$mtime" -le "$(date +%s)" ]
done
: >output

store show first
store add task:1 nowhere
store check && exit 1
expected <<END_OF_OUTPUT
first: 260 bytes in 3 segments
  container 64: 160 bytes
  container 65: 100 bytes
  kept by kind 2, id 18
nowhere: record: found references only, expected a record
END_OF_OUTPUT
