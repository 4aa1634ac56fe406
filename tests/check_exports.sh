#!/usr/bin/env bash
# Fails when the shared library exports a name outside the public tevix_* / vx_* families.
set -euo pipefail
lib=$1
syms=$(nm -D --defined-only "$lib" | awk '{print $3}' | sed 's/@.*//' | sort -u)
[ -n "$syms" ] || { echo "no exported symbols in $lib"; exit 1; }
bad=$(echo "$syms" | grep -Ev '^(tevix_|vx_)' || true)
if [ -n "$bad" ]; then
  echo "unexpected exported names:"; echo "$bad"; exit 1
fi
echo "$(echo "$syms" | wc -l) exported names, all public"
