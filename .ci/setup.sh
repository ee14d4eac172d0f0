# What ./run, ./test and ./package share: packages, builds, and a directory for what must not stay behind.
# Sourced by bash, from the project's directory.

set -euo pipefail

# The agent and its tool, and what a manager asks them with.
kRunPackages=(
  g++ cmake ninja-build pkg-config
  libabsl-dev libboost-dev libcli11-dev libfmt-dev libmnl-dev libmount-dev libproc2-dev libsnmp-dev
  libsystemd-dev libuv1-dev nlohmann-json3-dev
  erlang-snmp # the base MIB modules, which no other package of Debian's main archive has as files
  snmp
)
# With what speaks to etcd, with the tests, to make packages, and with what is checked besides.
kEtcdPackages=("${kRunPackages[@]}" libgrpc++-dev libprotobuf-dev protobuf-compiler protobuf-compiler-grpc)
kTestPackages=(
  "${kEtcdPackages[@]}" libgmock-dev libgtest-dev librapidcheck-dev
  binutils etcd-client etcd-server git iproute2 openssl procps python3 smitools snmpd
)
kPackagePackages=("${kEtcdPackages[@]}" debhelper)
kCheckPackages=(
  "${kTestPackages[@]}" "${kPackagePackages[@]}" clang clang-format clang-tidy libbenchmark-dev libclang-rt-14-dev python3-clang-14
  curl lintian mmdebstrap systemd-container zsh
)

say() { printf '%s\n' "$*" >&2; }
fail() {
  say "$(basename "$0"): $*"
  exit 1
}

# Everything in it is gone when the script ends, however it ends.
scratch=$(mktemp -d)
atExit() { :; } # redefined by scripts that have more to put away
trap 'status=$?; trap - EXIT INT TERM HUP; atExit; rm -rf "$scratch"; exit $status' EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
trap 'exit 129' HUP

# quietly COMMAND...: its output is shown only when it fails.
quietly() {
  if ! "$@" >"$scratch/log" 2>&1 </dev/null; then
    tail -n 40 "$scratch/log" >&2
    return 1
  fi
}

asRoot() {
  if [ "$(id -u)" = 0 ]; then "$@"; else sudo "$@"; fi
}

# needPackages NAME...: installs those that are missing.
needPackages() {
  command -v apt-get >/dev/null || fail "needs a Debian system (found no apt-get)"
  local installed missing=() package
  installed=" $(dpkg-query -W -f='${binary:Package}=${db:Status-Status} ' "$@" 2>/dev/null || true) "
  for package in "$@"; do
    [[ $installed =~ \ "$package"(:[a-z0-9]+)?=installed\  ]] || missing+=("$package")
  done
  [ ${#missing[@]} = 0 ] && return
  [ "$(id -u)" = 0 ] || command -v sudo >/dev/null || fail "needs root or sudo to install: ${missing[*]}"
  say "Installing ${#missing[@]} packages: ${missing[*]}"
  [ "$(id -u)" = 0 ] || sudo -v
  quietly asRoot apt-get -q update || fail "apt-get update failed"
  quietly asRoot env DEBIAN_FRONTEND=noninteractive apt-get -qy install --no-install-recommends "${missing[@]}" ||
    fail "apt-get install failed"
}

# configure PRESET [PART...]: the agent, with these parts (TREL_ETCD, TREL_TESTS, TREL_BENCHMARKS) and those that the
# build has already. What other parts take may not be installed.
configure() {
  local preset=$1 part options=()
  shift
  for part in TREL_ETCD TREL_TESTS TREL_BENCHMARKS; do
    if [[ " $* " == *" $part "* ]] || grep -qs "^$part:BOOL=ON\$" "build/$preset/CMakeCache.txt"; then
      options+=("-D$part=ON")
    else
      options+=("-D$part=OFF")
    fi
  done
  quietly cmake --preset "$preset" "${options[@]}" || fail "cmake --preset $preset failed"
}

# build PRESET TARGET...: silent when there is nothing to do.
build() {
  local preset=$1 steps
  shift
  steps=$(ninja -C "build/$preset" -n "$@" | grep -c '^\[' || true)
  [ "$steps" = 0 ] && return
  say "Building build/$preset ($steps steps)"
  if [ -t 1 ]; then
    cmake --build --preset "$preset" --target "$@"
  else
    quietly cmake --build --preset "$preset" --target "$@"
  fi || fail "the build of build/$preset failed"
}
