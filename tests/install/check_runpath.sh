#!/usr/bin/env bash
# check_runpath.sh FILE...: each finds its neighbours relative to its own place, and names no library by a path.
set -euo pipefail
expected='$ORIGIN:$ORIGIN/../lib'
failed=0
for file in "$@"; do
  dynamic=$(readelf -d "$file")
  runpath=$(sed -n 's/.*(R\(UN\)\?PATH).*\[\(.*\)\]/\2/p' <<<"$dynamic")
  if [ "$runpath" != "$expected" ]; then
    echo "$file looks for libraries in '$runpath'"
    failed=1
  fi
  if grep -E '\(NEEDED\).*\[.*/' <<<"$dynamic"; then
    echo "$file names a library by its path"
    failed=1
  fi
done
exit "$failed"
