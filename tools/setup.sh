# Sourced by ./run and ./test from the root of the checkout: installs what a Debian 12 machine lacks, then
# configures and builds the preset `host`. A second run with everything in place takes a moment.

ostrel_packages=(
  cmake g++ ninja-build ccache
  libopencv-dev libopencv-contrib-dev libssl-dev
  libclass-loader-dev libconsole-bridge-dev librcutils-dev librcpputils-dev
  libdnnl-dev libonnx-dev libprotobuf-dev protobuf-compiler
  libcli11-dev nlohmann-json3-dev gnuplot-nox
  libgtest-dev libgmock-dev libbenchmark-dev
)

ostrel_as_root() {
  if [ "$(id -u)" -eq 0 ]; then
    "$@"
  elif command -v sudo >/dev/null; then
    sudo "$@"
  else
    echo "installing packages needs root: run as root, or install sudo" >&2
    return 1
  fi
}

# Installs the packages given that are not there yet.
ostrel_install() {
  local missing=() package
  for package in "$@"; do
    [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" = installed ] || missing+=("$package")
  done
  [ "${#missing[@]}" -gt 0 ] || return 0
  if ! command -v apt-get >/dev/null; then
    echo "missing packages, and no apt-get to install them: ${missing[*]}" >&2
    return 1
  fi
  echo "installing: ${missing[*]}"
  ostrel_as_root apt-get update -q || return
  ostrel_as_root env DEBIAN_FRONTEND=noninteractive apt-get install -q -y --no-install-recommends "${missing[@]}"
}

# Configures when needed and builds everything, or the targets given. Output only where something fails.
ostrel_build() {
  local log=build/host/setup.log
  mkdir -p build/host
  if ! cmake --preset host >"$log" 2>&1; then
    cat "$log" >&2
    return 1
  fi
  echo "building (the first time takes some minutes)"
  if [ "$#" -gt 0 ]; then
    cmake --build --preset host --target "$@" >"$log" 2>&1
  else
    cmake --build --preset host >"$log" 2>&1
  fi || { tail -n 60 "$log" >&2; return 1; }
}

# Puts the project's trunk where the default configuration looks for an engine, seen from the root of the checkout. A link:
# it follows the model, and a file of the user's own in its place stays.
ostrel_default_engine=models/IA_engine/tracker/resnet18_192_opt5.engine
ostrel_place_trunk() {
  [ -e "$ostrel_default_engine" ] && [ ! -L "$ostrel_default_engine" ] && return
  mkdir -p "$(dirname "$ostrel_default_engine")"
  ln -sfn ../../ostrel_trunk_192.onnx "$ostrel_default_engine"
}
