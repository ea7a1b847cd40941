#!/usr/bin/env bash
# Builds the library, renders the built-in guitar through every cabinet at every microphone
# position into out/, and plots the thirty models' responses into out/responses.png.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
bash "$root/scripts/install-dependencies.sh"
cmake -S "$root" -B "$root/build" -DCMAKE_BUILD_TYPE=Release -DTARNLOW_BUILD_TESTS=OFF
cmake --build "$root/build" --target tarnlow-demo tarnlow-render -j "$(nproc)"
"$root/build/apps/tarnlow-demo" "$root/out"
mkdir -p "$root/out/ir"
for speaker in 1x12 2x12 4x12 4x10 4x10Bass; do
  for mic in dynamic ribbon; do
    for position in cap edge room; do
      "$root/build/apps/render/tarnlow-render" --ir 0.5 --rate 48000 --force \
        --speaker "$speaker" --mic "$mic" --position "$position" \
        "$root/out/ir/ir-$speaker-$mic-$position.wav"
    done
  done
done
/usr/bin/python3 "$root/scripts/plot_responses.py" "$root/out/ir" "$root/out/responses.png"
