#!/usr/bin/env bash
#  Sourced by scripts/package-test: the restrictions of the unit, as enforced by the kernel.

# shellcheck source=tests/packaging/debian/names.sh
source "$(dirname "${BASH_SOURCE[0]}")/names.sh"

status_of_service() {
    inside sed -n "s/^$1:[[:space:]]*//p" "/proc/$(property MainPID)/status"
}

check_process() {
    say "the service's process has no capability, cannot gain one, and is under the system call filter"
    start_service
    local set
    for set in CapInh CapPrm CapEff CapBnd CapAmb; do
        expect "$set" 0000000000000000 "$(status_of_service $set)"
    done
    expect "NoNewPrivs" 1 "$(status_of_service NoNewPrivs)"
    expect "Seccomp, 2 for a filter" 2 "$(status_of_service Seccomp)"
    expect "the file mode mask" 0022 "$(status_of_service Umask)"
    expect "the size of a core file" "0 0" \
        "$(inside sed -n 's/^Max core file size *\([0-9]*\) *\([0-9]*\).*/\1 \2/p' "/proc/$(property MainPID)/limits")"
    quietly systemd-analyze security --threshold=15 "$unit"
}

prepare_attempts() {
    local folder
    for folder in /etc /usr/local /var /var/lib /run /home; do
        quietly install -d -m 755 -o addrpubd -g addrpubd "$folder/attempts"
    done
    inside sh -c 'echo mark >/home/attempts/mark; echo mark >/tmp/mark'
    quietly mknod -m 666 /dev/attempts c 1 5
    quietly install -m 4755 /usr/bin/id /usr/local/bin/id-of-root
    quietly python3 -c "import ctypes; ctypes.CDLL(None).msgget(4711, 0o1666)"
    install -m 755 "$helpers/attempts" "$root/usr/local/bin/attempts"
}

remove_attempts() {
    quietly rm -r /etc/attempts /usr/local/attempts /var/attempts /var/lib/attempts /run/attempts /home/attempts \
        /tmp/mark /dev/attempts /usr/local/bin/id-of-root /usr/local/bin/attempts
}

attempts_outside() {
    inside setpriv --reuid addrpubd --regid addrpubd --clear-groups /usr/local/bin/attempts
}

#  Runs the attempts in the unit, before the service. The drop-in for this is removed afterwards.
attempts_in_unit() {
    runtime_drop_in 'ExecStartPre=/usr/local/bin/attempts'
    start_service
    journal stdout | grep '^attempt to'
    remove_runtime_drop_in
}

check_attempts() {
    say "actions that its user may do outside the unit are refused inside:"
    prepare_attempts
    attempts_outside >"$work/outside"
    attempts_in_unit >"$work/unit"
    expect_at_least "the number of attempts" 20 "$(wc -l <"$work/unit")"
    expect "attempts that are refused without the unit" "" "$(grep -v ': done$' "$work/outside")"
    expect "attempts that succeed in the unit" "" "$(grep -v ': refused$' "$work/unit")"
    cat "$work/unit"
    remove_attempts
}

check_sandbox() {
    check_process
    check_attempts
}
