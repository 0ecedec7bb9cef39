#!/usr/bin/env bash
# Fails when a tracked C++ file differs from what clang-format makes of it.
set -euo pipefail
cd "$(dirname "$0")/.."
files=$(git ls-files '*.cpp' '*.h' 2>/dev/null || true)
[ -n "$files" ] || exit 0
if ! echo "$files" | xargs clang-format --dry-run --Werror 2>/tmp/melvo-format.log; then
  head -40 /tmp/melvo-format.log >&2
  echo "format-check: run 'make format'" >&2
  exit 1
fi
echo "format-check: $(echo "$files" | wc -l) files clean"
