# Shared by the scripts (sourced, not run): the checkout's root (made the working
# folder), step lines and the build folders.
#
# The plain build folder (KV_BUILD_DIR, default build/) is configured the same way by every
# script, so that one script never throws away another's CMake cache or rebuilds it from
# scratch: GCC, RelWithDebInfo, tests and benchmarks on, warnings as errors under CI.

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
jobs=$(nproc)
plain_build=${KV_BUILD_DIR:-$root/build}

werror=OFF
if [ "${CI:-}" = "true" ] || [ "${KV_WERROR:-}" = "ON" ]; then
  werror=ON
fi

step() { printf '\n==== %s\n' "$*"; }

# configure DIR [CMAKE ARGS...]: configures a build folder (quietly; cheap when nothing
# changed).
configure() {
  local dir=$1
  shift
  cmake -S "$root" -B "$dir" -G Ninja -DKV_WERROR=$werror "$@" >/dev/null
}

# build_plain [TARGETS...]: configures the plain build folder and builds the targets
# (everything when none are given).
build_plain() {
  configure "$plain_build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_C_COMPILER=gcc -DCMAKE_CXX_COMPILER=g++
  if [ $# -gt 0 ]; then
    cmake --build "$plain_build" -j "$jobs" --target "$@"
  else
    cmake --build "$plain_build" -j "$jobs"
  fi
}
