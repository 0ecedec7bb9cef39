#!/usr/bin/env bash
# Runs one of the protocol's own checks against `melvo bridge`:
#   run.sh conformance MELVO NODE_DIR   the conformance suite's server scenarios over --http
#   run.sh sdk MELVO NODE_DIR           the official TypeScript SDK client over stdio
# The npm packages come from this folder's lockfile, installed once into NODE_DIR (in the build
# tree). Exit 77 (skipped) only when node or npm is missing.
set -euo pipefail
mode=$1
command -v node >/dev/null && command -v npm >/dev/null || { echo "npm is not installed: skipped"; exit 77; }
here=$(cd "$(dirname "$0")" && pwd)
melvo=$(realpath "$2")
mkdir -p "$3"
node_dir=$(realpath "$3")
(
  # Both tests may start at once: one installs, the other waits for it.
  flock 9
  stamp=$(sha256sum "$here/package-lock.json" | cut -d' ' -f1)
  if [ "$(cat "$node_dir/.stamp" 2>/dev/null)" != "$stamp" ]; then
    cp "$here/package.json" "$here/package-lock.json" "$node_dir/"
    (cd "$node_dir" && npm ci --no-audit --no-fund --loglevel=error)
    echo "$stamp" > "$node_dir/.stamp"
  fi
) 9>"$node_dir/.lock"

work=$(mktemp -d)
pids=()
cleanup() {
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; wait "$p" 2>/dev/null || true; done
  rm -rf "$work"
}
trap cleanup EXIT

# A home of its own: the port's socket and the program's files stay in the test's folder.
export HOME="$work/home" XDG_CONFIG_HOME="$work/home/.config" XDG_DATA_HOME="$work/home/.local/share" \
  XDG_RUNTIME_DIR="$work/run" XDG_MUSIC_DIR="$work/home/Music" LANGUAGE=en
mkdir -p "$HOME" "$XDG_RUNTIME_DIR"
chmod 700 "$XDG_RUNTIME_DIR"

case "$mode" in
  conformance)
    # Port 0: the bridge tells the address it got on its first line.
    "$melvo" bridge --http 127.0.0.1:0 --conformance-fixtures --wait 0 > "$work/url" 2> "$work/bridge.err" &
    pids+=($!)
    for _ in $(seq 100); do [ -s "$work/url" ] && break; sleep 0.1; done
    url=$(head -1 "$work/url")
    [ -n "$url" ] || { echo "the bridge did not start"; cat "$work/bridge.err"; exit 1; }
    cd "$work"
    node "$node_dir/node_modules/@modelcontextprotocol/conformance/dist/index.js" server \
      --url "$url" --expected-failures "$here/not-applicable.yml"
    ;;
  sdk)
    "$melvo" serve --agent > "$work/serve.out" 2> "$work/serve.err" &
    pids+=($!)
    # Beside its node_modules, where an ES module finds its imports.
    cp "$here/sdk_client.mjs" "$node_dir/"
    node "$node_dir/sdk_client.mjs" "$melvo"
    ;;
  *)
    echo "unknown mode $mode"; exit 2 ;;
esac
