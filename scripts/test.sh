#!/usr/bin/env bash
# Builds everything and runs every test: the C++ suite, the lab's tests and table check,
# Tarnlow.dll and the suite under wine (scripts/windows.sh), then the sanitizer jobs
# (scripts/sanitize.sh): the suite under ASan + UBSan, the concurrency stress under
# ThreadSanitizer and a minute of fuzzing.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
jobs="$(nproc)"
bash "$root/scripts/install-dependencies.sh"

echo "== speaker lab: tests and committed tables"
/usr/bin/python3 -m pytest "$root/tools/speaker-lab/tests" -q
"$root/tools/speaker-lab/lab" emit --check

echo "== C++ build and tests"
cmake -S "$root" -B "$root/build" -DCMAKE_BUILD_TYPE=Release -DTARNLOW_BUILD_TESTS=ON
cmake --build "$root/build" -j "$jobs"
ctest --test-dir "$root/build" --output-on-failure -j "$jobs"

echo "== Windows: Tarnlow.dll cross-built with mingw-w64, tests under wine"
bash "$root/scripts/windows.sh" all

bash "$root/scripts/sanitize.sh"
