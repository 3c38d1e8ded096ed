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

# Unpacks packages below build/peers that must not, or cannot, be installed: two system log daemons refuse to be installed
# beside each other, and one of them would replace the machine's own.
setup_unpacked() {
  local package
  for package in "$@"; do
    [ ! -e "build/peers/$package.unpacked" ] || continue
    echo "== Unpacking: $package"
    mkdir -p build/peers
    (cd build/peers && apt-get download -qq "$package" >/dev/null 2>&1 && dpkg -x "$package"_*.deb . &&
      rm -f "$package"_*.deb && touch "$package.unpacked")
  done
}

# Configures a preset and builds targets of it (all without any).
build() {
  local preset=$1
  shift
  echo "== Building $preset"
  cmake --preset "$preset" >/dev/null
  ninja -C "build/$preset" -j"$(nproc)" --quiet "$@"
}
