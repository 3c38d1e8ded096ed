# setup.sh: what the scripts share. Sourced.

# Installs the packages that are missing, by name, and says so.
setup_packages() {
  local missing=() package
  for package in "$@"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' || missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  echo "== Installing: ${missing[*]}"
  local sudo=
  [ "$(id -u)" -eq 0 ] || sudo=sudo
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

# Configures a preset and builds targets of it (all without any).
build() {
  local preset=$1
  shift
  echo "== Building $preset"
  cmake --preset "$preset" >/dev/null
  ninja -C "build/$preset" -j"$(nproc)" --quiet "$@"
}
