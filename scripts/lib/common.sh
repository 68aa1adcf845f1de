# Shared shell helpers for the project's scripts. Sourced, not run.

project_root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)

as_root() {
  if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo "$@"; fi
}

# Installs the named Debian packages that are not installed yet; a machine
# that has them all makes no call to apt at all.
ensure_packages() {
  local missing=() pkg
  for pkg in "$@"; do
    dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'install ok installed' ||
      missing+=("$pkg")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  echo "Installing: ${missing[*]}"
  as_root env DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=600 update -qq
  as_root env DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=600 install -y -qq --no-install-recommends \
    "${missing[@]}" >/dev/null
}

# What scripts/demo needs: a compiler, CMake, the headers of the libraries
# the library uses and the PostgreSQL server.
demo_packages=(
  build-essential cmake pkg-config
  libpq-dev postgresql
  libssl-dev libp11-kit-dev
)

# Everything the build, the tests, the demo and the benchmarks use.
project_packages=(
  "${demo_packages[@]}" git
  libgtest-dev libbenchmark-dev
  pgbouncer
  softhsm2 opencryptoki
  clang libclang-rt-14-dev
  valgrind
)
