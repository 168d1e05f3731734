#!/usr/bin/env bash
# check_exports.sh LIBRARY: no symbol that the library defines is visible from outside.
set -euo pipefail
symbols=$(nm -D --defined-only "$1")
if [ -n "$symbols" ]; then
  echo "$1 exports:"
  c++filt <<<"$symbols" | head -n 20
  exit 1
fi
