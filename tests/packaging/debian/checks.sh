#!/usr/bin/env bash
#  Sourced by scripts/package-test, scripts/image-test and container/inside: functions that the checks share.

patience=300 # number of checks, 0.1 s apart; a correct package needs at most about ten seconds

say() {
    printf '%s  %s\n' "$(date +%T)" "$*"
}

fail() {
    printf 'FAIL: %s\n' "$*"
    exit 1
}

#  expect WHAT EXPECTED FOUND: fails unless both texts are equal.
expect() {
    [ "$2" = "$3" ] || fail "$1: expected \"$2\", found \"$3\""
}

#  expect_at_most WHAT LIMIT FOUND: fails if FOUND is greater than LIMIT. Both are whole numbers.
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
            return 0 # in a trap, "return" without a number would use the status from before the trap
        fi
        sleep 0.1
    done
    fail "at the time limit, still waiting for $what"
}
