#!/usr/bin/env bash
#  Sourced by scripts/package-test: a new Debian in a folder, and systemd as its process 1.
#
#      machine        the process of unshare(1); all processes in the machine's namespaces end with it
#      control_group  the host's control group below which systemd creates its own

# shellcheck source=tests/packaging/debian/names.sh
source "$(dirname "${BASH_SOURCE[0]}")/names.sh"
machine=""
control_group=""

make_debian() {
    say "debootstrap: a fresh Debian 12 (bookworm)"
    debootstrap --variant=minbase bookworm "$root" http://deb.debian.org/debian >"$work/debootstrap.log" 2>&1 || {
        tail -n 20 "$work/debootstrap.log"
        fail "debootstrap"
    }
    say "installing systemd, a Redis server, the programs of the tests, and what the package depends on"
    in_folder apt-get satisfy -q -y --no-install-recommends systemd-sysv redis-server python3 autopkgtest \
        bash-completion dpkg-dev iproute2 sqlite3 \
        "$(dpkg-deb --field "$(package)" Depends)" "$(dpkg-deb --field "$(package)" Recommends)"
    #  Debian's daily services would change files during the test.
    ln -s /dev/null "$root/etc/systemd/system/timers.target"
}

#  Runs a command in the folder, without systemd, but with the host's network. Prints the output only if it fails.
in_folder() {
    unshare --mount --pid --fork --kill-child --mount-proc="$root/proc" \
        chroot "$root" env DEBIAN_FRONTEND=noninteractive "$@" >"$work/command.log" 2>&1 || {
        cat "$work/command.log"
        fail "$*"
    }
}

#  boot_machine ADDRESS: boots the machine, whose interface lo gets this address.
boot_machine() {
    control_group=$(findmnt --noheadings --first-only --output TARGET --types cgroup2) ||
        fail "control groups version 2 are not mounted"
    control_group+=/addrpubd-package-test-$$
    mkdir -p "$control_group"
    "$helpers/boot" "$root" "$control_group" "$1" >"$work/boot.log" 2>&1 &
    machine=$!
    until_true "the end of the boot" booted
}

#  Whether the machine has booted. "degraded" means that a service of Debian itself has failed.
booted() {
    kill -0 "$machine" || {
        cat "$work/boot.log"
        fail "the machine has ended"
    }
    [[ $(inside systemctl is-system-running 2>/dev/null) =~ ^(running|degraded)$ ]]
}

#  Runs a command in the machine, as root.
inside() {
    nsenter --target "$(pgrep --parent "$machine")" --all -- \
        env --ignore-environment PATH=/usr/sbin:/usr/bin:/sbin:/bin DEBIAN_FRONTEND=noninteractive "$@"
}

#  Runs a command in the machine, as root, and prints its output only if it fails.
quietly() {
    inside "$@" >"$work/command.log" 2>&1 || {
        cat "$work/command.log"
        fail "$*"
    }
}

power_off_machine() {
    quietly systemctl --no-block --job-mode replace-irreversibly start poweroff.target
    wait "$machine" || true
    machine=""
    remove_control_group
}

#  Ends the machine at once, like a power failure. Does nothing if no machine runs.
destroy_machine() {
    if [ -n "$machine" ]; then
        kill -KILL "$machine" || true
        wait "$machine" 2>/dev/null || true
        machine=""
        remove_control_group
    fi
}

remove_control_group() {
    until_true "the end of the machine's processes" without_processes
    find "$control_group" -depth -type d -exec rmdir {} +
}

without_processes() {
    grep -q '^populated 0' "$control_group/cgroup.events"
}

#  Prints the owner, the group and the mode of a file. The names are those of the machine.
owner() {
    inside stat --format '%U:%G %a' "$1"
}

#  Prints the names, owners and modes of all files on the machine's disk, and the checksums of those in /etc, except
#  what Debian changes on its own. The service's user is kept after a purge, so the files of users and groups are left
#  out.
snapshot() {
    (
        cd "$root" || exit
        find . -xdev \( -path ./proc -o -path ./var/log -o -path ./var/cache -o -path ./var/lib/dpkg \
            -o -path ./var/lib/apt -o -path ./var/lib/redis -o -path './var/tmp/systemd-private-*' \) -prune \
            -o ! -regex '\./etc/\(passwd\|group\|shadow\|gshadow\)-?' \
            ! -path ./etc/.pwd.lock -printf '%p %y %U:%G %m\n' | sort
        find ./etc -type f ! -regex '\./etc/\(passwd\|group\|shadow\|gshadow\)-?' -exec sha256sum {} + | sort
    )
}
