#!/bin/sh
# journal_peer.sh ENTRIES: how fast journalctl verifies a sealed journal of that many entries:
# prints "SECONDS" or nothing where that cannot be measured. A journald of its own writes the
# journal in a mount namespace of its own, so the machine's logs are neither seen nor touched.
set -eu
entries=$1
journald=/lib/systemd/systemd-journald
[ "$(id -u)" = 0 ] && [ -x $journald ] && [ -s /etc/machine-id ] || exit 0
if [ -z "${VORN_IN_NAMESPACE:-}" ]; then
    VORN_IN_NAMESPACE=1 exec unshare --mount --propagation private "$0" "$entries"
fi
mount -t tmpfs none /var/log
mount -t tmpfs none /run
mkdir -p "/var/log/journal/$(cat /etc/machine-id)" /run/systemd/journal /run/systemd/journald.conf.d
printf '[Journal]\nStorage=persistent\nSeal=yes\nRateLimitBurst=0\nRateLimitIntervalSec=0\n' \
    >/run/systemd/journald.conf.d/peer.conf
key=$(journalctl --setup-keys --interval=15min --force 2>/dev/null | tail -n 1)
$journald >/dev/null 2>&1 &
daemon=$!
for _ in $(seq 100); do
    [ ! -S /run/systemd/journal/socket ] || break
    sleep 0.1
done
[ -S /run/systemd/journal/socket ] || { kill $daemon; exit 0; }
touch /run/systemd/journal/flushed
kill -USR1 $daemon
/usr/bin/python3 - "$entries" <<'PYTHON'
import socket
import sys

socket_ = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
for number in range(int(sys.argv[1])):
    text = f"MESSAGE=write notes.txt ({number % 999} bytes) pid=2\nSYSLOG_IDENTIFIER=vofs\n"
    socket_.sendto(text.encode(), "/run/systemd/journal/socket")
PYTHON
sleep 1
kill -TERM $daemon
wait $daemon 2>/dev/null || true
start=$(date +%s%N)
journalctl --verify --verify-key="$key" -D /var/log/journal >/run/verified 2>&1
end=$(date +%s%N)
grep -q PASS /run/verified || exit 0
awk -v ns=$((end - start)) 'BEGIN { printf "%.3f\n", ns / 1e9 }'
