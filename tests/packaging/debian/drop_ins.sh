#!/usr/bin/env bash
#  Sourced by scripts/package-test: the example drop-ins of the package, and the test's own drop-ins.

# shellcheck source=tests/packaging/debian/names.sh
source "$(dirname "${BASH_SOURCE[0]}")/names.sh"

#  runtime_drop_in LINE: adds a line to the section [Service] of the unit.
runtime_drop_in() {
    quietly install -d /run/systemd/system/addrpubd.service.d
    printf '[Service]\n%s\n' "$1" | inside tee /run/systemd/system/addrpubd.service.d/test.conf >/dev/null
    quietly systemctl daemon-reload
}

remove_runtime_drop_in() {
    quietly rm /run/systemd/system/addrpubd.service.d/test.conf
    quietly systemctl daemon-reload
}

#  install_drop_in EXAMPLE [UNUSED]: installs an example in the way that the example describes, without the lines that
#  contain UNUSED.
install_drop_in() {
    quietly install -D -m 644 "$examples/$1" "$drop_ins/$1"
    [ -z "${2:-}" ] || sed -i "/$2/d" "$root$drop_ins/$1"
    quietly systemctl daemon-reload
}

remove_drop_ins() {
    quietly rm -r "$drop_ins"
    quietly systemctl daemon-reload
}

#  set_password PASSWORD: sets the only password of user host1 in Debian's Redis server, deletes the value of the host
#  there, and writes the password file.
set_password() {
    quietly redis-cli ACL SETUSER host1 reset on ">$1" '~*' '&*' '+@all'
    quietly redis-cli DEL "rdb:value:{host1.example}"
    echo "$1" | inside install -m 600 /dev/stdin /etc/addrpubd/rdbpswd
}

in_redis() {
    [ "$(inside redis-cli HGET "rdb:value:{$name}" value)" = "$address" ]
}

expect_password_hidden() {
    local pid place
    pid=$(property MainPID)
    for place in cmdline environ; do
        ! inside grep -q "$1" "/proc/$pid/$place" || fail "the password is in $place"
    done
    ! in_journal "$1" || fail "the password is in the journal"
}

#  The credential exists only inside the unit, where the checker, like the service, can read it.
expect_credential_checked() {
    local reason="/run/credentials/$unit/rdbpswd.* cannot be read"
    grep -q "$reason" <<<"$(inside setpriv --reuid nobody --regid addrpubd --clear-groups addrpubd-check "$ini")" ||
        fail "the checker does not report that the credential cannot be read outside the unit"
    ! in_journal "$reason" || fail "the checker in the unit cannot read the credential"
}

check_credentials() {
    say "credentials.conf: the service gets the password from a file that only root can read"
    configure <<'END'
rdburl = redis://[::1]
rdbuser = host1
rdbpswd = file:/run/credentials/addrpubd.service/rdbpswd
END
    install_drop_in credentials.conf dnspswd
    install_drop_in check-settings.conf
    set_password first-secret
    expect "the password file" "root:root 600" "$(owner /etc/addrpubd/rdbpswd)"
    start_service
    until_true "the address in Redis" in_redis
    expect_password_hidden first-secret
    expect_credential_checked
    say "credentials.conf: a new password takes effect after a restart, and without the file the start fails"
    set_password second-secret
    start_service
    until_true "the address in Redis" in_redis
    quietly rm /etc/addrpubd/rdbpswd
    ! inside systemctl restart "$unit" 2>/dev/null || fail "the service has started without its credential"
    expect "the unit's state" failed "$(property ActiveState)"
    remove_drop_ins
    configure_files
}

#  expect_refusal LINE: checks that the current settings make the start fail at once, with this line in the journal.
expect_refusal() {
    inside systemctl reset-failed "$unit"
    ! inside systemctl restart "$unit" 2>/dev/null || fail "the service has started"
    expect "the unit's state" failed "$(property ActiveState)"
    in_journal "$1" || fail "the journal lacks the checker's message: $(journal)"
}

check_settings_check() {
    say "check-settings.conf: settings that prevent the start make the unit fail with the checker's messages"
    install_drop_in check-settings.conf
    sed -i 's/^hostname = .*/hostname = a:b/' "$root$ini"
    expect_refusal "^$ini:1: error: "
    echo "logurl = stdout" >"$root$ini"
    expect_refusal "error: .*hostname"
    say "check-settings.conf: warnings are in the journal, and the service starts"
    configure_files
    echo "unknown = 1" >>"$root$ini"
    start_service
    in_journal ": warning: .*unknown" || fail "the journal lacks the warning: $(journal)"
    remove_drop_ins
    configure_files
}
