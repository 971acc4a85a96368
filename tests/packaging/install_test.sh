#!/usr/bin/env bash
# Installs the built tree into a temporary prefix and builds and runs a host program against it,
# once through pkg-config and once through the CMake package, as a program outside this project
# would. Nothing is written outside the temporary folder.
# Usage: install_test.sh BUILD_DIR CXX [EXTRA_FLAGS]   (EXTRA_FLAGS: e.g. the sanitizer flags the
# library was built with, which its host programs need too)
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
build="$(cd "${1:?usage: install_test.sh BUILD_DIR CXX [FLAGS]}" && pwd)"
cxx="${2:?usage: install_test.sh BUILD_DIR CXX [FLAGS]}"
read -r -a flags <<< "${3:-}"
work="$(mktemp -d "${TMPDIR:-/tmp}/gatewise-install-XXXXXX")"
trap 'rm -rf "$work"' EXIT
export GATEWISE_ROOT="$work/root"
mkdir -p "$GATEWISE_ROOT"
expected="07:05:00 1 hour and 1 second"
fail() { echo "install_test: $*" >&2; exit 1; }

prefix="$work/prefix"
cmake --install "$build" --prefix "$prefix" > "$work/install.log" || { cat "$work/install.log"; fail "install failed"; }

# pkg-config: the .pc file names the prefix it was installed to, wherever that is.
pc="$(find "$prefix" -name gatewise.pc -print -quit)"
[ -n "$pc" ] || fail "no gatewise.pc below $prefix"
export PKG_CONFIG_PATH="$(dirname "$pc")"
unset PKG_CONFIG_LIBDIR PKG_CONFIG_SYSROOT_DIR
cflags="$(pkg-config --cflags gatewise)"
libs="$(pkg-config --libs gatewise)"
libdir="$(pkg-config --variable=libdir gatewise)"
[ "$(cd "$libdir" && pwd -P)" = "$(cd "$(dirname "$(dirname "$pc")")" && pwd -P)" ] \
  || fail "pkg-config libdir $libdir is not where the library was installed"
case "$cflags" in *"$prefix"*) ;; *) fail "pkg-config cflags name no path below $prefix: $cflags" ;; esac
# shellcheck disable=SC2086
"$cxx" "${flags[@]}" $cflags "$here/host/host.cpp" -o "$work/host-pc" $libs -Wl,-rpath,"$libdir" \
  || fail "the host program does not build through pkg-config"
got="$("$work/host-pc")" || fail "the pkg-config host program failed"
[ "$got" = "$expected" ] || fail "pkg-config host printed '$got', not '$expected'"

# The CMake package.
cmake -S "$here/host" -B "$work/host-build" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_CXX_FLAGS="${flags[*]}" -DCMAKE_BUILD_TYPE=Release \
  > "$work/host-configure.log" 2>&1 || { cat "$work/host-configure.log"; fail "find_package(Gatewise) failed"; }
cmake --build "$work/host-build" > "$work/host-build.log" 2>&1 \
  || { cat "$work/host-build.log"; fail "the host program does not build through the CMake package"; }
got="$("$work/host-build/gatewise_host")" || fail "the CMake host program failed"
[ "$got" = "$expected" ] || fail "CMake host printed '$got', not '$expected'"
echo "install_test: pkg-config and CMake package hosts built and ran against $prefix"
