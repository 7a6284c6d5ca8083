#!/usr/bin/env bash
# Builds the project and runs the main job: mstore on a private registry
# database: a store catalogue, a scripted session on the library's data stores
# (tools/mstore/demo.mstore), an encrypted remanent store whose value outlives
# the process, a middleware's round with the PIN cache
# (tools/mstore/demo-pin.mstore, twice: the PIN-always mode differs), the PIN
# cache in front of a PKCS#11 token for every program of the session
# (scripts/demo-pkcs11.sh), then the settings.
#
# The machine is left as the demo found it: a key file the demo provisions at
# the library's fixed path goes at the end, with any folders made for it, also
# when the demo fails or is interrupted half-way; a key file that was already
# there is never touched.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
key_file=/Library/Frameworks/xk.merrowstore.framework/StoreConfiguration/remanentstore.key
work=""
own_key=0
own_dirs=()  # the folders the key file needed, deepest first
cleanup() {
  if [ "$own_key" = 1 ]; then
    rm -f "$key_file" "$key_file.new"
    echo "(removed the key file the demo provisioned: $key_file)"
  fi
  for dir in "${own_dirs[@]}"; do rmdir "$dir" 2>/dev/null || true; done
  if [ -n "$work" ]; then rm -rf "$work"; fi
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
bash "$root/scripts/install-deps.sh"
bash "$root/scripts/build.sh" plain -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
mstore="$root/build/plain/bin/mstore"
work="$(mktemp -d)"
reg="$work/registry.db"
say() { echo; echo "\$ mstore $*"; "$mstore" --registry "$reg" "$@"; }

say catalogue add DemoStore
say catalogue add Archive --type remanent --product Vault
say catalogue add Vault --type remanent --encrypted --product Vault
say catalogue list

# Stores with a persistent key read the key file at the library's fixed path:
# provision one, for this demo only, when nothing is there (anything already
# there, usable or not, is left as it is).
if [ ! -e "$key_file" ] && [ ! -L "$key_file" ]; then
  dir="$(dirname "$key_file")"
  while [ ! -e "$dir" ]; do
    own_dirs+=("$dir")
    dir="$(dirname "$dir")"
  done
  own_key=1  # from here on: stopped half-way, the init's file goes too
  if ! say keyfile init; then
    own_key=0
    echo "(cannot write the key file here: the Vault store will not register)"
  fi
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

# The PIN cache, as a middleware uses it. A timeout of 0 minutes keeps a PIN
# 5 seconds after its last use.
say settings set Merrowstore.Authentication.Timeout 0
say shell --echo --script "$root/tools/mstore/demo-pin.mstore"
# The same round in a new process, with spent PIN-always PINs answered by a
# confirmation; then the process waits until the PIN's timer has removed it.
say settings set Merrowstore.Authentication.EnablePINCacheForPINAlwaysPrivateKeys 1
probe='pin-probe-ex card-0042 user-pin'
echo; echo "\$ { cat tools/mstore/demo-pin.mstore; sleep 6; echo '$probe'; } | mstore shell --echo"
{ cat "$root/tools/mstore/demo-pin.mstore"; sleep 6; echo "$probe"; } | "$mstore" --registry "$reg" shell --echo
# The PIN cache in front of a PKCS#11 token, across processes: pkcs11-tool
# through p11-kit's client module and `mstore agent` (its own temporary world).
echo; echo "=== the PKCS#11 module and its agent ==="
bash "$root/scripts/demo-pkcs11.sh" "$root/build/plain"
say settings show
say registry dump 'HKEY_LOCAL_MACHINE\Software\Norvane Co\Merrowstore'
echo
echo "demo finished"
