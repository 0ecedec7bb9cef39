#!/usr/bin/env bash
# Installs every Debian package Melvo builds, tests or benchmarks with.
# Idempotent: packages already present are skipped, so CI and `make` may call it each time.
set -euo pipefail

packages=(
  # toolchain
  build-essential cmake ninja-build ccache pkg-config clang-format gettext
  # fuzzing: clang with its libFuzzer and sanitizer runtimes
  clang libclang-rt-14-dev
  # libraries
  libexpat1-dev libsimdjson-dev nlohmann-json3-dev libpcre2-dev libicu-dev
  libmecab-dev mecab-ipadic-utf8 zlib1g-dev libsndfile1-dev libfluidsynth-dev
  fluid-soundfont-gm libssl-dev uuid-dev libasio-dev libcli11-dev
  # tests and benchmarks
  libgtest-dev libgmock-dev googletest libbenchmark-dev sox python3-mido
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
# node and npm run the protocol conformance suite and the SDK client test; a machine may have
# them from another source, so the commands are what counts.
if ! command -v node >/dev/null || ! command -v npm >/dev/null; then
  missing+=(nodejs npm)
fi

if [ ${#missing[@]} -eq 0 ]; then
  echo "install-deps: all ${#packages[@]} packages present"
  exit 0
fi

echo "install-deps: installing ${missing[*]}"
sudo_cmd=()
[ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -qq
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
