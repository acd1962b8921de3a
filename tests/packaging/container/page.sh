#!/usr/bin/env bash
#  Sourced by the script `inside`. Functions that read and run the commands of the page.

# shellcheck source=tests/packaging/container/names.sh
source "$(dirname "${BASH_SOURCE[0]}")/names.sh"

#  section TITLE: prints the commands of a section, one per line, without the prompt.
section() {
    awk -v title="$1" '
        /^## / { inside = ($0 == title) }
        inside && /^    # / { command = 1; sub(/^    # /, "    ") }
        inside && /^    / && command {
            more = sub(/ *\\$/, "")
            sub(/^ +/, "")
            printf "%s%s", $0, more ? " " : "\n"
            command = more
        }' "$page"
}

#  command_of SECTION PATTERN: prints the only command of the section that contains PATTERN.
command_of() {
    local found
    found=$(section "$1" | grep --fixed-strings -- "$2") || fail "$page: no command with \"$2\" in \"$1\""
    [ "$(wc -l <<<"$found")" -eq 1 ] || fail "$page: several commands with \"$2\" in \"$1\""
    printf '%s\n' "$found"
}

#  run_commands SECTION PATTERN...: for each pattern, runs the command of the section that contains the pattern. Each
#  command must succeed.
run_commands() {
    local title=$1 pattern command
    shift
    for pattern in "$@"; do
        command=$(command_of "$title" "$pattern")
        bash -c "$command" >"$work/output" 2>&1 || {
            cat "$work/output"
            fail "$command"
        }
    done
}

#  row COMMAND: requires that the page's table of commands has this command, and runs the command, which must succeed.
#  WORK/output has the output of the command.
row() {
    grep --quiet --fixed-strings -- "| \`$1\` |" "$page" || fail "$page: no row \"$1\""
    bash -c "$1" >"$work/output" 2>&1 || {
        cat "$work/output"
        fail "$1"
    }
}

#  output_has TEXT: requires that WORK/output contains the text.
output_has() {
    grep --quiet --fixed-strings -- "$1" "$work/output" || {
        cat "$work/output"
        fail "the output lacks \"$1\""
    }
}

#  states TEXT: requires that the page contains the text.
states() {
    tr '\n' ' ' <"$page" | grep --quiet --fixed-strings -- "$1" || fail "$page does not state: $1"
}

image() {
    sed -n 's/.* \(addrpubd:[0-9.]*\)$/\1/p' <<<"$(command_of '## Run' 'podman run')"
}
