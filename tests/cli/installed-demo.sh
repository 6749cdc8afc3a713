#!/bin/sh
# An installed ztcli finds its plugin, host library and file service by itself:
# install into a temporary prefix, then run the demo from there with nothing in
# the environment pointing back at the build. The demo leaves nothing behind:
# its work folder is gone and its service stopped.
set -eu
build=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "installed-demo: $*" >&2; exit 1; }
cmake --install "$build" --prefix "$work/prefix" >/dev/null
test ! -e "$work/prefix/lib/ztserver/libzephyrtide.so" || fail "the stand-in host library was installed"
cd "$work"
mkdir tmp
out=$(env -u ZT_PLUGIN -u ZT_FILESERVICE -u LD_LIBRARY_PATH HOME="$work/home" TMPDIR="$work/tmp" \
    XDG_CONFIG_HOME="$work/config" XDG_CACHE_HOME="$work/cache" \
    "$work/prefix/bin/ztcli" demo --size-mb 1) || fail "demo failed: $out"
echo "$out"
echo "$out" | grep -q '^all 3 files came back identical (SHA-256)$' || fail "no verdict"
echo "$out" | grep -Eq '^archive\.bin +1048576 +[0-9a-f]{16} +identical$' || fail "no check line"
echo "$out" | grep -Eq '^upload +4\.0 MiB in [0-9.]+ s, [0-9.]+ [KM]iB/s$' || fail "no upload rate"
folder=$(echo "$out" | sed -n 's/^ztcli demo: working in //p')
test -n "$folder" && test ! -e "$folder" || fail "work folder '$folder' left behind"
service=$(echo "$out" | sed -n 's/^file service at //p')
test -n "$service" || fail "no service address"
! curl -s -o /dev/null --max-time 2 "$service/" || fail "the service at $service still answers"
