#!/usr/bin/env bash
#  Sourced by the checks of the image: names that several of them use.

export work=${ADDRPUBD_WORK:?}                         # temporary folder
export page=${ADDRPUBD_PAGE:?}                         # the page whose commands are run
export container=addrpubd                              # the name of the container in the page
export host_address=2001:db8::10                       # the address of the private machine
export settings=/srv/addrpubd/addrpubd.ini             # the ini file, as in the page
export database=sqlite:///var/lib/addrpubd/rdb.db      # the rdburl in most tests
export names=hosts:///var/lib/addrpubd/hosts.d/addrpubd # the dnsurl
export unreachable=redis://127.0.0.1:1                 # the url of a server that does not exist
