#!/usr/bin/env bash
#  Sourced by scripts/package-test: installs, upgrades, removes and purges the package while systemd runs.

# shellcheck source=tests/packaging/debian/names.sh
source "$(dirname "${BASH_SOURCE[0]}")/names.sh"

install_package() {
    cp "$1" "$root/var/tmp/addrpubd.deb"
    quietly dpkg --force-confold --install /var/tmp/addrpubd.deb
    rm "$root/var/tmp/addrpubd.deb"
}

installed_version() {
    inside dpkg-query --show addrpubd | cut -f 2
}

#  Prints the commands of the package for which bash-completion finds the completion.
completed_commands() {
    # shellcheck disable=SC2016 # the variables belong to the inner shell
    inside bash -c '. /usr/share/bash-completion/bash_completion
        for command in addrpubd addrpubd-check; do _completion_loader $command; complete -p $command; done' |
        sed -n 's/^complete .*-F _addrpubd //p' | paste -sd " "
}

#  Prints whether the timer of the metrics is started at boot and whether it is active.
timer_states() {
    echo "$(inside systemctl is-enabled "$timer") $(inside systemctl is-active "$timer")"
}

check_first_install() {
    say "install: settings, pid file and user"
    install_package "$(package)"
    expect "the version" "$(version_of "$(package)")" "$(installed_version)"
    expect "the settings' owner and mode" "root:addrpubd 640" "$(owner "$ini")"
    expect "the pid file's owner and mode" "addrpubd:addrpubd 600" "$(owner /run/addrpubd.pid)"
    expect "the user" "/var/lib/addrpubd:/usr/sbin/nologin" "$(inside getent passwd addrpubd | cut -d: -f6-)"
    expect "the unit's state at boot" enabled "$(inside systemctl is-enabled "$unit")"
    expect "the states of the metrics' timer" "disabled inactive" "$(timer_states)"
    quietly dpkg --verify addrpubd
    expect "the version line" "addrpubd addrpubd for linux ver" "$(inside addrpubd -ver | sed -n 's/ver .*/ver/p')"
    expect "the commands that bash-completion completes" "addrpubd addrpubd-check" "$(completed_commands)"
    say "the packaged settings: the service says that the host name is missing and ends"
    expect "the checker's verdict on them" "does not start" "$(verdict)"
    until_true "the service's end" is_property ActiveState inactive
    expect "the unit's result" success "$(property Result)"
    in_journal 'not config hostname in /usr/lib/addrpubd/addrpubd.ini' || fail "the journal lacks the reason"
}

check_upgrade_of_untouched_settings() {
    say "upgrade: unchanged settings are replaced and keep owner and mode"
    install_package "$(next_package)"
    expect "the version" "$(version_of "$(next_package)")" "$(installed_version)"
    tail -n 1 "$root$ini" | grep -q 'Another line' || fail "the settings are the old ones"
    expect "the settings' owner and mode" "root:addrpubd 640" "$(owner "$ini")"
}

#  The test gives the pid file of the running service the mode that an earlier version used.
check_upgrade_while_running() {
    say "upgrade of the running service: the new one runs; settings and data stay; the pid file gets its mode"
    configure_files
    start_service
    local pid
    pid=$(property MainPID)
    touch "$root/var/lib/addrpubd/kept"
    quietly chmod 644 /run/addrpubd.pid
    quietly systemctl enable --now "$timer"
    install_package "$(next_package)"
    expect "the version" "$(version_of "$(next_package)")" "$(installed_version)"
    until_true "the new service" runs_again_after "$pid"
    expect "its program" /usr/lib/addrpubd/addrpubd "$(inside readlink "/proc/$(property MainPID)/exe")"
    until_true "its start" in_journal '^Start success!$'
    cmp "$work/settings" "$root$ini" || fail "the settings have changed"
    expect "the settings' owner and mode" "root:addrpubd 640" "$(owner "$ini")"
    expect "the pid file's owner and mode" "addrpubd:addrpubd 600" "$(owner /run/addrpubd.pid)"
    [ -e "$root$ini.dpkg-dist" ] || fail "the next version's settings are not beside them"
    [ -e "$root/var/lib/addrpubd/kept" ] || fail "the data are gone"
    expect "the states of the metrics' timer" "enabled active" "$(timer_states)"
}

check_reboot() {
    say "the service ends normally at shutdown; after the boot it runs, with a new pid file"
    local run
    run=$(property InvocationID)
    power_off_machine
    boot_machine "$address"
    grep -q 'stop addrpubd service success' <<<"$(journal_of_run "$run")" || fail "the log lacks the service's end"
    expect "the unit's state" active "$(property ActiveState)"
    until_true "the service's start" in_journal '^Start success!$'
    expect "the pid file's owner and mode" "addrpubd:addrpubd 600" "$(owner /run/addrpubd.pid)"
}

check_removal() {
    say "remove: the running service and the metrics' timer end; settings and data stay"
    local pid
    pid=$(property MainPID)
    quietly dpkg --remove addrpubd
    ! inside test -e "/proc/$pid" || fail "the service runs"
    expect "whether the metrics' timer is active" inactive "$(inside systemctl is-active "$timer")"
    cmp "$work/settings" "$root$ini" || fail "the settings have changed"
    [ -e "$root/var/lib/addrpubd/kept" ] || fail "the data are gone"
    [ ! -e "$root/usr/lib/addrpubd" ] || fail "the program's folder is left"
}

expect_nothing_left() {
    ! inside test -e /run/addrpubd.pid || fail "the purge left the pid file"
    ! inside test -e /run/addrpubd || fail "the purge left the folder in /run"
    snapshot >"$work/after"
    diff "$work/before" "$work/after" >"$work/left" || {
        cat "$work/left"
        fail "the purge left files or changed some"
    }
    inside getent passwd addrpubd >/dev/null || fail "the user is gone"
}

check_purge() {
    say "purge: only the user remains"
    quietly dpkg --purge addrpubd
    expect_nothing_left
}

check_purge_of_passwords() {
    say "purge: the password files of the documentation are removed, other files are listed"
    install -d "$root$drop_ins"
    touch "$root/etc/addrpubd/rdbpswd" "$root/etc/addrpubd/dnspswd"
    touch "$root/etc/addrpubd/own.key" "$root$drop_ins/own.conf"
    quietly dpkg --purge addrpubd
    expect "the files that are named" "/etc/addrpubd/own.key $drop_ins/own.conf" \
        "$(sed -n 's/^addrpubd: not removed: //p' "$work/command.log" | paste -sd ' ')"
    rm "$root/etc/addrpubd/own.key" "$root$drop_ins/own.conf"
    rmdir "$root/etc/addrpubd" "$root$drop_ins"
    expect_nothing_left
}
