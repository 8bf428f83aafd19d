#!/usr/bin/env bash
# Fails when the module shows anything beyond its exported operations and the
# protobuf-c descriptors with their helper functions, or lacks one of its operations.
set -euo pipefail
# Under AddressSanitizer each exported descriptor also gets its "__odr_asan." indicator.
allowed='^(KQCtrl_[A-Za-z0-9]+|_KQCtrl_GetDynamicConfByName|[a-z0-9_]+__(descriptor|init|get_packed_size|pack|pack_to_buffer|unpack|free_unpacked)|__odr_asan\.[a-z0-9_]+__descriptor)$'
symbols=$(nm -D --defined-only "$1" | awk '{print $3}')
extra=$(grep -Ev "$allowed" <<<"$symbols" || true)
[ -z "$extra" ] || { printf 'unexpected exported symbols in %s:\n%s\n' "$1" "$extra" >&2; exit 1; }
for op in KQCtrl_ConfigDynamicAdd KQCtrl_ConfigDynamicDel KQCtrl_LoadDynamicServiceConf \
          KQCtrl_GetDynamiclistHead KQCtrl_InsertDynamicConfListNode _KQCtrl_GetDynamicConfByName; do
  grep -qx "$op" <<<"$symbols" || { echo "missing export $op" >&2; exit 1; }
done
echo "exports ok: $(wc -l <<<"$symbols") symbols"
