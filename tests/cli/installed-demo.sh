#!/bin/sh
# An installed ztcli finds its plugin, host library and file service by itself:
# install into a temporary prefix, then run the demo from there with nothing in
# the environment pointing back at the build.
set -eu
build=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >/dev/null
test ! -e "$work/prefix/lib/ztserver/libzephyrtide.so" # the stand-in shadows nothing
cd "$work"
env -u ZT_PLUGIN -u ZT_FILESERVICE -u LD_LIBRARY_PATH HOME="$work/home" \
    XDG_CONFIG_HOME="$work/config" XDG_CACHE_HOME="$work/cache" \
    "$work/prefix/bin/ztcli" demo --size-mb 1
