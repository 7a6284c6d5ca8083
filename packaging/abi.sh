#!/usr/bin/env bash
# abi.sh check|update LIBRARY...
# The exported interface of each shared library, demangled and sorted, against
# the committed list abi/<library>.symbols (libmerrowstore.so.0.1.0 ->
# abi/libmerrowstore.symbols). "check" fails on any symbol added or gone and
# shows which; "update" rewrites the lists, for a change made on purpose.
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
mode="$1"; shift
exported() { nm -D --defined-only "$1" | awk '{ print $3 }' | c++filt | LC_ALL=C sort -u; }
status=0
for library in "$@"; do
  name="$(basename "$library")"; name="${name%%.so*}"
  list="$here/abi/$name.symbols"
  if [ "$mode" = update ]; then
    exported "$library" >"$list"
    echo "$list: $(wc -l <"$list") symbols"
  elif ! difference="$(diff <(cat "$list" 2>/dev/null) <(exported "$library"))"; then
    echo "$name: the exported interface changed (> added, < gone):"
    echo "$difference" | grep '^[<>]'
    status=1
  fi
done
if [ "$status" -ne 0 ]; then
  echo "If the change is meant, record it: bash packaging/abi.sh update <the libraries> (see docs/packaging.md)."
fi
exit "$status"
