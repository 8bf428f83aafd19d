#!/usr/bin/env bash
# scripts/test and scripts/demo, run without root, stop at once with exit 2 and say why
# (instead of failing later in CMake or in the namespaces).
set -u
root=$(cd "$(dirname "$0")/.." && pwd)
as_user=()  # as root, drop to nobody for the run; otherwise we already are a user
[ "$(id -u)" -eq 0 ] && as_user=(setpriv --reuid=65534 --regid=65534 --clear-groups)
status=0
for script in test demo; do
  out=$("${as_user[@]}" "$root/scripts/$script" 2>&1 </dev/null)
  rc=$?
  [ "$rc" -eq 2 ] && grep -q "^$script: needs root" <<<"$out" || { echo "scripts/$script without root: exit $rc, output: $out" >&2; status=1; }
done
exit $status
