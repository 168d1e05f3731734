#!/usr/bin/env bash
# check_opencv.sh FILE: of OpenCV it links the core and the picture processing, and nothing else.
set -euo pipefail
linked=$(readelf -d "$1" | sed -n 's/.*(NEEDED).*\[\(libopencv_[a-z0-9_]*\)\..*/\1/p' | sort)
[ "$linked" = $'libopencv_core\nlibopencv_imgproc' ] && exit 0
printf '%s links of OpenCV:\n%s\n' "$1" "$linked"
exit 1
