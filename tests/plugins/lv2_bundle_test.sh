#!/usr/bin/env bash
# The LV2 bundle as hosts see it: valid Turtle, found by lilv, run by lv2apply, and run
# live by jalv on a JACK server with the dummy driver.
# usage: lv2_bundle_test.sh BUNDLE SCHEMA_DIR AUDIO_TOOL RENDER CASE
# RENDER may be "-" when tarnlow-render is not built.
set -u
bundle="$1"
schemas="$2"
audio="$3"
render="$4"
case_name="$5"
skip=77

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1

fail() {
  echo "FAIL [$case_name]: $*" >&2
  exit 1
}

need() {
  command -v "$1" >/dev/null || { echo "SKIP [$case_name]: $1 not installed (scripts/install-dependencies.sh)"; exit $skip; }
}

# The schema bundles that lv2-dev installs; other bundles in the same folder are
# plug-ins, whose mistakes are not ours.
schema_files() {
  local name
  for name in atom buf-size core data-access dynmanifest event instance-access log midi morph options \
    parameters patch port-groups port-props presets resize-port schemas state time ui units uri-map urid worker; do
    ls "$schemas/$name.lv2/"*.ttl 2>/dev/null
  done
}

validate() {
  # shellcheck disable=SC2046
  sord_validate $(schema_files) "$@" >validate.txt 2>&1
}

export LV2_PATH
LV2_PATH="$(dirname "$bundle")"
uri="urn:tarnlow:cabinet"

case "$case_name" in
validate)
  need sord_validate
  [ -n "$(schema_files)" ] || fail "no LV2 schemas under $schemas"
  validate "$bundle/manifest.ttl" "$bundle/tarnlow.ttl" || fail "sord_validate: $(cat validate.txt)"
  grep -q "Found 0 errors" validate.txt || fail "sord_validate: $(cat validate.txt)"
  grep -v '^$' validate.txt
  # The same check must catch a broken description, or it proves nothing.
  sed 's/lv2:index 8 ;/lv2:index "eight" ;/' "$bundle/tarnlow.ttl" >broken.ttl
  ! validate "$bundle/manifest.ttl" broken.ttl || fail "a broken description passed validation"
  ;;
discovered)
  need lv2info
  lv2info "$uri" >info.txt 2>errors.txt || fail "lv2info: $(cat errors.txt)"
  grep -q "Name: *Tarnlow Cabinet" info.txt || fail "name: $(cat info.txt)"
  grep -q "Has latency: *yes, reported by port 9" info.txt || fail "latency port: $(cat info.txt)"
  grep -q "Required Features" info.txt && fail "a feature is required: $(cat info.txt)"
  for symbol in in out speaker mic position mic2 position2 blend level latency; do
    grep -q "Symbol: *$symbol\$" info.txt || fail "no port $symbol"
  done
  # lilv reads the five cabinets as scale points of the speaker port.
  for name in 1x12 2x12 4x12 4x10 4x10Bass; do
    grep -q "= \"$name\"" info.txt || fail "no scale point $name"
  done
  ;;
lv2apply_default)
  need lv2apply
  "$audio" make in.wav 48000 1 9600 wav float || fail "make"
  lv2apply -i in.wav -o out.wav "$uri" 2>errors.txt || fail "lv2apply: $(cat errors.txt)"
  "$audio" expect-render in.wav out.wav || fail "lv2apply output"
  if [ "$render" != "-" ]; then
    # At level 0 with one microphone the plug-in is the library alone, like the renderer.
    "$render" in.wav rendered.wav || fail "tarnlow-render"
    "$audio" expect-equal out.wav rendered.wav || fail "plug-in and renderer disagree"
  fi
  ;;
lv2apply_controls)
  need lv2apply
  "$audio" make in.wav 44100 1 8820 wav float || fail "make"
  lv2apply -i in.wav -o bass.wav -c speaker 4 -c mic 1 -c position 2 "$uri" 2>errors.txt ||
    fail "lv2apply: $(cat errors.txt)"
  "$audio" expect-render in.wav bass.wav || fail "lv2apply output"
  if [ "$render" != "-" ]; then
    # Both keep the input's float samples.
    "$render" --speaker 4x10Bass --mic ribbon --position room in.wav rendered.wav || fail "render"
    "$audio" expect-equal bass.wav rendered.wav || fail "controls did not reach the model"
  fi
  lv2apply -i in.wav -o blended.wav -c speaker 4 -c mic 1 -c position 2 -c mic2 0 -c position2 0 -c blend 0.5 \
    "$uri" 2>errors.txt || fail "lv2apply blend: $(cat errors.txt)"
  "$audio" expect-render in.wav blended.wav || fail "blended output"
  ! "$audio" expect-equal bass.wav blended.wav >/dev/null 2>&1 || fail "the blend changed nothing"
  ;;
jalv)
  need jalv
  need jackd
  need jack_lsp
  export JACK_DEFAULT_SERVER="tarnlow-test-$$" JACK_NO_AUDIO_RESERVATION=1
  jackd --no-realtime -d dummy -r 48000 -p 256 >jackd.txt 2>&1 &
  jack=$!
  trap 'kill "$jack" 2>/dev/null; wait "$jack" 2>/dev/null; rm -rf "$work"' EXIT
  for _ in $(seq 100); do jack_lsp >/dev/null 2>&1 && break; sleep 0.1; done
  jack_lsp >/dev/null 2>&1 || fail "jackd with the dummy driver did not start: $(cat jackd.txt)"
  # jalv takes commands on its input: once it runs, the ports are listed, the speaker is
  # changed (through the worker, as a host's control change goes) and the controls are
  # printed; jalv ends when its input does.
  { sleep 1; jack_lsp >ports.txt; echo "speaker = 3"; sleep 1; echo "controls"; sleep 0.5; } |
    timeout 30 jalv -n tarnlow-test -c speaker=2 -c mic=1 "$uri" >jalv.txt 2>&1 || fail "jalv: $(cat jalv.txt)"
  grep -q "^Plugin: *$uri" jalv.txt || fail "jalv did not load the plug-in: $(cat jalv.txt)"
  grep -qx "tarnlow-test:in" ports.txt || fail "no input port: $(cat ports.txt)"
  grep -qx "tarnlow-test:out" ports.txt || fail "no output port: $(cat ports.txt)"
  grep -q "speaker = 3.000000" jalv.txt || fail "the speaker change did not arrive: $(cat jalv.txt)"
  grep -i "error" jalv.txt && fail "jalv reported an error"
  ;;
*)
  fail "unknown case"
  ;;
esac
echo "ok [$case_name]"
