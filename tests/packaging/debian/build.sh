#!/usr/bin/env bash
#  Sourced by scripts/package-test: builds the package and examines its files.

# shellcheck source=tests/packaging/debian/names.sh
source "$(dirname "${BASH_SOURCE[0]}")/names.sh"

#  package prints the path of the package under test, next_package that of the package that replaces it in an upgrade.
package() {
    find "$work/first" -name 'addrpubd_*.deb'
}

next_package() {
    echo "$work/next.deb"
}

version_of() {
    dpkg-deb --field "$1" Version
}

copy_tree() {
    mkdir -p "$1"
    tar --create --directory "$top" --exclude=./build --exclude=./.git . | tar --extract --directory "$1"
}

#  build TREE OUTPUT: builds the package from the sources in TREE, with the results in OUTPUT.
build() {
    "$1/scripts/package" "$2" >"$work/build.log" 2>&1 || {
        cat "$work/build.log"
        fail "the build of $1"
    }
}

sums() {
    (cd "$1" && sha256sum -- *.deb *.tar.xz)
}

#  The second build does not use the compiler cache, because the cache could return the files of the first build.
build_twice() {
    say "building the package"
    copy_tree "$work/one"
    build "$work/one" "$work/first"
    say "building it again, in another folder, time zone and umask"
    copy_tree "$work/another/place/of/the/same/sources"
    (umask 077 && export TZ=Asia/Kolkata LC_ALL=C.UTF-8 CCACHE_DISABLE=1 &&
        build "$work/another/place/of/the/same/sources" "$work/second")
    expect "the two builds' sums" "$(sums "$work/first")" "$(sums "$work/second")"
    sums "$work/first"
}

check_with_lintian() {
    say "lintian: no errors, warnings or pedantic findings"
    local status=0
    lintian --allow-root --pedantic --fail-on error,warning,pedantic "$work"/first/*.changes >"$work/lintian.log" ||
        status=$?
    [ "$status" -eq 0 ] || {
        cat "$work/lintian.log"
        fail "lintian"
    }
}

check_hardening() {
    say "the programs of the package call checked functions of the C library"
    local file symbols
    dpkg-deb --extract "$(package)" "$work/files"
    for file in lib/addrpubd/addrpubd lib/addrpubd/librdbapix64.so sbin/addrpubd-check; do
        symbols=$(readelf --wide --dyn-syms "$work/files/usr/$file")
        [[ $symbols == *printf_chk@* ]] || fail "$file calls no checked function"
    done
}

#  Makes a package with the same programs, another version and other packaged settings.
make_next_version() {
    local tree=$work/next
    dpkg-deb --raw-extract "$(package)" "$tree"
    sed -i 's/^Version: .*/&+next/' "$tree/DEBIAN/control"
    printf '\n# Another line in the packaged settings.\n' >>"$tree/etc/addrpubd/addrpubd.ini"
    dpkg-deb --root-owner-group --build "$tree" "$(next_package)" >"$work/build.log"
}
