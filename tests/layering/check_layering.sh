#!/usr/bin/env bash
# check_layering.sh ROOT: who may include what under ROOT/src. Prints each breach and fails if there is one.
set -euo pipefail
cd "$1"
breaches=0

# forbid WHAT PATTERN PATH...: no line of the sources under the paths matches; a path !NAME is left out.
forbid() {
  local what=$1 pattern=$2 path
  shift 2
  local paths=() left_out=()
  for path in "$@"; do
    if [[ $path == !* ]]; then left_out+=("${path#!}"); elif [ -e "$path" ]; then paths+=("$path"); fi
  done
  [ ${#paths[@]} -gt 0 ] || return 0
  local found
  found=$(grep -rnE --include='*.h' --include='*.cpp' --include='*.cu' "$pattern" "${paths[@]}" || true)
  for path in "${left_out[@]}"; do found=$(grep -v "^$path" <<<"$found" || true); done
  [ -z "$found" ] && return 0
  printf '%s:\n%s\n' "$what" "$found"
  breaches=$((breaches + 1))
}

include() { printf '^ *# *include *[<"](%s)' "$1"; }

device='cuda|cublas|nvtx3/|NvInfer|NvOnnx|optrix/'
host='rclcpp/|rcutils/|class_loader/|console_bridge/|IAlgoPlugin'

forbid 'The JSON classes and the spatial functions know nothing of devices' "$(include "$device|$host")" \
  src/json_core src/tracking_runtime/libs
forbid 'The JSON classes and the spatial functions stand below the tracker and the plug-in' \
  "$(include 'tracking_runtime/tracker|tracking_runtime/parameter|ostrel_plugin')" \
  src/json_core src/tracking_runtime/libs
forbid 'Only the plug-in knows the host and its logging' "$(include "$host")" src '!src/ostrel_plugin/'
forbid 'The tracker stands below the plug-in' "$(include 'ostrel_plugin/')" src/tracking_runtime src/json_core
forbid 'Sources include what every machine has, not a stand-in' \
  "$(include 'host_cuda/|tensorrt_|dnnl|oneapi/|onnx')" src
forbid 'The include path decides between machines, not a condition' '^ *# *(if|ifdef|ifndef|elif)\b' src
forbid 'One launch header looks at the compiler' '__CUDACC__|__CUDA_ARCH__|__NVCC__' src platform \
  '!platform/launch/cuda_launch.h'
forbid 'One adapter names what is not certain of the picture library' 'ColorOrder|NormPreset' src \
  '!src/tracking_runtime/tracker/atom/optrix_adapter.h'

[ "$breaches" -eq 0 ] || { echo "$breaches rules broken"; exit 1; }
