#!/usr/bin/env bash
# Runs every fuzz target of build/fuzz for FUZZ_SECONDS (default 30) each. A target reads its
# seeds from fuzz/seeds/<name>/ and from the folders listed in fuzz/<name>.seeds (one path a
# line, relative to the repository; missing ones are skipped), and keeps what it finds in
# build/fuzz/corpus/<name>/. Any crash, leak or timeout fails the run and leaves its input
# in build/fuzz/crashes/.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${FUZZ_SECONDS:-30}
bins=(build/fuzz/bin/fuzz_*)
[ -e "${bins[0]}" ] || { echo "run-fuzz: no fuzz targets built" >&2; exit 1; }
mkdir -p build/fuzz/crashes
failed=0
for bin in "${bins[@]}"; do
  name=$(basename "$bin"); name=${name#fuzz_}
  corpus=build/fuzz/corpus/$name
  mkdir -p "$corpus"
  dirs=("$corpus")
  [ -d "fuzz/seeds/$name" ] && dirs+=("fuzz/seeds/$name")
  if [ -f "fuzz/$name.seeds" ]; then
    while IFS= read -r d; do
      [ -n "$d" ] && [ -d "$d" ] && dirs+=("$d")
    done < "fuzz/$name.seeds"
  fi
  echo "== fuzz $name (${seconds}s)"
  if ! "$bin" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=4096 -max_len=1048576 \
      -print_final_stats=1 -artifact_prefix="build/fuzz/crashes/$name-" "${dirs[@]}" \
      > "build/fuzz/$name.log" 2>&1; then
    echo "run-fuzz: $name failed; the end of its log:" >&2
    tail -n 40 "build/fuzz/$name.log" >&2
    failed=1
  else
    grep -E '^stat::(number_of_executed_units|new_units_added)' "build/fuzz/$name.log" || true
  fi
done
exit $failed
