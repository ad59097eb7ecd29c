#!/bin/bash
# The manual pages and the completion that were written for this build: manual.sh COMMAND FOLDER

set -euo pipefail
command=$1
cd "$2"
failed=0

fail() {
    echo "$*" >&2
    failed=1
}

verbs=$("$command" --help | sed -n '/^Subcommands:/,/^$/s/^  \([a-z]*\) .*/\1/p')
[ "$(wc -l <<<"$verbs")" -ge 16 ] || fail "the help names too few verbs: $verbs"
for verb in ${verbs/segments/segments-build}; do
    page=man1/crrecord-$verb.1
    for section in NAME SYNOPSIS DESCRIPTION OPTIONS EXAMPLES 'EXIT STATUS'; do
        grep -q "^.SH $section$" "$page" || fail "$page has no $section"
    done
    # shellcheck disable=SC2086 # a verb of two words
    "$command" ${verb/-/ } --help | grep -q '^  crrecord '"${verb/-/ }" || fail "$verb: no example in its help"
done

# shellcheck disable=SC1091
source completions/crrecord
while IFS='|' read -r typed expected; do
    read -ra COMP_WORDS <<<"$typed"
    [[ $typed == *' ' ]] && COMP_WORDS+=('')
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    _crrecord || true # where it offers nothing
    [ "${COMPREPLY[*]}" = "$expected" ] || fail "behind \"$typed\": ${COMPREPLY[*]}"
done <<'END'
crrecord va|validate
crrecord convert --to ne|network
crrecord build --dot|--dotype
crrecord segments build --f|--fptype --first-container
crrecord show --records 1:2 --show|--show-keys
crrecord build |
END
exit $failed
