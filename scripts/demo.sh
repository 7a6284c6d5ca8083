#!/usr/bin/env bash
# Builds the project and runs the main job: mstore driving the registry and the
# settings on a private registry database.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
bash "$root/scripts/install-deps.sh"
bash "$root/scripts/build.sh" plain -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
mstore="$root/build/plain/bin/mstore"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
reg="$work/registry.db"
say() { echo; echo "\$ mstore $*"; "$mstore" --registry "$reg" "$@"; }

catalogue='HKEY_LOCAL_MACHINE\Software\Norvane Co\Merrowstore\StoreList'
say registry set "$catalogue\\DemoStore" Type --type dword 0
say registry set "$catalogue\\DemoStore" SharedBetweenUserSessions --type dword 1
say registry set "$catalogue\\DemoStore" Product --type sz "Keldara"
say registry set "$catalogue\\DemoStore" Blob --type binary "ba 03 01 02 03"
say registry set "$catalogue\\DemoStore" Names --type multi_sz ab c
say registry list "$catalogue"
say registry show "$catalogue\\DemoStore"
say settings show
say settings set Merrowstore.Authentication.Timeout 30
say settings show
say registry dump 'HKEY_LOCAL_MACHINE\Software\Norvane Co'
say registry delete-key 'HKEY_LOCAL_MACHINE\Software\Norvane Co\Merrowstore' || true
say registry delete-key --recursive 'HKEY_LOCAL_MACHINE\Software\Norvane Co\Merrowstore'
say registry list 'HKEY_LOCAL_MACHINE\Software\Norvane Co'
echo
echo "demo finished"
