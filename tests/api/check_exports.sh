#!/usr/bin/env bash
# A shared library exports exactly what its header declares with MACRO.
#   check_exports.sh HEADER MACRO LIBRARY
set -euo pipefail
header=$1 macro=$2 library=$3

declared=$(grep -E "^${macro} " "$header" | sed -E 's/\(.*//; s/.*[ *]//' | sort -u)
exported=$(nm -D --defined-only "$library" | awk '$2 ~ /^[TWDBRV]$/ {print $3}' |
           grep -vE '^(_init|_fini|_edata|_end|__bss_start)$' | sort -u)
if [ "$declared" != "$exported" ]; then
    echo "exports of $library differ from $header:"
    diff <(echo "$declared") <(echo "$exported") || true
    exit 1
fi
echo "$(echo "$exported" | wc -l) exports match $header"
