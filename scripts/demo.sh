#!/usr/bin/env bash
# Builds the project and runs the main job: mstore on a private registry
# database: a store catalogue, a scripted session on the library's data stores
# (tools/mstore/demo.mstore), an encrypted remanent store whose value outlives
# the process, then the settings.
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
say catalogue add Vault --type remanent --encrypted --product Vault
say catalogue list

# Stores with a persistent key read the key file at the library's fixed path:
# provision one unless a usable one is there already (an existing key file is
# never replaced here).
if ! "$mstore" keyfile check >/dev/null 2>&1; then
  say keyfile init || echo "(cannot write the key file here: the Vault store will not register)"
fi
say keyfile check || true
say stores
say shell --echo --script "$root/tools/mstore/demo.mstore"

# One process writes to the encrypted remanent store...
echo; echo "\$ echo 'set Vault user/alice pin text 1234' | mstore shell"
echo 'set Vault user/alice pin text 1234' | "$mstore" --registry "$reg" shell
# ...the registry holds only ciphertext...
say registry show 'HKEY_LOCAL_MACHINE\Software\Norvane Co\Merrowstore\RemanentDataStore\Vault\user\alice'
# ...and another process reads it back in clear.
echo; echo "\$ echo 'get Vault user/alice pin' | mstore shell"
echo 'get Vault user/alice pin' | "$mstore" --registry "$reg" shell
say settings set Merrowstore.Authentication.Timeout 30
say settings show
say registry dump 'HKEY_LOCAL_MACHINE\Software\Norvane Co\Merrowstore'
echo
echo "demo finished"
