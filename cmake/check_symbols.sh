#!/usr/bin/env bash
# The built library exports what lib/symbols.txt lists, no more and no less, and defines none of the support layer's names.
set -euo pipefail
library=$1
cd "$(dirname "$0")/.."

exported=$(nm -D --defined-only "$library" | awk '$2 != "A" {sub(/@.*/, "", $3); print $3}' | LC_ALL=C sort)
if ! diff <(LC_ALL=C sort lib/symbols.txt) <(printf '%s\n' "$exported") >&2; then
    echo "The exported names differ from lib/symbols.txt (< promised, > found)." >&2
    exit 1
fi
if readelf -d "$library" | grep -q 'NEEDED.*veliasupport'; then
    echo "The library must not be linked to a support layer: the process brings one." >&2
    exit 1
fi
echo "The exported names are the promised ones."
