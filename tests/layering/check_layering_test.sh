#!/usr/bin/env bash
# The check accepts an orderly tree and finds each kind of breach.
set -euo pipefail
check=$(cd "$(dirname "$0")" && pwd)/check_layering.sh
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
failures=0

orderly_tree() {
  rm -rf "${root:?}"/*
  mkdir -p "$root"/src/{json_core,ostrel_plugin/src,tracking_runtime/libs/dcf,tracking_runtime/tracker/atom} \
    "$root/platform/launch"
  echo '#include <string>' >"$root/src/json_core/a.h"
  echo '#include <opencv2/core.hpp>' >"$root/src/tracking_runtime/libs/dcf/a.cpp"
  printf '#include <cuda_runtime.h>\n#include "tracking_runtime/libs/dcf/a.h"\n' \
    >"$root/src/tracking_runtime/tracker/atom/a.cu"
  echo 'static_cast<optrix::ColorOrder>(0)' >"$root/src/tracking_runtime/tracker/atom/optrix_adapter.h"
  printf '#include <rclcpp/logging.hpp>\n#include <class_loader/register_macro.hpp>\n' \
    >"$root/src/ostrel_plugin/src/a.cpp"
  echo '#ifdef __CUDACC__' >"$root/platform/launch/cuda_launch.h"
}

# breach FILE LINE: with this line the check fails.
breach() {
  orderly_tree
  echo "$2" >>"$root/$1"
  if "$check" "$root" >/dev/null; then
    echo "not found: '$2' in $1"
    failures=$((failures + 1))
  fi
}

orderly_tree
"$check" "$root" || { echo 'an orderly tree is refused'; exit 1; }
breach src/json_core/a.h '#include <cuda_runtime.h>'
breach src/json_core/a.h '#include "rclcpp/logger.hpp"'
breach src/json_core/a.h '#include "ostrel_plugin/src/a.h"'
breach src/tracking_runtime/libs/dcf/a.cpp '#include <NvInfer.h>'
breach src/tracking_runtime/libs/dcf/a.cpp '#  include <optrix/optrix_picture.h>'
breach src/tracking_runtime/libs/dcf/a.cpp '#include "tracking_runtime/tracker/base/bbox.h"'
breach src/tracking_runtime/tracker/atom/a.cu '#include <rclcpp/logging.hpp>'
breach src/tracking_runtime/tracker/atom/a.cu '#include <class_loader/class_loader.hpp>'
breach src/tracking_runtime/tracker/atom/a.cu '#include <IAlgoPlugin.h>'
breach src/tracking_runtime/tracker/atom/a.cu '#include "ostrel_plugin/src/a.h"'
breach src/tracking_runtime/tracker/atom/a.cu '#include <host_cuda/control.h>'
breach src/tracking_runtime/tracker/atom/a.cu '#ifdef OSTREL_HOST'
breach src/ostrel_plugin/src/a.cpp '#if defined(OSTREL_HOST)'
breach src/ostrel_plugin/src/a.cpp 'int device = __CUDA_ARCH__;'
breach platform/launch/other.h '#ifdef __CUDACC__'
breach src/ostrel_plugin/src/a.cpp 'auto order = optrix::ColorOrder::kRgb;'

[ "$failures" -eq 0 ]
