#!/usr/bin/env bash
# build.sh NAME [cmake options...]: configures and builds into build/NAME.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
name="$1"; shift
cmake -S "$root" -B "$root/build/$name" -G Ninja "$@" >/dev/null
ninja -C "$root/build/$name"
