#!/usr/bin/env bash
# Fails when the module shows anything beyond its exported operations and the
# protobuf-c descriptors with their helper functions.
set -euo pipefail
lib=$1
# Under AddressSanitizer each exported descriptor also gets its "__odr_asan." indicator.
allowed='^(KQCtrl_[A-Za-z0-9]+|_KQCtrl_GetDynamicConfByName|[a-z0-9_]+__(descriptor|init|get_packed_size|pack|pack_to_buffer|unpack|free_unpacked)|__odr_asan\.[a-z0-9_]+__descriptor)$'
symbols=$(nm -D --defined-only "$lib" | awk '{print $3}')
[ -n "$symbols" ] || { echo "no symbols read from $lib" >&2; exit 1; }
extra=$(printf '%s\n' "$symbols" | grep -Ev "$allowed" || true)
if [ -n "$extra" ]; then
  echo "unexpected exported symbols in $lib:" >&2
  printf '  %s\n' $extra >&2
  exit 1
fi
for op in KQCtrl_ConfigDynamicAdd KQCtrl_ConfigDynamicDel KQCtrl_LoadDynamicServiceConf \
          KQCtrl_GetDynamiclistHead KQCtrl_InsertDynamicConfListNode _KQCtrl_GetDynamicConfByName; do
  printf '%s\n' "$symbols" | grep -qx "$op" || { echo "missing export $op" >&2; exit 1; }
done
echo "exports ok: $(printf '%s\n' "$symbols" | wc -l) symbols"
