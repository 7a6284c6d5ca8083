#!/usr/bin/env bash
# The PIN cache in front of a PKCS#11 token, across processes: a SoftHSM2
# token with an ordinary key and an always-authenticate key, `mstore agent`
# serving the Merrowstore module in front of it, and pkcs11-tool reaching the
# agent through p11-kit's client module, a new process each time.
#
#   bash scripts/demo-pkcs11.sh [BUILD]    BUILD: a built tree (default build/plain)
#
# Everything happens in a temporary folder (token, registry, agent socket);
# the agent is stopped and the folder removed at the end, also on failure or
# interruption.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="$(cd "${1:-$root/build/plain}" && pwd)"
mstore="$build/bin/mstore"
client=/usr/lib/x86_64-linux-gnu/pkcs11/p11-kit-client.so
softhsm=/usr/lib/softhsm/libsofthsm2.so
for f in "$mstore" "$build/lib/libmerrowstore-pkcs11.so" "$client" "$softhsm"; do
  [ -e "$f" ] || { echo "demo-pkcs11: $f is missing (build the tree, install softhsm2 and p11-kit-modules)" >&2; exit 1; }
done

work=""
agent=""
cleanup() {
  if [ -n "$agent" ] && kill -0 "$agent" 2>/dev/null; then
    kill -TERM "$agent"
    wait "$agent" || true
  fi
  if [ -n "$work" ]; then rm -rf "$work"; fi
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

work="$(mktemp -d)"
pin=4711-demo
mkdir "$work/tokens"
printf 'directories.tokendir = %s/tokens\nobjectstore.backend = file\nlog.level = ERROR\n' "$work" >"$work/softhsm2.conf"
export SOFTHSM2_CONF="$work/softhsm2.conf"
echo "document" >"$work/data"

echo "== a SoftHSM2 token with an ordinary key (id 01) and an always-authenticate key (id 02)"
softhsm2-util --init-token --free --label demo --so-pin 0000 --pin "$pin" >/dev/null
pkcs11-tool --module "$softhsm" --login --pin "$pin" --keypairgen --key-type EC:prime256v1 --id 01 \
  --label ordinary >/dev/null 2>&1
pkcs11-tool --module "$softhsm" --login --pin "$pin" --keypairgen --key-type EC:prime256v1 --id 02 \
  --label always --always-auth >/dev/null 2>&1

mst() { "$mstore" --registry "$work/registry.db" "$@"; }
echo; echo "\$ mstore settings set Merrowstore.PKCS11.Module $softhsm --text    # the token's own module"
mst settings set Merrowstore.PKCS11.Module "$softhsm" --text
echo; echo "\$ mstore settings set Merrowstore.Authentication.Timeout 0     # 0: a PIN lives 5 s without use"
mst settings set Merrowstore.Authentication.Timeout 0

echo; echo "\$ mstore agent --dir $work/agent &"
"$mstore" --registry "$work/registry.db" --log all agent --dir "$work/agent" >"$work/agent.out" 2>"$work/agent.log" &
agent=$!
for _ in $(seq 100); do grep -q P11_KIT_SERVER_ADDRESS "$work/agent.out" && break; sleep 0.1; done
grep -q P11_KIT_SERVER_ADDRESS "$work/agent.out" || { cat "$work/agent.log" >&2; exit 1; }
cat "$work/agent.out"
eval "$(cat "$work/agent.out")"

# One pkcs11-tool process: no terminal and nothing on stdin, so a PIN prompt
# cannot be answered. Prints what it said and returns its status.
sign() {
  local id="$1"; shift
  echo "\$ pkcs11-tool --module p11-kit-client.so --login $* --sign --id $id"
  set +e
  setsid -w pkcs11-tool --module "$client" --login "$@" --sign --mechanism ECDSA --id "$id" -i "$work/data" \
    -o "$work/sig" </dev/null >"$work/tool.out" 2>&1
  local status=$?
  set -e
  grep -v '^Using' "$work/tool.out" | sed 's/^/    /' || true
  echo "    -> exit $status"
  return $status
}
status() { echo "\$ mstore agent --status"; mst agent --status --dir "$work/agent" | sed 's/^/    /'; }

echo; echo "== the PIN typed once"
sign 01 --pin "$pin"
status
echo; echo "== a new process, no PIN, no prompt"
sign 01
if grep -q 'User PIN' "$work/tool.out"; then echo "demo-pkcs11: the PIN was asked for" >&2; exit 1; fi

echo; echo "== the always-authenticate key: the PIN typed at the login serves one signature; after it the"
echo "   PIN-always settings decide what the cache answers, and the module refuses so that the program asks"
# What the cache answered the last always-authenticate login (the agent's log).
answer() { echo "    (the cache said: $(grep -o 'PINState = [a-z]*' "$work/agent.log" | tail -1 | cut -d' ' -f3))"; }
sign 02; answer
sign 02 || answer
echo "\$ mstore settings set Merrowstore.Authentication.EnablePINCacheForPINAlwaysPrivateKeys 1"
mst settings set Merrowstore.Authentication.EnablePINCacheForPINAlwaysPrivateKeys 1
sign 02 || answer
sign 02 --pin "$pin"

echo; echo "== the PIN expires by its timer (5 s without use)"
for _ in $(seq 60); do mst agent --status --dir "$work/agent" | grep -q 'pin none' && break; sleep 0.25; done
status
if sign 01; then echo "demo-pkcs11: the expired PIN still signed" >&2; exit 1; fi

echo; echo "== SIGTERM: PINs wiped, sockets removed"
kill -TERM "$agent"
wait "$agent"
agent=""
ls "$work/agent" 2>/dev/null && exit 1
echo "    agent stopped, $work/agent removed"
