#!/usr/bin/env bash
#  Sourced by scripts/package-test: instances of addrpubd@.service. Each has its own name, settings and pid file.

# shellcheck source=tests/packaging/debian/names.sh
source "$(dirname "${BASH_SOURCE[0]}")/names.sh"

instance_unit() {
    echo "addrpubd@$1.service"
}

instance_property() {
    inside systemctl show --property "$2" --value "$(instance_unit "$1")"
}

is_instance_property() {
    [ "$(instance_property "$1" "$2")" = "$3" ]
}

#  Prints what the last run of an instance wrote to standard output.
instance_journal() {
    inside journalctl --quiet --output cat --unit "$(instance_unit "$1")" _TRANSPORT=stdout \
        "_SYSTEMD_INVOCATION_ID=$(instance_property "$1" InvocationID)"
}

instance_has_logged() {
    grep -q -- "$2" <<<"$(instance_journal "$1")"
}

#  write_instance NAME: writes the settings of the instance. Each instance has its own database and hosts file.
write_instance() {
    quietly install -o root -g addrpubd -m 640 /dev/stdin "/etc/addrpubd/$1.ini" <<END
hostname = $1.example
logurl = stdout
rdburl = sqlite:///var/lib/addrpubd/$1.db
rdbuser = local
rdbpswd = local
dnsurl = hosts:///var/lib/addrpubd/hosts.d/$1
dnsuser = local
dnspswd = local
END
}

#  published NAME ADDRESSES: whether the instance, and no other service, has written these addresses, separated by
#  commas, to its database and its hosts file.
published() {
    local database=$root/var/lib/addrpubd/$1.db hosts=$root/var/lib/addrpubd/hosts.d/$1
    [ "$(sqlite3 -readonly "$database" 'select name, value from current_values' 2>/dev/null)" = "$1.example|$2" ] &&
        [ "$(cut -d ' ' -f 1 "$hosts" 2>/dev/null | sort)" = "$(tr , '\n' <<<"$2" | sort)" ] &&
        [ "$(cut -d ' ' -f 2- "$hosts" | sort -u)" = "$1.example # addrpubd $1.example" ]
}

#  Whether addrpubd-check --status reports that both files have the addresses of the instance.
reports_published() {
    [ "$(inside addrpubd-check --status "$1" | grep -c "^ok .*/$1[.:].* published $1.example $address ")" -eq 2 ]
}

check_two_instances() {
    say "addrpubd@.service: two instances and addrpubd.service publish at the same time"
    local instance pid
    configure_files
    forget_published
    start_service
    for instance in one two; do
        write_instance "$instance"
        quietly systemctl enable --now "$(instance_unit "$instance")"
    done
    wait_published
    for instance in one two; do
        until_true "the addresses of $instance" published "$instance" "$address"
        pid=$(instance_property "$instance" MainPID)
        expect "the pid file of $instance" "$pid" "$(inside cat "/run/addrpubd/$instance/addrpubd.pid")"
        expect "its owner and mode" "addrpubd:addrpubd 600" "$(owner "/run/addrpubd/$instance/addrpubd.pid")"
        expect "the owner of the process" addrpubd "$(inside stat --format %U "/proc/$pid")"
        until_true "the log of $instance" instance_has_logged "$instance" 'recv: '
        expect "names in the log of $instance" "$instance.example" \
            "$(instance_journal "$instance" | grep -o '[a-z0-9]*\.example' | sort -u)"
        until_true "the state of $instance" reports_published "$instance"
        quietly systemd-analyze security --threshold=15 "$(instance_unit "$instance")"
    done
    expect "the identifiers in the journal" "addrpubd@one addrpubd@two" \
        "$(inside journalctl --quiet --field SYSLOG_IDENTIFIER | grep '^addrpubd@' | sort | paste -sd ' ')"
}

#  While addrpubd.service does not run, its pid file has no lock, although instances run.
check_stop_of_one() {
    say "addrpubd@.service: a stop of one instance or of addrpubd.service does not affect the others"
    local pid
    pid=$(instance_property two MainPID)
    quietly systemctl stop addrpubd@one
    until_true "the last line of its log" instance_has_logged one 'stop addrpubd service success.$'
    expect "its state" inactive "$(instance_property one ActiveState)"
    ! inside test -e /run/addrpubd/one || fail "its folder in /run is left"
    expect "-status of addrpubd.service" "addrpubd is runing!" "$(inside addrpubd -status | sed '/^$/d')"
    stop_service
    expect "-status while only an instance runs" "addrpubd not run!" "$(inside addrpubd -status | sed '/^$/d')"
    quietly ip -6 address add 2001:db8::11/64 dev lo nodad
    until_true "the new address" published two "2001:db8::11,$address"
    expect "the process of the other instance" "$pid" "$(instance_property two MainPID)"
    expect "its pid file" "$pid" "$(inside cat /run/addrpubd/two/addrpubd.pid)"
    quietly ip -6 address del 2001:db8::11/64 dev lo
    until_true "the lost address" published two "$address"
    say "addrpubd@.service: a stopped instance starts again and publishes the change"
    quietly rm -f /var/lib/addrpubd/hosts.d/one
    quietly systemctl restart addrpubd@one
    until_true "the addresses" published one "$address"
}

check_instance_settings() {
    say "addrpubd@.service: without its settings an instance does not start, and systemd names the file"
    ! inside systemctl start addrpubd@none 2>/dev/null || fail "the instance has started"
    grep -q '^Assertion failed for .* settings /etc/addrpubd/none.ini\.$' \
        <<<"$(inside journalctl --quiet --output cat --unit addrpubd@none)" || fail "the journal does not name the file"
    say "check-settings.conf: for all instances; each one's own settings are checked"
    quietly install -D -m 644 "$examples/check-settings.conf" "${drop_ins/addrpubd/addrpubd@}/check-settings.conf"
    quietly systemctl daemon-reload
    echo 'hostname = a:b' | inside tee -a /etc/addrpubd/two.ini >/dev/null
    quietly systemctl restart addrpubd@one
    ! inside systemctl restart addrpubd@two 2>/dev/null || fail "the instance has started with wrong settings"
    expect "the state of the other instance" active "$(instance_property one ActiveState)"
    until_true "the checker's message" instance_has_logged two '^/etc/addrpubd/addrpubd.ini:9: error: '
    quietly rm -r /etc/systemd/system/addrpubd@.service.d
    quietly systemctl daemon-reload
    write_instance two
    quietly systemctl restart addrpubd@two
    until_true "the addresses" published two "$address"
}

check_instance_credentials() {
    say "credentials.conf: an instance gets its own password"
    set_password first-secret
    quietly mv /etc/addrpubd/rdbpswd /etc/addrpubd/one.rdbpswd
    quietly install -D -m 644 "$examples/credentials.conf" /etc/systemd/system/addrpubd@one.service.d/credentials.conf
    sed -i '/dnspswd/d; s|:/etc/addrpubd/rdbpswd|:/etc/addrpubd/one.rdbpswd|' \
        "$root/etc/systemd/system/addrpubd@one.service.d/credentials.conf"
    quietly systemctl daemon-reload
    sed -i "s|^hostname.*|hostname = $name|; s|^rdburl.*|rdburl = redis://[::1]|; s|^rdbuser.*|rdbuser = host1|
        s|^rdbpswd.*|rdbpswd = file:/run/credentials/addrpubd@one.service/rdbpswd|" "$root/etc/addrpubd/one.ini"
    quietly systemctl restart addrpubd@one
    until_true "the address in Redis" in_redis
    quietly rm -r /etc/systemd/system/addrpubd@one.service.d /etc/addrpubd/one.rdbpswd
    quietly systemctl daemon-reload
    write_instance one
    quietly systemctl restart addrpubd@one
}

instance_runs_again_after() {
    is_instance_property "$1" ActiveState active && ! is_instance_property "$1" MainPID "$2"
}

check_upgrade_and_removal_with_instances() {
    say "upgrade: instances that run are restarted, others are not started"
    local one
    one=$(instance_property one MainPID)
    quietly systemctl stop addrpubd@two
    install_package "$(package)"
    until_true "the new process" instance_runs_again_after one "$one"
    expect "the state of the other instance" inactive "$(instance_property two ActiveState)"
    say "purge: instances end, and their files are listed"
    one=$(instance_property one MainPID)
    quietly dpkg --purge addrpubd
    ! inside test -e "/proc/$one" || fail "the instance runs"
    expect "the files that are named" "/etc/addrpubd/one.ini /etc/addrpubd/two.ini \
/etc/systemd/system/multi-user.target.wants/addrpubd@one.service \
/etc/systemd/system/multi-user.target.wants/addrpubd@two.service" \
        "$(sed -n 's/^addrpubd: not removed: //p' "$work/command.log" | paste -sd ' ')"
    rm -r "$root"/etc/addrpubd "$root"/etc/systemd/system/multi-user.target.wants/addrpubd@*
    quietly systemctl daemon-reload
    expect_nothing_left
}

check_instances() {
    check_two_instances
    check_stop_of_one
    check_instance_settings
    check_instance_credentials
    check_upgrade_and_removal_with_instances
}
