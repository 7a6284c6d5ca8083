#!/usr/bin/env bash
# Builds the project and runs the main job: mstore on a private registry
# database: a store catalogue, then a scripted session on the library's data
# stores (tools/mstore/demo.mstore), then the settings.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
bash "$root/scripts/install-deps.sh"
bash "$root/scripts/build.sh" plain -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
mstore="$root/build/plain/bin/mstore"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
reg="$work/registry.db"
say() { echo; echo "\$ mstore $*"; "$mstore" --registry "$reg" "$@"; }

say catalogue add DemoStore
say catalogue add Archive --type remanent --product Vault
say catalogue list
say stores
say shell --echo --script "$root/tools/mstore/demo.mstore"
say settings set Merrowstore.Authentication.Timeout 30
say settings show
say registry dump 'HKEY_LOCAL_MACHINE\Software\Norvane Co\Merrowstore'
echo
echo "demo finished"
