#!/usr/bin/env bash
#  Sourced by the script `inside`. Tests the health check and the lines in syslog.
#
#  The health check is called directly: Podman's timers for it need systemd, which these namespaces lack.

# shellcheck source=tests/packaging/container/names.sh
source "$(dirname "${BASH_SOURCE[0]}")/names.sh"

#  status_of COMMAND...: runs the command and prints its exit status. WORK/output has the output of the command.
status_of() {
    local status=0
    "$@" >"$work/output" 2>&1 || status=$?
    echo "$status"
}

has_status() {
    [ "$(status_of podman exec "$container" addrpubd-check --status)" -eq "$1" ]
}

check_health() {
    say "health"
    until_true "a healthy service" has_status 0
    run_commands "## Health" "podman healthcheck run" "addrpubd-check --status"
    output_has "$host_address"
    check_unhealthy
    run_container --network host
    until_true "the service" answers
}

#  Checks that the health check fails while the service runs and a server is not connected.
check_unhealthy() {
    remove_container
    write_settings "$unreachable" "$names"
    run_container --network host
    until_true "an unhealthy service" has_status 1
    expect "result of the health check" 1 "$(status_of podman healthcheck run "$container")"
    remove_container
    write_settings "$database" "$names"
}

check_syslog() {
    say "reasons in syslog"
    local option listener
    option=$(sed -n 's/^    \(--volume \/dev\/log.*\)/\1/p' "$page")
    [ -n "$option" ] || fail "$page does not mount /dev/log"
    /usr/bin/python3 -c '
import os, socket
log = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
log.bind("/dev/log")
os.chmod("/dev/log", 0o666)
while True:
    print(log.recv(65536).decode(errors="replace"), flush=True)
' >"$work/syslog" &
    listener=$!
    until_true "the socket" test -S /dev/log
    write_settings "$unreachable" "$names"
    run_container --network host "$option"
    until_true "the reason" grep --quiet 'rdbapi: redis://127.0.0.1:1' "$work/syslog"
    remove_container
    kill "$listener"
}
