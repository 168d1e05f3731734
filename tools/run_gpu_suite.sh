#!/usr/bin/env bash
# Runs on a GPU machine what tools/bundle_tests.sh packed: the device tests, compute-sanitizer over the kernels, the
# benchmarks. Lies in the unpacked folder.
#
#   ./run_gpu_suite.sh [--out DIR] [--only tests|sanitizers|benchmarks]
#
# Results go to DIR (./results): a log of each program, JSON of each benchmark, summary.txt. Exit code 0 when all passed,
# 77 where there is no GPU, 1 otherwise. OSTREL_CUDA_LIBRARIES names folders (with ':') that hold the CUDA runtime,
# cuBLAS and cuDNN where they lie in no usual place.
set -uo pipefail
suite=$(cd "$(dirname "$0")" && pwd)
out=$PWD/results
only=all
while [ $# -gt 0 ]; do
  case $1 in
    --out) out=$2; shift 2 ;;
    --only) only=$2; shift 2 ;;
    *) echo "run_gpu_suite: unknown option $1" >&2; exit 2 ;;
  esac
done
case $only in
  all | tests | sanitizers | benchmarks) ;;
  *) echo "run_gpu_suite: --only takes tests, sanitizers or benchmarks" >&2; exit 2 ;;
esac
mkdir -p "$out"
summary=$out/summary.txt
: >"$summary"
test_seconds=600
sanitizer_seconds=900
no_gpu=77

say() { echo "$*" | tee -a "$summary"; }

# Folders of the libraries that the machine brings.
cuda_folders() {
  local library folder found
  IFS=: read -ra given <<<"${OSTREL_CUDA_LIBRARIES:-}"
  for library in libcudart.so libcublas.so libcudnn.so; do
    found=
    for folder in "${given[@]}" /usr/local/cuda/lib64 /usr/local/cuda/lib /usr/local/cuda-*/lib64 /usr/local/cuda-*/lib \
      /usr/lib/x86_64-linux-gnu; do
      if [ -z "$found" ] && compgen -G "$folder/$library.*" >/dev/null; then found=$folder; fi
    done
    if [ -z "$found" ]; then
      found=$(find / -xdev -path /proc -prune -o -name "$library.*" -print 2>/dev/null | head -n 1)
      found=${found:+$(dirname "$found")}
    fi
    if [ -n "$found" ]; then echo "$found"; else echo "run_gpu_suite: no $library.* on this machine" >&2; fi
  done | sort -u | paste -sd:
}

# Whether this machine's C library is older than the one that the programs were linked with.
machine_is_older() {
  local own wanted
  own=$(getconf GNU_LIBC_VERSION 2>/dev/null | awk '{print $2}')
  wanted=$(cat "$suite/c_library_version")
  [ -z "$own" ] || [ "$(printf '%s\n%s\n' "$own" "$wanted" | sort -V | head -n 1)" != "$wanted" ]
}

driver_folders=/usr/local/nvidia/lib64:/usr/lib/x86_64-linux-gnu:/usr/lib64
folders=$(cuda_folders)
if [ "${OSTREL_BUNDLED_LOADER:-}" = 1 ] || machine_is_older; then
  launch=("$suite/lib/c/ld-linux-x86-64.so.2" --library-path "$suite/lib/c:$suite/lib:$folders:$driver_folders")
  loader='the bundled loader and C library'
else
  launch=(env "LD_LIBRARY_PATH=$suite/lib:$folders${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}")
  loader="this machine's loader and C library"
fi
export OSTREL_ROOT=$suite OSTREL_TEST_DATA=$suite/data OSTREL_PLUGIN_LIBRARY=$suite/lib/libostrel_plugin.so

programs_of() { awk -v kind="$1" '$1 == kind {print $2}' "$suite/programs.txt"; }
failed=0

# run LOG SECONDS COMMAND...: "passed", "skipped" or "FAILED", and the time that it took.
run() {
  local log=$1 seconds=$2 status started=$SECONDS
  shift 2
  timeout "$seconds" "$@" >"$out/$log" 2>&1
  status=$?
  case $status in
    0) verdict=passed ;;
    "$no_gpu") verdict=skipped ;;
    124) verdict="FAILED after $seconds s" ;;
    *) verdict="FAILED with $status" ;;
  esac
  case $verdict in FAILED*) failed=1 ;; esac
  took=$((SECONDS - started))
}

# Without a GPU a test program says so, whichever it is and whatever it is asked to run.
need_a_gpu() {
  local program
  program=$(programs_of test | head -n 1)
  run gpu.log "$test_seconds" "${launch[@]}" "$suite/bin/$program" --gtest_filter=none
  [ "$verdict" = skipped ] || return 0
  say "$(grep -h '^skipped:' "$out/gpu.log")"
  say 'nothing was run'
  exit "$no_gpu"
}

run_tests() {
  local program skipped
  for program in $(programs_of test); do
    run "$program.log" "$test_seconds" "${launch[@]}" "$suite/bin/$program"
    skipped=$(grep -c '^\[  SKIPPED \] .*(.* ms)' "$out/$program.log")
    say "test $program: $verdict, ${took} s, $skipped cases left to the stand-in"
  done
}

# Calls that tests have refused on purpose are no errors of memory.
sanitizer_options() {
  if [ "$1" = memcheck ]; then echo '--report-api-errors no'; fi
}

run_sanitizers() {
  local tool program sanitizer options
  sanitizer=$(command -v compute-sanitizer || ls /usr/local/cuda*/bin/compute-sanitizer 2>/dev/null | head -n 1)
  if [ -z "$sanitizer" ]; then
    say 'compute-sanitizer: FAILED, it is not on this machine'
    failed=1
    return
  fi
  for tool in memcheck racecheck initcheck synccheck; do
    read -ra options <<<"$(sanitizer_options "$tool")"
    for program in $(programs_of kernels); do
      run "$program.$tool.log" "$sanitizer_seconds" "$sanitizer" --tool "$tool" "${options[@]}" --error-exitcode 1 \
        --target-processes all "${launch[@]}" "$suite/bin/$program"
      say "$tool $program: $verdict, ${took} s"
    done
  done
}

run_benchmarks() {
  local program model
  for program in $(programs_of benchmark); do run_benchmark "$program" "$program"; done
  for program in $(programs_of model_benchmark); do
    for model in "$suite"/models/*.onnx; do
      run_benchmark "$program.$(basename "$model" .onnx)" "$program" "$model"
    done
  done
}

# run_benchmark NAME PROGRAM [MODEL]
run_benchmark() {
  local name=$1 program=$2
  shift 2
  run "$name.log" "$test_seconds" "${launch[@]}" "$suite/bin/$program" "--benchmark_out=$out/$name.json" \
    --benchmark_out_format=json "$@"
  if grep -q 'ERROR OCCURRED' "$out/$name.log"; then
    verdict='FAILED with an error of its own'
    failed=1
  fi
  say "benchmark $name: $verdict, ${took} s"
}

say "revision $(cat "$suite/revision" 2>/dev/null || echo unknown), $(date -u +%Y-%m-%d), $loader"
if [ -x "$(command -v nvidia-smi)" ]; then
  say "$(nvidia-smi --query-gpu=name,driver_version,compute_cap,memory.total --format=csv,noheader)"
fi
need_a_gpu
[ "$only" = all ] || [ "$only" = tests ] && run_tests
[ "$only" = all ] || [ "$only" = sanitizers ] && run_sanitizers
[ "$only" = all ] || [ "$only" = benchmarks ] && run_benchmarks
[ "$failed" = 0 ] && say 'all passed' || say 'FAILED'
exit "$failed"
