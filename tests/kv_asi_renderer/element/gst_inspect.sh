#!/usr/bin/env bash
# gst-inspect-1.0 loads the build tree's plugin (GST_PLUGIN_PATH set by ctest) and shows
# the element; the property table itself is checked in plugin.cpp.
#
#   gst_inspect.sh <gst-inspect-1.0>
set -euo pipefail
out=$("$1" kv_asi_renderer)
expect=(
  'Long-name                Karvo MBXXX ASI Renderer'
  'Version                  1.20.1'
  'SINK template: '"'"'sink'"'"
  'Range: 0 - 10000 Default: 1000'
  'Pointer. Write only'
)
for e in "${expect[@]}"; do
  grep -qF -- "$e" <<<"$out" || { echo "missing from gst-inspect-1.0 output: $e"; echo "$out"; exit 1; }
done
