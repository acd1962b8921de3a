#!/usr/bin/env bash
#  Sourced by scripts/package-test: the tests of the source package, run by autopkgtest in the machine.

# shellcheck source=tests/packaging/debian/names.sh
source "$(dirname "${BASH_SOURCE[0]}")/names.sh"

#  autopkgtest runs the tests directly in the machine and not in a container. So the restriction isolation-container,
#  which a test declares, must be ignored.
check_source_package_tests() {
    say "autopkgtest: the tests of the source package pass"
    local folder=$root/var/tmp/source
    mkdir "$folder"
    cp -r "$top/packaging/debian" "$folder/debian"
    cp "$(package)" "$root/var/tmp/addrpubd.deb"
    quietly autopkgtest --ignore-restrictions isolation-container --no-built-binaries --summary-file /var/tmp/summary \
        /var/tmp/addrpubd.deb /var/tmp/source/ -- null
    expect "the results" "$(sed -n 's/^Tests: \(.*\)/\1 PASS/p' "$folder/debian/tests/control" | sort)" \
        "$(awk '{ print $1, $2 }' "$root/var/tmp/summary" | sort)"
    sed 's/^/    /' "$root/var/tmp/summary"
}
