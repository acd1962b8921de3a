#!/usr/bin/env bash
#  Sourced by scripts/package-test: what every check is made of.

patience=300 # checks, 0.1 s apart, of something that comes within about a second unless the package is wrong

say() {
    printf '%s  %s\n' "$(date +%T)" "$*"
}

fail() {
    printf 'FAIL: %s\n' "$*"
    exit 1
}

#  expect WHAT EXPECTED FOUND
expect() {
    [ "$2" = "$3" ] || fail "$1: expected \"$2\", found \"$3\""
}

#  expect_at_most WHAT LIMIT FOUND, in whole numbers
expect_at_most() {
    [ "$3" -le "$2" ] || fail "$1: expected at most $2, found $3"
}

expect_at_least() {
    [ "$3" -ge "$2" ] || fail "$1: expected at least $2, found $3"
}

#  until_true WHAT COMMAND...: repeats the command until it succeeds.
until_true() {
    local what=$1 checks
    shift
    for ((checks = 0; checks < patience; checks++)); do
        if "$@"; then
            return 0 # in a trap, the status would be that of before
        fi
        sleep 0.1
    done
    fail "waited in vain for $what"
}
