#!/usr/bin/env bash
# tarnlow-render as a user meets it: exit codes, one-line errors, files left behind.
# usage: render_cli_test.sh RENDER AUDIO_TOOL CASE
set -u
render="$1"
audio="$2"
case_name="$3"

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1

fail() {
  echo "FAIL [$case_name]: $*" >&2
  exit 1
}

# Runs the renderer, keeping its exit code, stdout and stderr.
run() {
  "$render" "$@" >stdout.txt 2>stderr.txt
  status=$?
  return "$status"
}

# An error: the expected exit code, exactly one line on stderr that starts with the program's
# name and contains the given text, nothing on stdout.
expect_error() {
  local code="$1" text="$2"
  shift 2
  run "$@"
  [ "$status" -eq "$code" ] || fail "'$*' exited $status, expected $code; stderr: $(cat stderr.txt)"
  [ "$(wc -l <stderr.txt)" -eq 1 ] || fail "'$*' wrote $(wc -l <stderr.txt) lines to stderr: $(cat stderr.txt)"
  grep -q "^tarnlow-render: " stderr.txt || fail "'$*' error lacks the program name: $(cat stderr.txt)"
  grep -qF -- "$text" stderr.txt || fail "'$*' error lacks '$text': $(cat stderr.txt)"
  [ ! -s stdout.txt ] || fail "'$*' wrote to stdout on error"
}

# No output and no temporary file in the folder.
expect_nothing_written() {
  local name="$1"
  [ ! -e "$name" ] || fail "$name was left behind"
  ! ls -A | grep -q "tarnlow-" || fail "temporary file left behind: $(ls -A)"
}

case "$case_name" in
usage_errors)
  expect_error 2 "missing INPUT and OUTPUT"
  expect_error 2 "unknown option '--loud'" --loud in.wav out.wav
  expect_error 2 "unknown speaker '8x8'" --speaker 8x8 in.wav out.wav
  expect_error 2 "unknown format 'mp3'" --format mp3 in.wav out.wav
  expect_error 2 "--ir needs a length" --ir 0 out.wav
  expect_nothing_written out.wav
  ;;
help_and_list)
  run --help
  [ "$status" -eq 0 ] && grep -q "^usage: tarnlow-render" stdout.txt || fail "--help"
  run --list
  [ "$status" -eq 0 ] || fail "--list exited $status"
  # Five cabinets by two microphones, each line with the three positions.
  [ "$(grep -c "cap edge room" stdout.txt)" -eq 10 ] || fail "--list: $(cat stdout.txt)"
  grep -q "^30 models" stdout.txt || fail "--list count"
  ;;
missing_input)
  expect_error 1 "cannot read 'absent.wav': no such file" absent.wav out.wav
  expect_nothing_written out.wav
  mkdir folder
  expect_error 1 "it is a directory" folder out.wav
  expect_nothing_written out.wav
  ;;
non_audio_input)
  printf 'not audio at all, only some words\n' >notes.wav
  expect_error 1 "cannot read 'notes.wav'" notes.wav out.wav
  expect_nothing_written out.wav
  ;;
truncated_input)
  "$audio" make whole.wav 48000 1 24000 wav pcm16 || fail "make"
  # The audio stops half way through what the header announces.
  head -c 24000 whole.wav >cut.wav
  expect_error 1 "truncated" cut.wav out.wav
  expect_nothing_written out.wav
  # The header itself is cut short.
  head -c 30 whole.wav >stub.wav
  expect_error 1 "cannot read 'stub.wav'" stub.wav out.wav
  expect_nothing_written out.wav
  ;;
hostile_headers)
  # Headers that announce no sample rate, or far more channels than any file holds.
  make_wav() {
    /usr/bin/python3 - "$@" <<'PY'
import struct, sys
path, rate, channels = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
block = channels * 2
data = bytes(block * 4)
fmt = struct.pack('<IHHIIHH', 16, 1, channels, rate, (rate * block) & 0xFFFFFFFF, block & 0xFFFF, 16)
open(path, 'wb').write(b'RIFF' + struct.pack('<I', 36 + len(data)) + b'WAVEfmt ' + fmt
                       + b'data' + struct.pack('<I', len(data)) + data)
PY
  }
  make_wav zero-rate.wav 0 1 || fail "make"
  expect_error 1 "cannot read 'zero-rate.wav'" zero-rate.wav out.wav
  expect_nothing_written out.wav
  for channels in 2000 65535; do
    make_wav wide.wav 48000 "$channels" || fail "make"
    expect_error 1 "cannot read 'wide.wav'" wide.wav out.wav
    expect_nothing_written out.wav
  done
  ;;
existing_output)
  "$audio" make in.wav 44100 1 4410 || fail "make"
  printf 'precious take\n' >out.wav
  cp out.wav before.wav
  expect_error 1 "'out.wav' exists; add --force" in.wav out.wav
  cmp -s out.wav before.wav || fail "existing output was changed"
  ! ls -A | grep -q "tarnlow-" || fail "temporary file left behind"
  run --force in.wav out.wav
  [ "$status" -eq 0 ] || fail "--force exited $status: $(cat stderr.txt)"
  "$audio" expect-render in.wav out.wav || fail "forced render"
  ;;
unsupported_format)
  "$audio" make in.wav 48000 1 4800 wav float || fail "make"
  expect_error 1 "cannot hold 32 bit float samples" --format flac --subtype float in.wav out.flac
  expect_nothing_written out.flac
  expect_error 1 "cannot tell the format of 'ir.bin'" --ir 0.1 ir.bin
  expect_nothing_written ir.bin
  ;;
render_stereo)
  "$audio" make in.wav 44100 2 22050 wav pcm16 || fail "make"
  run --speaker 2x12 --mic ribbon --position edge in.wav out.wav
  [ "$status" -eq 0 ] || fail "render exited $status: $(cat stderr.txt)"
  "$audio" expect-render in.wav out.wav || fail "stereo render"
  "$audio" expect-format out.wav 44100 2 22050 wav pcm16 || fail "format not kept"
  ;;
render_formats)
  "$audio" make in.flac 96000 1 9600 flac pcm24 || fail "make"
  run --speaker 4x10Bass in.flac out.flac
  [ "$status" -eq 0 ] || fail "flac render: $(cat stderr.txt)"
  "$audio" expect-render in.flac out.flac || fail "flac render"
  "$audio" expect-format out.flac 96000 1 9600 flac pcm24 || fail "flac format"
  run --format aiff --subtype float in.flac out.aiff
  [ "$status" -eq 0 ] || fail "aiff render: $(cat stderr.txt)"
  "$audio" expect-format out.aiff 96000 1 9600 aiff float || fail "aiff format"
  # A rate between the model bands still renders.
  "$audio" make odd.wav 32000 1 3200 || fail "make"
  run odd.wav odd-out.wav
  [ "$status" -eq 0 ] || fail "32 kHz render: $(cat stderr.txt)"
  "$audio" expect-render odd.wav odd-out.wav || fail "32 kHz render"
  ;;
models_differ)
  "$audio" make in.wav 48000 1 4800 wav float || fail "make"
  run --speaker 1x12 in.wav a.wav && run --speaker 4x10 in.wav b.wav && run --mic ribbon in.wav c.wav &&
    run --position room in.wav d.wav || fail "render failed: $(cat stderr.txt)"
  for other in b.wav c.wav d.wav; do
    ! "$audio" expect-equal a.wav "$other" >/dev/null 2>&1 || fail "$other sounds like a.wav"
  done
  ! "$audio" expect-equal c.wav d.wav >/dev/null 2>&1 || fail "--mic and --position give the same"
  ;;
impulse_response)
  run --ir 1.0 --speaker 4x12 ir48.wav
  [ "$status" -eq 0 ] || fail "--ir exited $status: $(cat stderr.txt)"
  "$audio" expect-impulse ir48.wav 48000 48000 || fail "--ir at the default rate"
  "$audio" expect-format ir48.wav 48000 1 48000 wav float || fail "--ir format"
  run --ir 0.5 --rate 96000 --mic ribbon --position room ir96.flac
  [ "$status" -eq 0 ] || fail "--ir --rate exited $status: $(cat stderr.txt)"
  "$audio" expect-impulse ir96.flac 96000 48000 || fail "--ir at 96 kHz"
  "$audio" expect-format ir96.flac 96000 1 48000 flac pcm24 || fail "--ir flac format"
  expect_error 2 "--ir writes a response and reads no INPUT" --ir 1 in.wav out.wav
  ;;
*)
  fail "unknown case"
  ;;
esac
echo "ok [$case_name]"
