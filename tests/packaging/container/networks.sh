#!/usr/bin/env bash
#  Sourced by the script `inside`. Tests a container with its own network, and several containers at once.

# shellcheck source=tests/packaging/container/names.sh
source "$(dirname "${BASH_SOURCE[0]}")/names.sh"

check_own_network() {
    say "a container with its own network"
    local address
    run_commands "## Network" "podman network create"
    podman volume rm addrpubd >/dev/null
    run_container --network six
    address=$(podman inspect --format '{{range .NetworkSettings.Networks}}{{.GlobalIPv6Address}}{{end}}' "$container")
    [[ $address == fd00:5::* ]] || fail "the container has the address \"$address\""
    until_true "the address of the container" published_is "$address"
}

#  Requires that the container of check_own_network still runs. Each container has its own pid file, so both services
#  run.
check_several() {
    say "two containers at once"
    podman run --detach --name other --network host --volume "$settings:/etc/addrpubd/addrpubd.ini:ro" \
        --secret rdbpswd,uid=10001,mode=0400 "$(image)" >/dev/null
    until_true "the second service" other_published
    answers || fail "the first service has ended"
    podman rm --force --time 2 other >/dev/null
    remove_container
}

other_published() {
    podman logs other 2>/dev/null | grep --quiet "host1.example success,ipv6= .*$host_address"
}
