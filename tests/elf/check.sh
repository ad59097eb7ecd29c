#!/bin/bash
# Checks executables, shared libraries and object files.
#
#   check.sh paths FOLDER        no file loads a library from the current directory or from a fixed place
#   check.sh hardened FILE...    each is position-independent and has full RELRO; together they use the stack protector
#                                and fortified functions
#   check.sh cet FOLDER          each object file is marked for indirect branch tracking and shadow stacks. The C
#                                library's start files may lack the mark, so linked files don't always have it.

set -euo pipefail
check=$1
shift
paths=()
for path; do
    paths+=("$(realpath "$path")")
done
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
failed=0
count=0

fail() {
    echo "$*" >&2
    failed=1
}

# The elements of a file's search path, one a line; "[A:B:]" has an empty one at its end.
search_path() {
    sed -n 's/.*(R\(UN\)\?PATH).*\[\(.*\)\]$/\2/p' "$1" | tr ':' '\n'
}

case $check in
paths)
    # Not the object files, nor the programs of other projects that the tests of the installation build.
    find "${paths[0]}" \( -name CMakeFiles -o -path "${paths[0]}/tests/install" \) -prune -o -type f -print0 >files
    while IFS= read -r -d '' file; do
        readelf --wide --dynamic "$file" >dynamic 2>/dev/null || continue
        grep -q '(NEEDED)' dynamic || continue
        count=$((count + 1))
        ! grep '(NEEDED).*\[.*/.*\]' dynamic || fail "$file: needs a library by its path"
        while IFS= read -r element; do
            [[ $element == "\$ORIGIN" || $element == "\$ORIGIN/"* ]] || fail "$file: looks for libraries in '$element'"
        done < <(search_path dynamic)
    done <files
    ;;
hardened)
    for file in "${paths[@]}"; do
        count=$((count + 1))
        readelf --wide --file-header --program-headers --dynamic "$file" >headers
        readelf --wide --dyn-syms "$file" | grep -o '__[a-z_]*_chk[a-z_]*' >>symbols || true
        grep -q 'Type: *DYN' headers || fail "$file: is not position-independent"
        grep -q 'GNU_RELRO' headers || fail "$file: no RELRO"
        grep -q 'BIND_NOW\|Flags:.* NOW' headers || fail "$file: binds functions when they are first called"
        ! grep 'GNU_STACK.* RWE ' headers || fail "$file: has an executable stack"
    done
    grep -q '^__stack_chk_fail$' symbols || fail "no stack protector"
    grep -qv '^__stack_chk_fail$' symbols || fail "no fortified function"
    ;;
cet)
    find "${paths[0]}" -name '*.o' -print0 >files
    while IFS= read -r -d '' file; do
        count=$((count + 1))
        readelf --notes "$file" >notes 2>/dev/null
        grep -q 'x86 feature: IBT, SHSTK' notes || fail "$file: not marked for CET"
    done <files
    ;;
esac
[ "$count" -gt 0 ] || fail "nothing to check in ${paths[*]}"
exit $failed
