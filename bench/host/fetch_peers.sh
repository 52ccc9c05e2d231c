#!/bin/sh
# fetch_peers.sh DIR: unpacks Debian's i386 libcrypto and libsodium into DIR, for the measurements
# beside them. Package lists of its own, so that the machine's architectures and packages stay as
# they are. A failure is no error: the figures then stand alone.
set -u
dir=$1
mkdir -p "$dir/lists/partial" "$dir/debs" || exit 0
cd "$dir/debs" || exit 0
apt() {
    apt-get -qq -o APT::Architecture=i386 -o APT::Architectures=i386 -o APT::Sandbox::User=root \
        -o Dir::State::lists="$dir/lists" -o Dir::State::status=/dev/null \
        -o Dir::Cache::pkgcache= -o Dir::Cache::srcpkgcache= "$@"
}
# A list that does not arrive leaves those of the other sources.
apt update >"$dir/log" 2>&1
if apt download libssl3 libsodium23 >>"$dir/log" 2>&1; then
    for deb in *.deb; do dpkg-deb -x "$deb" "$dir"; done
else
    echo "no peers to measure beside: see $dir/log" >&2
fi
rm -rf "$dir/lists" "$dir/debs"
touch "$dir/done"
