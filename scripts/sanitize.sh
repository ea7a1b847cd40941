#!/usr/bin/env bash
# The sanitizer jobs of the CI, each bounded:
#   1. the whole C++ test suite under AddressSanitizer and UndefinedBehaviorSanitizer
#      (any report fails the run);
#   2. the concurrency stress under ThreadSanitizer, TARNLOW_STRESS_SECONDS per instance
#      and rate (default 5);
#   3. the host-call fuzzer (clang, libFuzzer with ASan and UBSan) for
#      TARNLOW_FUZZ_SECONDS (default 60), from the committed corpus.
# Build folders are "${TARNLOW_SANITIZE_BUILD_PREFIX:-<repo>/build-}asan", "...tsan" and
# "...fuzz". Run a single job with `scripts/sanitize.sh asan|tsan|fuzz`.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
jobs="$(nproc)"
prefix="${TARNLOW_SANITIZE_BUILD_PREFIX:-$root/build-}"
selected=("${@:-asan tsan fuzz}")
selected=(${selected[*]})

# Stack traces with file and line; UBSan's findings are errors, not warnings.
export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:strict_string_checks=1:detect_stack_use_after_return=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}"
export TSAN_OPTIONS="${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}"

run_asan() {
  echo "== whole test suite under AddressSanitizer + UndefinedBehaviorSanitizer"
  local build="${prefix}asan"
  cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARNLOW_BUILD_TESTS=ON \
    -DTARNLOW_SANITIZE=address,undefined -DCMAKE_CXX_FLAGS="-fno-sanitize-recover=undefined"
  cmake --build "$build" -j "$jobs"
  # Tests in which a program built without ASan (lv2apply, jalv, the install consumers) loads
  # the instrumented library need the runtime preloaded into every process of the test
  # (shell, cmake, make, compilers too). Those programs are not ours: their leaks and
  # their loose string reads are not checked there, only the default memory errors.
  local foreign_hosts='^(lv2_bundle\.(lv2apply|jalv)|install\.)'
  ctest --test-dir "$build" --output-on-failure -j "$jobs" --timeout 900 -E "$foreign_hosts"
  LD_PRELOAD="$("${CXX:-g++}" -print-file-name=libasan.so)" ASAN_OPTIONS="detect_leaks=0" \
    ctest --test-dir "$build" --output-on-failure -j "$jobs" --timeout 900 -R "$foreign_hosts"
}

run_tsan() {
  echo "== concurrency stress under ThreadSanitizer"
  local build="${prefix}tsan"
  cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARNLOW_BUILD_TESTS=ON \
    -DTARNLOW_BUILD_TOOLS=OFF -DTARNLOW_BUILD_PLUGINS=OFF -DTARNLOW_SANITIZE=thread
  cmake --build "$build" --target reliability_stress_test -j "$jobs"
  TARNLOW_STRESS_SECONDS="${TARNLOW_STRESS_SECONDS:-5}" "$build/tests/reliability/reliability_stress_test"
}

run_fuzz() {
  echo "== host-call fuzzer (libFuzzer + ASan + UBSan), ${TARNLOW_FUZZ_SECONDS:-60} s"
  local build="${prefix}fuzz"
  local compiler
  compiler="$(command -v clang++-14 || command -v clang++)"
  CXX="$compiler" cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DTARNLOW_BUILD_TESTS=OFF -DTARNLOW_BUILD_TOOLS=OFF -DTARNLOW_BUILD_PLUGINS=OFF \
    -DTARNLOW_BUILD_FUZZERS=ON -DTARNLOW_SANITIZE=fuzzer-no-link,address,undefined \
    -DCMAKE_CXX_FLAGS="-fno-sanitize-recover=undefined"
  cmake --build "$build" --target tarnlow_host_fuzzer -j "$jobs"
  local fuzzer="$build/fuzz/tarnlow_host_fuzzer"
  local regressions=("$root"/fuzz/regressions/*)
  if [ -e "${regressions[0]}" ]; then
    "$fuzzer" "${regressions[@]}"  # given files, not folders: each runs once
  fi
  # New inputs go to a scratch corpus, so the committed one stays as it is; a failing
  # input lands in $build/fuzz-artifacts and belongs in fuzz/regressions once fixed.
  local scratch="$build/fuzz-corpus"
  mkdir -p "$scratch" "$build/fuzz-artifacts"
  if ! "$fuzzer" -max_total_time="${TARNLOW_FUZZ_SECONDS:-60}" -timeout=30 -rss_limit_mb=2048 -max_len=4096 \
      -print_final_stats=1 -artifact_prefix="$build/fuzz-artifacts/" "$scratch" "$root/fuzz/corpus"; then
    echo "fuzzer found a failing input:" >&2
    ls -l "$build/fuzz-artifacts" >&2
    return 1
  fi
}

for job in "${selected[@]}"; do
  case "$job" in
    asan) run_asan ;;
    tsan) run_tsan ;;
    fuzz) run_fuzz ;;
    *) echo "unknown job: $job (asan, tsan, fuzz)" >&2; exit 2 ;;
  esac
done
