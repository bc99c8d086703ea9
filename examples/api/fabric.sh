#!/bin/sh
# A client of fxmd's API with curl alone: the state of the fabric, its cards in error, and a register that is written and read.
#   fabric.sh CARD [SOCKET]
set -eu
card=${1:?the id of a card, such as 02:00:00:00:10:00}
socket=${2:-/run/fxm/fxmd.sock}
fxmd() { curl --silent --show-error --fail-with-body --unix-socket "$socket" "$@"; }

fxmd http://localhost/v1/status
fxmd 'http://localhost/v1/cards?state=error&fields=id,int_vector'
fxmd -X PUT -H 'Content-Type: application/json' -d '{"value": 51966, "verify": true}' \
    "http://localhost/v1/cards/$card/registers/0x1000"
fxmd "http://localhost/v1/cards/$card/registers/0x1000"
