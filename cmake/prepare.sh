# Shared by ./run, ./test and .ci/run: installs the packages that are missing, configures a preset.
# To be sourced by bash in the project's top folder.

# need_packages NAME...: installs by name what dpkg does not know as installed.
need_packages() {
  local missing=() name
  for name in "$@"; do
    [ "$(dpkg-query -W -f='${Status}' "$name" 2>/dev/null)" = "install ok installed" ] || missing+=("$name")
  done
  [ ${#missing[@]} -eq 0 ] && return
  echo "== installing ${missing[*]}"
  local sudo=""
  [ "$(id -u)" -eq 0 ] || sudo=sudo
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

# build PRESET TARGET...: configures the preset on first use and builds the targets.
build() {
  local preset=$1
  shift
  if [ ! -f "build/$preset/build.ninja" ]; then
    echo "== configuring build/$preset"
    cmake --preset "$preset" >/dev/null
  fi
  echo "== building $*"
  cmake --build "build/$preset" --target "$@" -- --quiet
}
