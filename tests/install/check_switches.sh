#!/usr/bin/env bash
# check_switches.sh SOURCE WORK: a switch set to `vendor` without its part ends the configuration with the name of what is
# missing, and with its part it is taken.
set -euo pipefail
source=$1 work=$2
rm -rf "$work"
mkdir -p "$work"
cd "$work"
fail() { echo "$*"; cat configure.log; exit 1; }

# configure ARGUMENTS...: from an empty cache but for what the compiler is.
configure() {
  rm -f build/CMakeCache.txt
  cmake -G Ninja -S "${tree:-$source}" -B build "$@" >configure.log 2>&1
}
# refused TEXT ARGUMENTS...: the configuration fails and says the text.
refused() {
  local text=$1
  shift
  ! configure "$@" || fail "accepted: $*"
  tr -s ' \n' '  ' <configure.log | grep -qF "$text" || fail "not said: $text"
}

pictures=$source/platform/optrix/include
library=$work/libOptrixTools.so
: >"$library"
vendor_pictures=(-DOSTREL_OPTRIX=vendor -DOSTREL_OPTRIX_INCLUDE="$pictures" -DOSTREL_OPTRIX_LIBRARY="$library")

refused 'OSTREL_OPTRIX=vendor needs OSTREL_OPTRIX_INCLUDE, a folder that holds optrix/optrix_picture.h' \
  -DOSTREL_OPTRIX=vendor
refused "it is '$work'" -DOSTREL_OPTRIX=vendor -DOSTREL_OPTRIX_INCLUDE="$work"
refused 'OSTREL_OPTRIX=vendor needs OSTREL_OPTRIX_LIBRARY, the path of libOptrixTools.so' \
  -DOSTREL_OPTRIX=vendor -DOSTREL_OPTRIX_INCLUDE="$pictures"
refused 'OSTREL_BUILD_TESTS needs OSTREL_OPTRIX=standin' "${vendor_pictures[@]}" -DOSTREL_BUILD_TESTS=ON
refused 'OSTREL_HOST_FRAMEWORK=vendor needs OSTREL_HOST_FRAMEWORK_INCLUDE, a folder that holds IAlgoPlugin.h' \
  -DOSTREL_HOST_FRAMEWORK=vendor
refused 'OSTREL_HOST_FRAMEWORK_LIBRARY is no file' -DOSTREL_HOST_FRAMEWORK=vendor \
  -DOSTREL_HOST_FRAMEWORK_INCLUDE="$source/platform/host_framework/include" -DOSTREL_HOST_FRAMEWORK_LIBRARY=/no_such_file
refused "OSTREL_ROS must be vendor or standin, not 'humble'" -DOSTREL_ROS=humble
CMAKE_PREFIX_PATH='' refused 'OSTREL_ROS=vendor needs rclcpp of ROS 2 (package ros-humble-rclcpp)' -DOSTREL_ROS=vendor \
  -DCMAKE_DISABLE_FIND_PACKAGE_rclcpp=ON

configure "${vendor_pictures[@]}" -DOSTREL_HOST_FRAMEWORK=vendor \
  -DOSTREL_HOST_FRAMEWORK_INCLUDE="$source/platform/host_framework/include" || fail 'complete parts are refused'
grep -q '^CMAKE_BUILD_TYPE:[A-Z]*=Release$' build/CMakeCache.txt || fail 'no build type does not mean Release'

# A checkout with an empty folder of models is refused, one without the folder says so.
mkdir tree
for entry in "$source"/*; do
  case ${entry##*/} in build | out | models) ;; *) ln -s "$entry" tree/ ;; esac
done
tree=$work/tree
configure -DOSTREL_BUILD_TESTS=OFF -DOSTREL_BUILD_APPS=OFF || fail 'a checkout without models is refused'
grep -q "has no folder 'models'" configure.log || fail 'a checkout without models is taken without a word'
mkdir tree/models
refused "The folder 'models' is empty" -DOSTREL_BUILD_TESTS=OFF -DOSTREL_BUILD_APPS=OFF
