#!/usr/bin/env bash
#  Sourced by scripts/package-test: systemd restarts the service after a crash.

# shellcheck source=tests/packaging/debian/names.sh
source "$(dirname "${BASH_SOURCE[0]}")/names.sh"

#  The process MainPID is named addrpubd only after stdbuf has executed the service.
runs_again_after() {
    local pid
    pid=$(property MainPID)
    [ "$pid" != 0 ] && [ "$pid" != "$1" ] && [ "$(inside cat "/proc/$pid/comm" 2>/dev/null)" = addrpubd ]
}

end_by_fault() {
    quietly systemctl kill --kill-whom=main --signal=SEGV "$unit"
}

check_restart() {
    say "a crash causes a restart after 10 s"
    start_service
    local pid ended started
    pid=$(property MainPID)
    end_by_fault
    until_true "the wait for the new start" is_property SubState auto-restart
    ended=$(property ExecMainExitTimestampMonotonic)
    expect "the delay" 10s "$(property RestartUSec)"
    expect "the signal" 11 "$(property ExecMainStatus)"
    until_true "the new start" runs_again_after "$pid"
    started=$(property ExecMainStartTimestampMonotonic)
    expect_at_least "the microseconds between end and start" 10000000 $((started - ended))
    expect "the number of restarts" 1 "$(property NRestarts)"
    until_true "the start's end" in_journal '^Start success!$'
    say "the new start came $(((started - ended) / 1000)) ms after the end"
}

#  The delay before a restart is shortened. The start limit is that of the packaged unit.
check_limit() {
    say "the fifth crash within ten minutes causes no restart"
    runtime_drop_in 'RestartSec=100ms'
    start_service
    local pid fault
    for fault in 1 2 3 4; do
        pid=$(property MainPID)
        end_by_fault
        until_true "the start after fault $fault" runs_again_after "$pid"
    done
    end_by_fault
    until_true "the unit's failure" is_property ActiveState failed
    expect "the unit's state" failed "$(property SubState)"
    expect "the number of restarts" 5 "$(property NRestarts)"
    grep -q 'Start request repeated too quickly' <<<"$(said_by_systemd | tail -n 4)" ||
        fail "systemd named another reason"
    remove_runtime_drop_in
    say "it can be started manually again"
    start_service
}

check_faults() {
    check_restart
    check_limit
}
