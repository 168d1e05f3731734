#!/usr/bin/env bash
# Packs the device tests and the benchmarks of the preset `cuda` for a GPU machine without OpenCV and without a package
# manager: programs, the shared libraries that they need, test data and two backbones with random weights.
#
#   tools/bundle_tests.sh [ARCHIVE]      build/cuda must be built; the archive is build/ostrel_gpu_suite.tar.xz by default
#
# What the GPU machine brings: the driver, the CUDA runtime, cuBLAS and cuDNN 9 of this build's major versions. There:
# unpack and run ostrel_gpu_suite/run_gpu_suite.sh. The C library and its loader lie apart in lib/c, for machines whose
# own are older.
set -euo pipefail
cd "$(dirname "$0")/.."
build=build/cuda
archive=${1:-build/ostrel_gpu_suite.tar.xz}
largest_archive_bytes=60000000
# Comes with the GPU machine.
brought='^lib(cuda|cudart|cublas|cublasLt|cudnn|cudnn_[a-z_]*|nvidia-.*|nvrtc)\.so'
# The C library and what belongs to it.
c_library='^(ld-linux-x86-64|libc|libm|libdl|libpthread|librt|libresolv|libnss_.*|libutil|libmvec)\.so'

fail() { echo "bundle_tests: $*" >&2; exit 1; }
[ -s "$build/gpu_suite_programs.txt" ] || fail "no $build: cmake --preset cuda && cmake --build --preset cuda"

stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
suite=$stage/ostrel_gpu_suite
mkdir -p "$suite"/{bin,lib/c,data,models}

copy_programs() {
  local kind program file
  while read -r kind program file; do
    [ -x "$file" ] || fail "$program is not built: cmake --build --preset cuda"
    install -m 755 -s "$file" "$suite/bin/$program"
    echo "$kind $program" >>"$suite/programs.txt"
  done <"$build/gpu_suite_programs.txt"
  install -m 644 -s "$build/lib/libostrel_plugin.so" "$suite/lib/"
}

# "NAME PATH" of each library that the files of the suite need, here.
needed() {
  ldd "$suite"/bin/* "$suite"/lib/*.so* 2>/dev/null |
    awk '$2 == "=>" && $3 ~ /^\// {print $1, $3} $1 ~ /^\/.*ld-linux/ {n = split($1, part, "/"); print part[n], $1}' | sort -u
}

# The reference BLAS and LAPACK in the place of whatever this machine has chosen; OpenCV's core needs a handful of their
# functions.
library_file() {
  case $1 in
    libblas.so.3) echo /usr/lib/x86_64-linux-gnu/blas/libblas.so.3 ;;
    liblapack.so.3) echo /usr/lib/x86_64-linux-gnu/lapack/liblapack.so.3 ;;
    *) echo "$2" ;;
  esac
}

copy_libraries() {
  local name path file
  while read -r name path; do
    [[ $name =~ $brought || $name == libopenblas* || -e $suite/lib/$name ]] && continue
    file=$(library_file "$name" "$path")
    [ -e "$file" ] || fail "$file is missing (packages libblas3, liblapack3)"
    if [[ $name =~ $c_library ]]; then
      install -m 755 "$file" "$suite/lib/c/$name"
    else
      install -m 644 "$file" "$suite/lib/$name"
      strip --strip-unneeded "$suite/lib/$name"
    fi
  done < <(needed)
}

copy_data() {
  cp -r tests/data/golden "$suite/data/"
  cp --parents docs/status.md "$suite/"
  local precision
  for precision in float32 float16; do
    "$build/bin/ostrel_backbone" random --seed 1 --precision "$precision" --out "$suite/models/trunk_$precision.onnx"
  done
  install -m 755 tools/run_gpu_suite.sh "$suite/"
  getconf GNU_LIBC_VERSION | awk '{print $2}' >"$suite/c_library_version"
  git rev-parse HEAD >"$suite/revision" 2>/dev/null || true
}

# With the bundled loader, each program finds every library inside the folder, but for those that the GPU machine brings.
check_closure() {
  local program name arrow path outside=0
  for program in "$suite"/bin/* "$suite/lib/libostrel_plugin.so"; do
    while read -r name arrow path _; do
      [ "$arrow" = '=>' ] || continue
      [[ $name =~ $brought || $path == "$suite"/* ]] && continue
      echo "bundle_tests: $(basename "$program") takes $name from ${path:-nowhere}" >&2
      outside=1
    done < <("$suite/lib/c/ld-linux-x86-64.so.2" --library-path "$suite/lib/c:$suite/lib" --list "$program" || true)
  done
  [ "$outside" = 0 ] || fail 'libraries outside the folder'
  if ls "$suite"/lib | grep -qE 'openblas|opencv_(videoio|imgcodecs)'; then
    fail 'a library that has no place here'
  fi
}

copy_programs
copy_libraries
copy_data
check_closure
mkdir -p "$(dirname "$archive")"
tar -C "$stage" -c ostrel_gpu_suite | xz -9 -T1 >"$archive"
bytes=$(stat -c %s "$archive")
[ "$bytes" -lt "$largest_archive_bytes" ] || fail "$archive has $bytes bytes, the limit is $largest_archive_bytes"
echo "$archive: $bytes bytes, $(wc -l <"$suite/programs.txt") programs, $(ls "$suite"/lib/*.so* | wc -l) libraries"
