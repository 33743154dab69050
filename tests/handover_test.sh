#!/usr/bin/env bash
# A service manager listens and hands its socket to file_server: who connected before the server ran
# is served, and the file outlives it.
set -euo pipefail
client=$1/file_client server=$1/file_server
tmp=$(mktemp -d /tmp/comm-handover.XXXXXX)
socket=$tmp/socket
# shellcheck disable=SC2046  # The ids are words.
trap 'kill $(jobs -p) 2> /dev/null || true; rm -rf "$tmp"' EXIT

! "$server" 2> "$tmp/refused"
grep -q "no socket was handed over: Bad file descriptor" "$tmp/refused"

systemd-socket-activate --seqpacket --listen="$socket" "$server" > "$tmp/log" 2>&1 &
# The file is there before anybody listens.
until "$client" "$socket" "$server" > "$tmp/client" 2> "$tmp/errors"; do sleep 0.1; done
grep -q "cksum $(cksum < "$server" | cut -d ' ' -f 1)$" "$tmp/client"
grep -qx "listens on $socket" "$tmp/log"
kill %1
wait %1
[ -S "$socket" ]
