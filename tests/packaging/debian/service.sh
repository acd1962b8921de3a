#!/usr/bin/env bash
#  Sourced by scripts/package-test: the packaged service under systemd: its settings, its log, its start and its exit.

# shellcheck source=tests/packaging/debian/names.sh
source "$(dirname "${BASH_SOURCE[0]}")/names.sh"

#  Writes the settings: a host name, an HTTPS port, the log, and the lines from standard input.
configure() {
    {
        printf 'hostname = %s\ndnshttpsports = 443\nlogurl = stdout\n' "$name"
        cat
    } >"$work/settings"
    cat "$work/settings" >"$root$ini"
}

configure_files() {
    configure <<'END'
rdburl = sqlite:///var/lib/addrpubd/rdb.db
rdbuser = local
rdbpswd = local
dnsurl = hosts:///var/lib/addrpubd/hosts.d/addrpubd
dnsuser = local
dnspswd = local
END
}

#  property NAME: prints a property of the unit.
property() {
    inside systemctl show --property "$1" --value "$unit"
}

#  journal [TRANSPORT]: prints what the last run of the unit wrote into the journal, one entry per line. With TRANSPORT,
#  prints only entries of this transport of journald. journal_of_run RUN [TRANSPORT] does the same for another run.
journal() {
    journal_of_run "$(property InvocationID)" "$@"
}

journal_of_run() {
    inside journalctl --quiet --output cat "_SYSTEMD_INVOCATION_ID=$1" ${2:+"_TRANSPORT=$2"}
}

#  Prints systemd's messages about the unit since the boot.
said_by_systemd() {
    inside journalctl --quiet --output cat --boot "UNIT=$unit" _PID=1
}

in_journal() {
    grep -q -- "$1" <<<"$(journal)"
}

is_property() {
    [ "$(property "$1")" = "$2" ]
}

#  Resets the start limit, restarts the service and waits for its start.
start_service() {
    inside systemctl reset-failed "$unit"
    quietly systemctl restart "$unit"
    until_true "the service's start" in_journal '^Start success!$'
}

stop_service() {
    quietly systemctl stop "$unit"
    expect "the unit's state" inactive "$(property ActiveState)"
    expect "the unit's result" success "$(property Result)"
}

in_database() {
    [ "$(sqlite3 -readonly "$root/var/lib/addrpubd/rdb.db" \
        "select value from current_values where name = '$name'" 2>/dev/null)" = "$address" ]
}

in_hosts() {
    grep -qx "$address $name # addrpubd $name" "$root/var/lib/addrpubd/hosts.d/addrpubd" 2>/dev/null
}

forget_published() {
    rm -f "$root/var/lib/addrpubd/hosts.d/addrpubd" "$root"/var/lib/addrpubd/rdb.db*
}

wait_published() {
    until_true "the address in the database" in_database
    until_true "the address in the hosts file" in_hosts
}

check_start() {
    say "the service publishes into both files, as the user addrpubd"
    configure_files
    expect "the checker's verdict on the settings" "starts" "$(verdict)"
    start_service
    wait_published
    expect "the owner of the database" "addrpubd:addrpubd 644" "$(owner /var/lib/addrpubd/rdb.db)"
    expect "the owner of the process" addrpubd "$(inside stat --format %U "/proc/$(property MainPID)")"
    expect "-status" "addrpubd is runing!" "$(inside addrpubd -status | sed '/^$/d')"
    expect "-status of another user" "Access Error! Please use root account!" \
        "$(inside setpriv --reuid nobody --clear-groups addrpubd -status | sed '/^$/d')"
}

expected_journal() {
    cat <<END
[NOW] [inf]
	start addrpubd...
[NOW] [inf] rdburl: sqlite:///var/lib/addrpubd/rdb.db
[NOW] [inf] dnsurl: hosts:///var/lib/addrpubd/hosts.d/addrpubd
[NOW] [inf] addrpubd service started successfully.
Start success!
[NOW] [inf] connect rdb server sqlite:///var/lib/addrpubd/rdb.db success.
[NOW] [inf] connect dns server hosts:///var/lib/addrpubd/hosts.d/addrpubd success.
[NOW] [err] rdb_tagget $name failed, errcode 1011
[NOW] [inf] rdb_taginport $name success
[NOW] [inf] rdb_objputsnapshot $name success,ipv6= $address
[NOW] [dbg] send: {"request":"ws_dnsupdate","seqno":1,"item":{"name":"$name","ipv6s":["$address"],"ipv6":"$address","httpsports":[443]}}
[NOW] [dbg] recv: {"seqno":1,"code":0,"message":"ok"}
END
}

found_journal() {
    journal stdout | sed 's|^\[[0-9/]* [0-9:.]*\]|[NOW]|; s/ *$//; /^$/d'
}

#  The order of the two connections and of their first writes depends on the threads of the client library, so the lines
#  are sorted.
check_journal() {
    say "each line of the running service is a separate entry in the journal"
    until_true "the snapshot" in_journal 'rdb_objputsnapshot '
    until_true "the reply of the DNS server" in_journal 'recv: '
    expect "the first lines" "$(expected_journal | head -n 6)" "$(found_journal | head -n 6)"
    expect "all lines, sorted" "$(expected_journal | sort)" "$(found_journal | sort)"
}

check_library_reasons() {
    say "the client library's reasons reach the journal through /dev/log"
    configure <<'END'
rdburl = sqlite:///etc/addrpubd/rdb.db
rdbuser = local
rdbpswd = local
END
    start_service
    until_true "the reason" has_reason
    configure_files
}

has_reason() {
    grep -q 'rdbapi: .*/etc/addrpubd/rdb.db' <<<"$(journal syslog)"
}

#  Prints the microseconds between the last two changes of the unit's state, from time stamps that systemd recorded.
time_of_stop() {
    echo $(($(property InactiveEnterTimestampMonotonic) - $(property ActiveExitTimestampMonotonic)))
}

expect_fast_stop() {
    stop_service
    expect_at_most "the microseconds of the stop" 5000000 "$(time_of_stop)"
    expect "the last line of the log" "stop addrpubd service success." "$(journal stdout | tail -n 1 | sed 's/.*\] //')"
}

check_stop() {
    say "the service stops within 5 s, also while neither server answers, and -stop stops the unit's service"
    start_service
    wait_published
    expect_fast_stop
    start_mute_server
    configure <<'END'
rdburl = redis://[::1]:5300
rdbuser = any
rdbpswd = any
dnsurl = dns://[::1]:5300/example
dnsuser = any
dnspswd = c2VjcmV0
END
    start_service
    until_true "both connections at the mute server" has_connections 2
    expect_fast_stop
    quietly systemctl stop mute
    configure_files
    start_service
    expect "-stop" "addrpubd stoped gracefully!" "$(inside addrpubd -stop | sed '/^$/d' | tail -n 1)"
    until_true "the unit's end" is_property ActiveState inactive
    expect "the unit's result" success "$(property Result)"
}

#  A server that accepts connections and never answers.
start_mute_server() {
    quietly systemd-run --unit mute python3 -c "
import socket, signal
server = socket.create_server(('::1', 5300), family=socket.AF_INET6, backlog=64)
signal.pause()"
    until_true "the mute server" is_listening
}

is_listening() {
    grep -q ':14B4 0\{32\}:0000 0A ' <<<"$(inside cat /proc/net/tcp6)"
}

#  has_connections COUNT: whether clients have at least COUNT established connections to port 5300.
has_connections() {
    [ "$(inside cat /proc/net/tcp6 | grep -c ':[0-9A-F]* 0\{24\}01000000:14B4 01 ')" -ge "$1" ]
}

#  Prints the checker's result for the installed settings.
verdict() {
    local status=0
    inside addrpubd-check >"$work/command.log" 2>&1 || status=$?
    case "$status" in
        0 | 1) echo "starts" ;;
        2) echo "does not start" ;;
        *) cat "$work/command.log" ;;
    esac
}
