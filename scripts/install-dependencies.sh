#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the lab need, if any is missing.
set -euo pipefail
packages=(
  build-essential cmake pkg-config
  libgtest-dev libgmock-dev libbenchmark-dev libzita-convolver-dev
  libsndfile1-dev
  lv2-dev lilv-utils sordi jalv jackd2
  binutils
  clang libclang-rt-14-dev
  python3 python3-numpy python3-scipy python3-matplotlib python3-pytest
  g++-mingw-w64-i686-posix g++-mingw-w64-x86-64-posix
  binutils-mingw-w64-i686 binutils-mingw-w64-x86-64
  wine wine64 googletest
)
missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" || missing+=("$package")
done
sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then sudo_cmd=(sudo); fi
export DEBIAN_FRONTEND=noninteractive
if [ "${#missing[@]}" -gt 0 ]; then
  echo "installing: ${missing[*]}"
  "${sudo_cmd[@]}" apt-get update -qq
  "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# wine runs 32-bit Windows programs only with wine32 from the i386 architecture. Best
# effort: without it scripts/windows.sh builds and checks the 32-bit DLL and says that its
# tests were skipped.
installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q "install ok installed"; }
if [ "$(dpkg --print-architecture)" = amd64 ] && ! installed wine32:i386; then
  added_i386=0
  if ! dpkg --print-foreign-architectures | grep -qx i386; then
    "${sudo_cmd[@]}" dpkg --add-architecture i386 && added_i386=1
  fi
  "${sudo_cmd[@]}" apt-get update -qq || true
  if ! "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends wine32:i386; then
    echo "wine32:i386 could not be installed: the 32-bit Windows tests will be skipped" >&2
    # An i386 architecture whose lists cannot be fetched makes every later apt-get update
    # fail, so it goes again (dpkg keeps it if any i386 package got installed).
    if [ "$added_i386" -eq 1 ]; then
      "${sudo_cmd[@]}" dpkg --remove-architecture i386 2>/dev/null || true
    fi
  fi
fi
