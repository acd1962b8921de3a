#!/bin/sh
#  store_order.sh COMPILER: builds service/events.cpp with COMPILER at each usual level of optimisation and runs
#  store_order.cpp with it. Exits with status 1 if, at some level, a connected flag is set before its mark is cleared.
set -eu
compiler=$1
root=$(CDPATH='' cd -- "$(dirname -- "$0")/../../.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

build() {
    "$compiler" -std=c++20 -I"$root/service" -I"$root/com/olklib3" -I"$root/rdbapi" "$@"
}

build -O2 -c "$root/com/olklib3/olk_log.cpp" -o "$work/log.o"
build -O2 -c "$root/com/olklib3/olk_allocator.cpp" -o "$work/allocator.o"
build -O0 -c "$root/tests/unit/service/store_order.cpp" -o "$work/watch.o"

failed=0
for level in -O1 -O2 -O3 -Os; do
    build "$level" -c "$root/service/events.cpp" -o "$work/events.o"
    build "$work/watch.o" "$work/events.o" "$work/log.o" "$work/allocator.o" -pthread -o "$work/store_order"
    echo "$compiler $level"
    "$work/store_order" || failed=1
done
exit "$failed"
