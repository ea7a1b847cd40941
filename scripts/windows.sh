#!/usr/bin/env bash
# Cross-builds Tarnlow.dll and the unit tests with mingw-w64 and runs them under wine.
#
#   bash scripts/windows.sh [i686|x86_64|all]        (default: all)
#
# Release builds in build-win32 (i686) and build-win64 (x86_64), each with a private wine
# prefix inside. The 64-bit run is required. The 32-bit tests run where wine can start
# 32-bit programs (Debian: wine32:i386); where it cannot, the 32-bit DLL is still built and
# its export table, imports and version record checked, and the skipped run is reported.
# The exit status is non-zero if any build or test failed.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
target="${1:-all}"
jobs="$(nproc)"
if [ "$jobs" -gt 2 ]; then jobs=2; fi

case "$target" in
  i686) architectures=(i686) ;;
  x86_64) architectures=(x86_64) ;;
  all) architectures=(x86_64 i686) ;;
  *) echo "usage: $0 [i686|x86_64|all]" >&2; exit 2 ;;
esac

for tool in cmake wine wineboot wineserver; do
  if ! command -v "$tool" >/dev/null; then
    echo "windows: $tool not found (scripts/install-dependencies.sh installs it)" >&2
    exit 1
  fi
done

export WINEDEBUG=-all
# No installer dialogs for Mono and Gecko on the first run of a prefix: nothing here uses them.
export WINEDLLOVERRIDES="mscoree,mshtml="

started_prefixes=()
stop_wineservers() {
  local prefix
  for prefix in "${started_prefixes[@]}"; do
    WINEPREFIX="$prefix" wineserver -k 2>/dev/null || true
  done
}
trap stop_wineservers EXIT

# Prints "yes" if wine starts a trivial program built by the given compiler in the current
# WINEPREFIX, else the reason it does not.
wine_runs() {
  local compiler="$1" folder="$2"
  mkdir -p "$folder"
  printf 'int main(void) { return 42; }\n' >"$folder/probe.c"
  if ! "$compiler" -o "$folder/probe.exe" "$folder/probe.c" 2>"$folder/probe.log"; then
    echo "the probe did not compile: $(head -1 "$folder/probe.log")"
    return
  fi
  local status=0
  timeout 300 wine "$folder/probe.exe" >"$folder/probe.log" 2>&1 || status=$?
  if [ "$status" -eq 42 ]; then
    echo yes
  else
    echo "wine exited with $status: $(grep -v '^$' "$folder/probe.log" | head -2 | tr '\n' ' ')"
  fi
}

results=()
failed=0

build_and_test() {
  local arch="$1" build toolchain compiler
  case "$arch" in
    i686) build="$root/build-win32" ;;
    x86_64) build="$root/build-win64" ;;
  esac
  toolchain="$root/cmake/toolchains/mingw-$arch.cmake"
  compiler="$arch-w64-mingw32-gcc-posix"
  command -v "$compiler" >/dev/null || compiler="$arch-w64-mingw32-gcc"
  export WINEPREFIX="$build/wineprefix"
  mkdir -p "$build"

  echo "== Windows $arch: wine prefix $WINEPREFIX"
  local started=$SECONDS
  local runs
  if [ ! -f "$WINEPREFIX/system.reg" ]; then
    timeout 600 wineboot -i >"$build/wineboot.log" 2>&1 || true
  fi
  runs="$(wine_runs "$compiler" "$build/wine-probe")"
  if [ "$runs" != yes ] && [ "$arch" = i686 ] && command -v dpkg-query >/dev/null &&
     ! dpkg-query -W -f='${Status}' wine32:i386 2>/dev/null | grep -q "install ok installed"; then
    runs="wine32:i386 is not installed; $runs"
  fi
  local wine_setting=OFF
  if [ "$runs" = yes ]; then
    wine_setting="$(command -v wine)"
    # One server for the whole run: each test is a process of its own, and a server that
    # shuts down between two of them costs seconds and can drop a starting client. The
    # server of the probe ends on its own first.
    wineserver -w
    wineserver -p
    started_prefixes+=("$WINEPREFIX")
    # The first program of a server starts wine's own background processes, which inherit
    # its output and keep it open as long as the server runs: a test started first would
    # never see its output end. The probe starts them with its output in a file.
    wine "$build/wine-probe/probe.exe" >"$build/wine-probe/probe.log" 2>&1 || true
  elif [ "$arch" = x86_64 ]; then
    echo "windows x86_64: wine cannot run 64-bit programs: $runs" >&2
    results+=("x86_64: FAILED, wine cannot run the tests ($runs)")
    failed=1
    return
  fi

  cmake -S "$root" -B "$build" -DCMAKE_TOOLCHAIN_FILE="$toolchain" -DCMAKE_BUILD_TYPE=Release \
    -DTARNLOW_BUILD_TESTS=ON -DTARNLOW_WINE="$wine_setting"

  # With wine: all, that is the library, GoogleTest and the test programs (the other
  # programs are off on Windows), which list their cases under wine when ctest starts.
  # Without: the DLL alone, whose tables are checked without running it.
  local build_targets=()
  if [ "$runs" != yes ]; then build_targets=(--target tarnlow); fi
  if ! cmake --build "$build" -j "$jobs" "${build_targets[@]}"; then
    results+=("$arch: FAILED to build")
    failed=1
    return
  fi
  if [ "$runs" = yes ]; then
    if ctest --test-dir "$build" --output-on-failure -j "$jobs"; then
      results+=("$arch: built, tests passed under wine ($((SECONDS - started)) s)")
    else
      results+=("$arch: tests FAILED under wine")
      failed=1
    fi
    WINEPREFIX="$WINEPREFIX" wineserver -k 2>/dev/null || true
  else
    echo "windows $arch: wine cannot run 32-bit programs here ($runs)."
    echo "windows $arch: Tarnlow.dll is built and its tables checked; the tests are not built or run."
    if ctest --test-dir "$build" --output-on-failure; then
      results+=("$arch: DLL built, export table checked; unit and loader tests SKIPPED: wine cannot run 32-bit programs ($runs)")
    else
      results+=("$arch: export table check FAILED")
      failed=1
    fi
  fi
}

for arch in "${architectures[@]}"; do
  build_and_test "$arch"
done

echo "== Windows summary"
printf '  %s\n' "${results[@]}"
exit "$failed"
