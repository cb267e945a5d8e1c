# Sourced by ./tarn and ./check: installs what is missing on Debian 12, configures and builds. Tells what it does on
# standard error, so that standard output stays that of the program.

tarn_packages="g++ cmake ninja-build ccache pkg-config ffmpeg
  libavcodec-dev libavutil-dev libboost1.81-dev libcli11-dev libcurl4-openssl-dev libfmt-dev libgtest-dev libgmock-dev libmagic-dev libsqlite3-dev libssl-dev
  libswresample-dev libswscale-dev nlohmann-json3-dev"

tell() { printf '%s\n' "$*" >&2; }
fail() { tell "FAILED: $*" && exit 1; }

# install_missing PACKAGES...: installs those that are not there.
install_missing() {
  local missing
  missing=$(comm -23 <(printf '%s\n' "$@" | sort -u) \
    <(dpkg-query -W -f='${db:Status-Abbrev} ${Package}\n' "$@" 2>/dev/null | sed -n 's/^ii  *//p' | sort -u) | xargs)
  [ -z "$missing" ] && return 0
  local command="apt-get install -y --no-install-recommends $missing"
  if [ "$(id -u)" -ne 0 ]; then
    tell "Some packages are missing. Install them with:"
    tell "  sudo apt-get update && sudo $command"
    return 1
  fi
  tell "Installing: $missing"
  DEBIAN_FRONTEND=noninteractive apt-get update -qq >&2
  DEBIAN_FRONTEND=noninteractive $command -qq >&2
}

# build PRESET TARGETS...: configures once, and builds what is out of date.
build() {
  local preset=$1
  shift
  if [ ! -f "build/$preset/build.ninja" ]; then
    tell "Configuring build/$preset ..."
    cmake --preset "$preset" >&2
  fi
  # A dry run first, so that nothing is said when nothing is to be done.
  if ! ninja -C "build/$preset" -n "$@" 2>/dev/null | grep -q 'no work to do'; then
    tell "Building build/$preset ..."
    ninja -C "build/$preset" "$@" >&2
  fi
}

# build_web: the page that `tarn serve` serves, bundled into build/web when something of it has changed. Needs Node.js 18
# or newer; one that is there is kept, wherever it came from.
build_web() {
  local version
  version=$(node --version 2>/dev/null | sed 's/^v\([0-9]*\).*/\1/')
  if [ "${version:-0}" -lt 18 ] || ! command -v npm >/dev/null; then install_missing nodejs npm; fi
  if [ ! web/node_modules/.package-lock.json -nt web/package-lock.json ]; then
    tell "Fetching the page's packages ..."
    (cd web && npm ci --ignore-scripts --loglevel=error) >&2
  fi
  local sources="web/app web/plugin/src web/build.mjs web/package-lock.json"
  # shellcheck disable=SC2086
  if [ ! -f build/web/index.html ] || [ -n "$(find $sources -newer build/web/index.html -print -quit)" ]; then
    tell "Building build/web ..."
    node web/build.mjs
  fi
}
