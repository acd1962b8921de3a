#!/usr/bin/env bash
#  Sourced by scripts/package-test and by the files *.sh of this folder, except checks.sh: names that they share.
# shellcheck disable=SC2034 # the files that source this one use them

work=${work:?a folder for everything that the test makes}
helpers=$(dirname "${BASH_SOURCE[0]}")
top=$(realpath "$helpers/../../..")

root=$work/debian # the machine's disk
address=2001:db8::10
name=host1.example

unit=addrpubd.service
timer=addrpubd-metrics.timer
ini=/etc/addrpubd/addrpubd.ini
drop_ins=/etc/systemd/system/addrpubd.service.d
examples=/usr/share/doc/addrpubd/examples
