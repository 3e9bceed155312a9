#!/usr/bin/env bash
# Installs what building, testing and the demo need, with apt-get, but only
# when something is missing: a prepared machine never touches the network.
set -euo pipefail

packages=(
  cmake make g++ libgtest-dev            # native build and the test suites
  pkg-config                             # the installed library's consumer test
  g++-arm-linux-gnueabihf qemu-user      # 32-bit ARM cross build run under qemu-arm
  libcli11-dev nlohmann-json3-dev        # the yax tool
  libbenchmark-dev                       # the benchmarks (-DYAX_BUILD_BENCH=ON)
  libjpeg-turbo-progs                    # djpeg: edited images must still decode
  ffmpeg                                 # ffprobe: edited MP4 clips must still play
  clang libclang-rt-14-dev               # the libFuzzer targets (scripts/fuzz.sh)
  openjdk-17-jdk-headless junit4         # the Java binding and its JUnit suite
)
commands=(cmake make g++ pkg-config arm-linux-gnueabihf-g++ qemu-arm djpeg ffprobe clang javac)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg -s "$p" 2>/dev/null | grep -q '^Status: install ok installed'; then
    missing+=("$p")
  fi
done
for c in "${commands[@]}"; do
  if ! command -v "$c" >/dev/null 2>&1; then
    missing+=("command:$c")
  fi
done
if [ ! -d /usr/src/googletest ]; then
  missing+=("dir:/usr/src/googletest")
fi

if [ ${#missing[@]} -eq 0 ]; then
  echo "deps: everything is installed"
  exit 0
fi

echo "deps: missing: ${missing[*]}"
sudo=""
if [ "$(id -u)" -ne 0 ]; then
  sudo="sudo"
fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -q
$sudo apt-get install -y -q --no-install-recommends "${packages[@]}"
