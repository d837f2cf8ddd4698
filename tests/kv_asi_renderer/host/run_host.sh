#!/usr/bin/env bash
# Installs the host interface of a build into a temporary prefix, checks that every
# installed header compiles on its own, builds host_main.cpp from the installed files
# alone (pkg-config flags, no renderer library), runs it against the element stub and
# compares its output with host_expected.txt (registration times masked).
#
#   run_host.sh <build dir> <c++ compiler> <element stub module> <host source> [compiler flags...]
set -euo pipefail
build=$1
cxx=$2
stub=$3
src=$4
shift 4

prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT

cmake --install "$build" --prefix "$prefix" --component kv_asi_renderer_host >/dev/null
export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
cflags=$(pkg-config --cflags kv_asi_renderer)
libs=$(pkg-config --libs kv_asi_renderer)

headers=$(cd "$prefix/include" && find kv_asi_renderer -name '*.h' | sort)
[ -n "$headers" ] || { echo "no headers installed"; exit 1; }
for h in $headers; do
  echo "#include <$h>" | "$cxx" -std=c++17 -Wall -Wextra -Werror $cflags "$@" -fsyntax-only -x c++ - ||
    { echo "installed header $h does not compile on its own"; exit 1; }
done

# The source sits outside the installed tree, so only the installed headers can be found.
"$cxx" -std=c++17 -Wall -Wextra -Werror $cflags "$@" "$src" -o "$prefix/host" $libs -ldl
"$prefix/host" "$stub" >"$prefix/out.txt"
sed -E 's/reg_time=[0-9]{2}\.[0-9]{2}\.[0-9]{4} [0-9]{2}:[0-9]{2}:[0-9]{2},/reg_time=dd.MM.yyyy hh:mm:ss,/' \
  "$prefix/out.txt" | diff -u "$(dirname "$0")/host_expected.txt" -
