#!/usr/bin/env bash
# Builds the library and renders the built-in guitar through every cabinet into out/.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
bash "$root/scripts/install-dependencies.sh"
cmake -S "$root" -B "$root/build" -DCMAKE_BUILD_TYPE=Release -DTARNLOW_BUILD_TESTS=OFF
cmake --build "$root/build" --target tarnlow-demo -j "$(nproc)"
"$root/build/apps/tarnlow-demo" "$root/out"
