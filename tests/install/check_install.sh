#!/usr/bin/env bash
# check_install.sh BUILD SOURCE: installs the build into a folder, moves that away, and runs the installed programs
# and the guide's example, built against the package, from there.
set -euo pipefail
build=$1 source=$2
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)   # outside the build, so that a path into the build is always a mistake
trap 'rm -rf "$work"' EXIT
fail() { echo "$*"; exit 1; }

cmake --install "$build" --prefix "$work/before" >"$work/install.log" || { cat "$work/install.log"; exit 1; }
prefix=$work/moved
mv "$work/before" "$prefix"
share=$prefix/share/ostrel_plugin

# What the package promises.
for file in lib/libostrel_plugin.so bin/ostrel_host bin/ostrel_backbone \
    include/ostrel_plugin/IAlgoPlugin.h include/ostrel_plugin/optrix/optrix_picture.h \
    share/ostrel_plugin/{README.md,CHANGELOG.md,LICENSE,package.xml,docs/integration.md,docs/status.md}; do
  [ -s "$prefix/$file" ] || fail "the package lacks $file"
done
for folder in docs models configs; do
  [ ! -e "$source/$folder" ] || diff -r "$source/$folder" "$share/$folder" || fail "$folder is not installed whole"
done

# Nothing reaches back into the build.
files=("$prefix"/lib/*.so "$prefix"/bin/*)
"$here/check_runpath.sh" "${files[@]}"
for file in "${files[@]}"; do
  linked=$(env -u LD_LIBRARY_PATH ldd "$file")
  ! grep -E 'not found' <<<"$linked" || fail "$file lacks a library"
  ! grep -F "$build" <<<"$linked" || fail "$file loads from the build folder"
done
! grep -rnF -e "$build" -e "$source" "$share/cmake" || fail "the CMake package names a folder of the build"

# The installed program with the installed plug-in.
cd "$work"
"$prefix/bin/ostrel_backbone" random --tiny --input-size 192 --seed 1 --out engine.onnx
"$prefix/bin/ostrel_host" schema >schema.json
grep -q '"tracker_engine_path"' schema.json || fail 'the installed program does not reach the plug-in'

# A host outside: it finds the package, compiles, and reaches its first box.
launcher=$(command -v ccache || true)
{
  cmake -G Ninja -S "$share/docs/examples/minimal_host" -B example -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_COMPILER_LAUNCHER="$launcher"
  cmake --build example
} >example.log 2>&1 || { cat example.log; exit 1; }
example/minimal_host "$prefix/lib/libostrel_plugin.so" engine.onnx
