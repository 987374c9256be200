# What the scripts beside it share; they source it. On a bare Debian 12 there is bash and what it
# needs, so nothing else is taken for granted before need_packages.
# shellcheck shell=bash
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

build_packages=(
  g++ cmake ninja-build pkg-config python3
  uthash-dev libcli11-dev nlohmann-json3-dev libsqlite3-dev libgtest-dev libbenchmark-dev
  libstb-dev libasio-dev
)
# With these the Java binding is built too, and its example.
java_packages=(openjdk-17-jdk-headless libxerial-sqlite-jdbc-java)

say() { printf '==> %s\n' "$*"; }

die() {
  printf '%s: %s\n' "$0" "$*" >&2
  exit 1
}

# Shows what a command printed, without its lines of progress, when it failed or warned.
quietly() {
  local log rc=0
  log=$(mktemp)
  "$@" >"$log" 2>&1 </dev/null || rc=$?
  if [ "$rc" -ne 0 ] || grep -qE 'warning:|CMake Warning' "$log"; then
    sed '/^\[[0-9]*\/[0-9]*\] /d' "$log" >&2
  fi
  rm -f "$log"
  return "$rc"
}

missing_packages() {
  local package status
  for package; do
    status=$(dpkg-query -W -f '${db:Status-Status} ' "$package" 2>/dev/null) || true
    [[ " $status" == *' installed '* ]] || printf '%s\n' "$package"
  done
}

# Installs what is missing of the packages, or names it where that takes a right the user lacks.
need_packages() {
  if ! command -v dpkg-query >/dev/null; then
    say "No dpkg here; taken to be installed: $*"
    return
  fi
  local missing=() as_root=()
  mapfile -t missing < <(missing_packages "$@")
  [ ${#missing[@]} -gt 0 ] || return 0
  if [ "$(id -u)" -ne 0 ]; then
    as_root=(sudo)
    if ! command -v sudo >/dev/null || ! { sudo -n true 2>/dev/null || { [ -t 0 ] && sudo -v; }; }; then
      die "these packages are missing, and it takes root to install them: ${missing[*]}
As root: apt-get update && apt-get install -y --no-install-recommends ${missing[*]}"
    fi
  fi
  local apt=("${as_root[@]}" env DEBIAN_FRONTEND=noninteractive
    apt-get -q -y -o DPkg::Lock::Timeout=300)
  say "Installing ${missing[*]}"
  quietly "${apt[@]}" update || say "apt-get update failed; going on with the lists that are there"
  quietly "${apt[@]}" install --no-install-recommends "${missing[@]}" ||
    die "apt-get install failed, its messages are above"
}

# build PRESET [TARGET...]: configures and builds; everything without a target.
build() {
  local preset=$1 dir=build/$1 targets=()
  shift
  [ $# -eq 0 ] || targets=(--target "$@")
  if [ -e "$dir" ] && [ ! -w "$dir" ]; then
    die "$dir belongs to $(stat -c %U "$dir"); remove it or go on as that user"
  fi
  # A build directory keeps the generator it was made with.
  export CMAKE_GENERATOR=${CMAKE_GENERATOR:-Ninja}
  say "Building $dir"
  quietly cmake --preset "$preset" || die "configuring $dir failed, the messages are above"
  quietly cmake --build --preset "$preset" -j "$(nproc)" "${targets[@]}" ||
    die "building $dir failed, the messages are above"
}
