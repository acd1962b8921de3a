#!/usr/bin/env bash
#  Sourced by the script `inside`. Tests the life of a container, from its first start to its end.

# shellcheck source=tests/packaging/container/names.sh
source "$(dirname "${BASH_SOURCE[0]}")/names.sh"

#  run_container OPTION...: runs the page's command with these options in place of --network host.
run_container() {
    local command
    command=$(command_of "## Run" "podman run --detach")
    command=${command/--network host/$*}
    bash -c "$command" >"$work/output" 2>&1 || {
        cat "$work/output"
        fail "$command"
    }
}

remove_container() {
    podman rm --force --time 2 "$container" >/dev/null 2>&1
}

of_container() {
    podman inspect --format "{{.State.$1}}" "$container"
}

ended() {
    [ "$(of_container Status)" = exited ]
}

#  published_is ADDRESSES: whether the database and the hosts file have these addresses and the log has reported them.
published_is() {
    local state
    state=$(podman volume inspect --format '{{.Mountpoint}}' addrpubd)
    [ "$(sqlite3 -readonly "$state/rdb.db" 'select value from current_values' 2>/dev/null)" = "$1" ] &&
        grep --quiet "^$1[[:space:]].*host1.example" "$state/hosts.d/addrpubd" 2>/dev/null &&
        bash -c "$(command_of "## Logs" "podman logs")" | grep --quiet "host1.example success,ipv6= $1\$"
}

check_run() {
    say "a container with the host's network"
    run_container --network host
    until_true "the addresses of the host" published_is "$host_address"
    expect "read-only" true "$(podman inspect --format '{{.HostConfig.ReadonlyRootfs}}' "$container")"
    row "podman exec addrpubd ./addrpubd -status"
    output_has "is runing"
}

#  The records of the host differ from what the resolver of the container answers, so the status is 1.
check_comparison() {
    say "the comparison of host and servers"
    states "| \`podman exec addrpubd addrpubd-check --connect\` |"
    expect "status" 1 "$(status_of podman exec "$container" addrpubd-check --connect)"
    expect "addresses of host and servers" 5 "$(grep --count --word-regexp "$host_address" "$work/output")"
}

#  Runs the command that Podman's unit runs at a boot.
check_boot() {
    say "the start at boot"
    local unit=/lib/systemd/system/podman-restart.service start
    states "systemctl enable podman-restart.service"
    [ -f "$unit" ] || fail "$unit is missing"
    start=$(sed -n 's/^ExecStart=\/usr\/bin\///p' "$unit")
    [ -n "$start" ] || fail "$unit starts nothing"
    run_container --network host --restart always
    until_true "the service" answers
    podman stop "$container" >/dev/null 2>&1
    until_true "the end of the container" ended
    LOGGING='' bash -c "$start" >/dev/null 2>&1 || fail "$start"
    until_true "the service after a boot" answers
    remove_container
}

check_removal() {
    say "the removal of a name"
    local title="## Retiring a name" removal hosts
    podman volume rm addrpubd >/dev/null # deletes the database, which also has the name host2.example
    run_container --network host --restart always
    until_true "the addresses of the host" published_is "$host_address"
    hosts=$(podman volume inspect --format '{{.Mountpoint}}' addrpubd)/hosts.d/addrpubd
    run_commands "$title" "podman rm"
    expect "containers" "" "$(podman ps --all --quiet)"
    removal=$(command_of "$title" "podman run --rm")
    expect "status while records remain" 1 "$(status_of bash -c "$removal")"
    output_has "delete $host_address host1.example"
    bash -c "$removal --yes" >"$work/output" 2>&1 || fail "$removal --yes"
    [ -f "$hosts" ] || fail "there is no hosts file"
    ! grep --quiet host1.example "$hosts" || fail "the name is still in the hosts file"
}

check_process() {
    say "its process"
    local status
    status=/proc/$(of_container Pid)/status
    expect "user and group" "10001 10001" "$(awk '/^[UG]id:/ { printf "%s%s", gap, $2; gap = " " }' "$status")"
    expect "process 1" 1 "$(awk '/^NSpid:/ { print $NF }' "$status")"
    expect "capabilities" "0000000000000000" "$(awk '/^Cap/ { print $2 }' "$status" | sort --unique)"
    expect "name" addrpubd "$(awk '/^Name:/ { print $2 }' "$status")"
}

#  Sends signals that have no effect on the service, then checks that the service still runs.
check_signals() {
    say "signals without a handler"
    local number
    states "SIGHUP, SIGQUIT and SIGUSR1 have no effect"
    for number in HUP QUIT USR1; do
        podman kill --signal "$number" "$container" >/dev/null
    done
    answers || fail "a signal ended the service"
}

#  milliseconds COMMAND...: runs the command silently and prints its duration in milliseconds.
milliseconds() {
    local begin
    begin=$(date +%s%3N)
    "$@" >/dev/null 2>&1
    echo $(($(date +%s%3N) - begin))
}

check_stop() {
    say "stop"
    local passed process
    process=$(of_container Pid)
    passed=$(milliseconds end_process "$process")
    expect_at_most "ms from SIGTERM to the end of the process" 1000 "$passed"
    say "  $passed ms from SIGTERM to the end of the process"
    until_true "the end of the container" ended
    expect "status" 0 "$(of_container ExitCode)"

    start_container
    until_true "the addresses after a start" published_is "$host_address"
    row "podman stop addrpubd"
    expect "status after podman stop" 0 "$(of_container ExitCode)" # 137 after SIGKILL

    #  The end of process 1 also ends the process of podman exec in the container, so podman exec may report an error.
    start_container
    states "| \`podman exec addrpubd ./addrpubd -stop\` |"
    podman exec "$container" ./addrpubd -stop >/dev/null 2>&1 || true
    until_true "the end after -stop" ended
    expect "status after -stop" 0 "$(of_container ExitCode)"
}

#  Starts the container again and waits for the service.
start_container() {
    podman start "$container" >"$work/output" 2>&1 || {
        cat "$work/output"
        fail "podman start"
    }
    until_true "the service" answers
}

end_process() {
    kill -TERM "$1"
    while [ -e "/proc/$1" ] && [ "$(awk '/^State:/ { print $2 }' "/proc/$1/status" 2>/dev/null)" != Z ]; do
        sleep 0.005
    done
}

answers() {
    [[ $(podman exec "$container" ./addrpubd -status 2>/dev/null) == *"is runing"* ]]
}

#  new_run BEFORE: whether the log has BEFORE + 1 starts.
new_run() {
    [ "$(starts)" -eq $(($1 + 1)) ]
}

#  Prints how often the service has started, according to the log.
starts() {
    podman logs "$container" 2>/dev/null | grep --count 'service started successfully' || true
}

check_restart() {
    say "restart, also after SIGKILL"
    local before
    start_container
    before=$(starts)
    sed -i 's/^hostname.*/hostname = host2.example/' "$settings"
    row "podman restart addrpubd"
    until_true "the start" new_run "$before"
    until_true "the new settings" logged 'host2.example success,ipv6='
    before=$(starts)
    podman kill --signal KILL "$container" >/dev/null
    until_true "the end" ended
    start_container
    until_true "the start after SIGKILL" new_run "$before"
    remove_container
    write_settings "$database" "$names"
}

#  logged TEXT: whether the log contains the text.
logged() {
    podman logs "$container" 2>/dev/null | grep --quiet --fixed-strings -- "$1"
}

check_secret() {
    say "a changed secret"
    run_container --network host
    podman secret rm rdbpswd >/dev/null
    echo secret-2 >rdbpswd.txt
    run_commands "## Settings and passwords" "podman secret create"
    podman restart "$container" >/dev/null 2>&1
    expect "the secret of the old container" secret-1 "$(secret)"
    remove_container
    run_container --network host
    expect "the secret of a new container" secret-2 "$(secret)"
    expect "its owner and mode" "10001 400" "$(stat --format '%u %a' "$(secret_file)")"
    remove_container
}

secret_file() {
    echo "/proc/$(of_container Pid)/root/run/secrets/rdbpswd"
}

secret() {
    cat "$(secret_file)"
}
