#!/usr/bin/env bash
# Installs the build into a fresh prefix, then uses it as a packager and a host developer
# would: the file layout, a C consumer through pkg-config and through find_package, the
# installed renderer and LV2 bundle finding the installed library by themselves.
# usage: install_test.sh BUILD_DIR LIBDIR LV2DIR CONSUMER_SOURCE AUDIO_TOOL CASE
# LIBDIR and LV2DIR are the build's folders for libraries and LV2 bundles under the prefix.
set -u
build="$1"
lib="$2"
lv2="$3"
consumer="$4"
audio="$5"
case_name="$6"
skip=77

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
prefix="$work/prefix"

fail() {
  echo "FAIL [$case_name]: $*" >&2
  exit 1
}

cmake --install "$build" --prefix "$prefix" >"$work/install.log" 2>&1 || fail "install: $(cat "$work/install.log")"
# The build tree must play no part in what follows.
unset LD_LIBRARY_PATH LV2_PATH PKG_CONFIG_PATH

case "$case_name" in
layout)
  cd "$prefix" || exit 1
  for file in include/tarnlow.h $lib/pkgconfig/tarnlow.pc $lib/cmake/Tarnlow/TarnlowConfig.cmake \
    $lib/cmake/Tarnlow/TarnlowConfigVersion.cmake $lib/cmake/Tarnlow/TarnlowTargets.cmake \
    $lv2/tarnlow.lv2/manifest.ttl $lv2/tarnlow.lv2/tarnlow.ttl $lv2/tarnlow.lv2/tarnlow.so \
    bin/tarnlow-render; do
    [ -e "$file" ] || fail "missing $file"
  done
  # The development link and the soname link lead to the one real library.
  [ "$(readlink "$lib/libtarnlow.so")" = "libtarnlow.so.1" ] || fail "libtarnlow.so -> $(readlink "$lib/libtarnlow.so")"
  real="$(readlink "$lib/libtarnlow.so.1")"
  [[ "$real" =~ ^libtarnlow\.so\.1\.[0-9]+\.[0-9]+$ ]] && [ -f "$lib/$real" ] && [ ! -L "$lib/$real" ] ||
    fail "libtarnlow.so.1 -> $real"
  objdump -p "$lib/libtarnlow.so.1" | grep -q "SONAME *libtarnlow.so.1$" || fail "soname"
  # Installed programs look for the library next to themselves, never in the build tree.
  for binary in bin/tarnlow-render "$lv2/tarnlow.lv2/tarnlow.so"; do
    runpath="$(objdump -p "$binary" | awk '/RUNPATH|RPATH/ {print $2}')"
    [[ "$runpath" == '$ORIGIN'* ]] || fail "$binary searches $runpath"
    [[ "$runpath" != *"$build"* ]] || fail "$binary points into the build tree"
  done
  ;;
pkg_config)
  command -v pkg-config >/dev/null || { echo "SKIP: pkg-config not installed"; exit $skip; }
  export PKG_CONFIG_PATH="$prefix/$lib/pkgconfig"
  version="$(pkg-config --modversion tarnlow)" || fail "pkg-config does not find tarnlow"
  # The same version as the CMake package states.
  cmake_version="$(grep -oP 'set\(PACKAGE_VERSION "\K[^"]+' "$prefix/$lib/cmake/Tarnlow/TarnlowConfigVersion.cmake" | head -n 1)"
  [ -n "$version" ] && [ "$version" = "$cmake_version" ] || fail "pkg-config says $version, CMake $cmake_version"
  libdir="$(pkg-config --variable=libdir tarnlow)"
  [ "$(cd "$libdir" && pwd -P)" = "$(cd "$prefix/$lib" && pwd -P)" ] || fail "libdir $libdir is not under the prefix"
  # shellcheck disable=SC2046
  cc -std=c99 -Wall -Werror -o "$work/consumer" "$consumer/consumer.c" $(pkg-config --cflags --libs tarnlow) -lm \
    -Wl,-rpath,"$libdir" 2>"$work/cc.log" || fail "compile: $(cat "$work/cc.log")"
  "$work/consumer" || fail "the pkg-config consumer failed with $?"
  ;;
find_package)
  cmake -S "$consumer" -B "$work/consumer-build" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_TYPE=Release \
    >"$work/configure.log" 2>&1 || fail "configure: $(cat "$work/configure.log")"
  cmake --build "$work/consumer-build" >"$work/build.log" 2>&1 || fail "build: $(cat "$work/build.log")"
  grep -q "$prefix/$lib/libtarnlow.so" "$work/consumer-build/CMakeFiles/consumer.dir/link.txt" ||
    fail "the consumer did not link the installed library"
  "$work/consumer-build/consumer" || fail "the find_package consumer failed with $?"
  ;;
installed_tools)
  "$prefix/bin/tarnlow-render" --ir 0.5 --speaker 2x12 "$work/ir.wav" || fail "installed tarnlow-render"
  [ "$audio" = "-" ] || "$audio" expect-impulse "$work/ir.wav" 48000 24000 || fail "installed renderer output"
  command -v lv2apply >/dev/null || { echo "SKIP: lv2apply not installed"; exit $skip; }
  [ "$audio" != "-" ] || { echo "SKIP: no audio tool"; exit $skip; }
  "$audio" make "$work/in.wav" 48000 1 4800 wav float || fail "make"
  LV2_PATH="$prefix/$lv2" lv2apply -i "$work/in.wav" -o "$work/out.wav" urn:tarnlow:cabinet 2>"$work/lv2.log" ||
    fail "installed bundle: $(cat "$work/lv2.log")"
  "$audio" expect-render "$work/in.wav" "$work/out.wav" || fail "installed bundle output"
  ;;
*)
  fail "unknown case"
  ;;
esac
echo "ok [$case_name]"
