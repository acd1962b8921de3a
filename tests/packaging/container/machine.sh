#!/usr/bin/env bash
#  Sourced by the script `inside`. Makes the private machine on which the containers run.
#
#  Podman and the commands of the page write to some folders of the machine. Folders in memory replace these, so the
#  folders of the host do not change.

# shellcheck source=tests/packaging/container/names.sh
source "$(dirname "${BASH_SOURCE[0]}")/names.sh"

make_machine() {
    local folder
    for folder in /run /srv /etc/cni/net.d /var/lib/cni; do
        mkdir -p "$folder"
        mount -t tmpfs -o mode=755 tmpfs "$folder"
    done
    make_devices
    #  crun needs a mount that has only control groups of version 2. Limits of containers are switched off, because they
    #  need more rights than the rest of these tests.
    mount -t cgroup2 cgroup2 /sys/fs/cgroup
    cat >"$work/containers.conf" <<CONF
[containers]
cgroups = "disabled"
pids_limit = 0
[engine]
cgroup_manager = "cgroupfs"
events_logger = "file"
runtime = "crun"
CONF
    cat >"$work/storage.conf" <<CONF
[storage]
driver = "overlay"
graphroot = "$work/storage"
runroot = "/run/storage"
CONF
    export CONTAINERS_CONF=$work/containers.conf CONTAINERS_STORAGE_CONF=$work/storage.conf
    ip link set lo up
    ip -6 address add "$host_address" dev lo nodad
}

#  Makes a /dev without the host's /dev/log.
make_devices() {
    local device
    mkdir /run/dev
    mount -t tmpfs -o mode=755 tmpfs /run/dev
    mkdir /run/dev/pts /run/dev/shm
    for device in null zero full random urandom tty fuse net; do
        [ -c "/dev/$device" ] || continue
        touch "/run/dev/$device"
        mount --bind "/dev/$device" "/run/dev/$device"
    done
    mount --bind /dev/pts /run/dev/pts
    ln -s /proc/self/fd /run/dev/fd
    ln -s pts/ptmx /run/dev/ptmx
    mount --move /run/dev /dev
}
