#!/usr/bin/env bash
# The soak run: every cabinet for a long stretch of audio at 192 kHz, a control change from
# another thread every 10 ms of audio, no non-finite sample, resident memory flat.
#   scripts/soak.sh [audio-seconds-per-cabinet = 600] [rate = 192000]
# Builds tarnlow_soak (Release) in build-soak, or in TARNLOW_SOAK_BUILD if set.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${TARNLOW_SOAK_BUILD:-$root/build-soak}"
bash "$root/scripts/install-dependencies.sh"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DTARNLOW_BUILD_TESTS=ON \
  -DTARNLOW_BUILD_TOOLS=OFF -DTARNLOW_BUILD_PLUGINS=OFF >/dev/null
cmake --build "$build" --target tarnlow_soak -j "$(nproc)"
"$build/tests/reliability/tarnlow_soak" "${1:-600}" "${2:-192000}"
