#!/bin/sh
# Runs the examples as a newcomer would: what the writer stored the receiver finds, and damage it refuses.
#
#   check.sh WRITER RECEIVER READER

set -eu

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$folder"

head -c 300000 /dev/zero >file
"$1" file record form
"$2" record form >output

# 128 KiB of zeros twice, and the rest; its task; the digest twice the same.
for line in 'container 64: ' 'kept by task:17' '3 segments, 300000 bytes' ', the same in the exchange form'; do
    grep -q -e "$line" output || {
        printf 'the receiver does not say "%s":\n' "$line"
        cat output
        exit 1
    }
done

# The reader in plain C has the same segments.
"$3" record >seen
for line in '3 segments, 300000 bytes' ' 37856 bytes in container 64' 'reference of kind 2: 17'; do
    grep -q -e "$line" seen || {
        printf 'the reader does not say "%s":\n' "$line"
        cat seen
        exit 1
    }
done

# changed FILE OFFSET: a copy, "bad", with another byte there.
changed() {
    cp "$1" bad
    printf '\377' | dd of=bad bs=1 seek="$2" conv=notrunc 2>/dev/null
}

# refused WHAT RECEIVER RECORD FORM: whether the receiver ends with status 1.
refused() {
    status=0
    "$2" "$3" ${4:+"$4"} >output 2>&1 || status=$?
    [ "$status" = 1 ] || {
        printf '%s: status %s, expected 1\n' "$1" "$status"
        cat output
        exit 1
    }
}

changed record 244 # in the list of containers, behind three entries and their containers
refused 'damaged list' "$2" bad form
refused 'damaged list, in C' "$3" bad
grep -q '^error 2[01][0-9] at byte ' output || exit 1
head -c 200 record >bad
refused 'cut record' "$2" bad form
changed form 28 # the first character of a fingerprint
refused 'damaged form' "$2" record bad
printf '0' | dd of=bad bs=1 seek=28 conv=notrunc 2>/dev/null # a character that it may have
refused 'another fingerprint' "$2" record bad
