#!/usr/bin/env bash
#  Sourced by the script `inside`. Checks the files of the image, and the checker in it.

# shellcheck source=tests/packaging/container/names.sh
source "$(dirname "${BASH_SOURCE[0]}")/names.sh"

#  write_settings RDBURL DNSURL: writes an ini file with these urls, and installs it with the command of the page.
write_settings() {
    cat >addrpubd.ini <<INI
hostname = host1.example
logurl = stdout
rdburl = $1
rdbuser = local
$(sed -n 's/^    \(rdbpswd = .*\)/\1/p' "$page")
dnsurl = $2
dnsuser = local
dnspswd = local
INI
    run_commands "## Settings and passwords" "install -D"
}

check_files() {
    say "the files of the image"
    local root packed megabytes
    root=$(podman image mount "$(image)")
    expect "programs of Debian" "./usr/bin/stdbuf" "$(cd "$root" && find ./usr/bin -type f)"
    expect "set-id programs" "" "$(find "$root" -perm /6000)"
    expect "files that user 10001 may write" "./run/addrpubd
./run/addrpubd.pid
./var/lib/addrpubd
./var/lib/addrpubd/hosts.d" "$(cd "$root" && find . -uid 10001 | sort)"
    grep --quiet '^Package: libsqlite3-0$' "$root/var/lib/dpkg/status" || fail "the list of packages is incomplete"
    #  Updates of Debian may change the size a little.
    megabytes=$(du --summarize --apparent-size --block-size=1MB "$root" | cut -f1)
    packed=$(du --summarize --apparent-size --block-size=1MB "$work/build/image" | cut -f1)
    states "about 34 MB of files, 15 MB packed"
    expect_at_most "MB of files" 35 "$megabytes"
    expect_at_most "MB packed" 17 "$packed"
    check_certificates "$root"
    podman image unmount "$(image)" >/dev/null
}

#  The server presents the certificate of a public authority as its own. The client library must refuse this
#  certificate, but not because the authority is unknown.
check_certificates() {
    local authority=/usr/share/ca-certificates/mozilla/ISRG_Root_X1.crt port
    [ -e "$authority" ] || fail "ca-certificates is not installed"
    coproc /usr/bin/python3 -B "$(dirname "${BASH_SOURCE[0]}")/authority_server.py" "$authority"
    read -r port <&"${COPROC[0]}"
    printf '%s\n' "hostname = host1.example" "rdburl = rediss://127.0.0.1:$port" "rdbuser = a" "rdbpswd = b" \
        >"$work/authority.ini"
    podman run --rm --network host --volume "$work/authority.ini:/authority.ini:ro" \
        --entrypoint addrpubd-check "$(image)" --connect /authority.ini >"$work/output" 2>&1 || true
    output_has "failed  the server's certificate is not for servers"
}

check_without_settings() {
    say "without settings, and the version"
    expect "status without a host name" 0 "$(status_of podman run --rm "$(image)")"
    output_has hostname
    row "podman run --rm $(image) -ver"
    output_has "$(image | cut --delimiter=: --fields=2)"
}

make_settings() {
    echo secret-1 >rdbpswd.txt
    write_settings "$database" "$names"
    expect "owner and mode of the ini file" "0:10001 640" "$(stat --format '%u:%g %a' "$settings")"
    run_commands "## Settings and passwords" "podman secret create"
}

check_settings_check() {
    say "the check of the settings"
    run_commands "## Settings and passwords" "addrpubd-check"
    output_has 'it connects to the rdb server'
}
