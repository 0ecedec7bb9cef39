#!/usr/bin/env bash
# Fails when a text passed to tr()/trf() in the sources has no English entry in locale/en.po.
set -euo pipefail
# xgettext mangles Japanese in the C locale.
export LC_ALL=C.UTF-8
root=${1:-$(dirname "$0")/..}
cd "$root"
pot=$(mktemp --suffix=.pot)
trap 'rm -f "$pot"' EXIT
dirs=(src); [ -d tools ] && dirs+=(tools)
find "${dirs[@]}" \( -name '*.cpp' -o -name '*.h' \) | sort |
  xargs xgettext 2>/dev/null --language=C++ --from-code=UTF-8 --keyword=tr --keyword=trf --keyword=N_ \
    --no-location -o "$pot"
[ -s "$pot" ] || { echo "no texts found"; exit 0; }
# msgcmp ignores untranslated entries of en.po, so an empty msgstr counts as missing.
if ! msgcmp locale/en.po "$pot"; then
  echo "locale/en.po lacks English for the texts above" >&2
  exit 1
fi
echo "catalogue complete: $(grep -c '^msgid ' "$pot") texts"
