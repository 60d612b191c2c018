# shellcheck shell=bash
# The Debian packages of this tree, and the one function that installs those that are missing.
# To be sourced by bash, with KADREL_TOP set to the top of the tree.
# shellcheck disable=SC2034  # the lists are read by the scripts that source this file

# What compiling and linking kadrel takes.
KADREL_BUILD_PACKAGES=(
  g++
  cmake
  ninja-build
  pkg-config
  qtbase5-dev
  libossp-uuid-dev
  libsystemd-dev
)

# What the programs of tools/ need besides.
KADREL_TOOLS_PACKAGES=(
  libcli11-dev
  libncurses-dev
  libpcap-dev
  libzstd-dev
  zlib1g-dev
)

# What ./package needs besides.
KADREL_PACKAGE_PACKAGES=(
  build-essential
  debhelper
  lintian
  python3-docutils
)

# What the tests of the package need besides: its dependencies beyond the build libraries, because they run without a
# network.
KADREL_PACKAGE_TEST_PACKAGES=(
  dbus-user-session
  man-db
)

# What ./package needs besides to make roots of other Debians and to enter them.
KADREL_ROOT_PACKAGES=(
  iproute2
  mmdebstrap
  util-linux
)

# What ./run needs besides: a private session bus, and a client for it in Python.
KADREL_RUN_PACKAGES=(
  dbus-daemon
  python3
  python3-dbus
  python3-gi
  util-linux
)

# What ./test needs besides: GoogleTest and pytest, the network and capture tools of the service tests, an Art-Net
# controller to record from, style checkers, and tools that build and check the manual pages and the unit file.
KADREL_TEST_PACKAGES=(
  googletest
  libgtest-dev
  libgmock-dev
  python3-pytest
  python3-pytest-xdist
  iproute2
  nftables
  strace
  tshark
  ola
  qlcplus
  clang-format
  shellcheck
  groff-base
  python3-docutils
  systemd
  tmux
)

# What ./test --full needs besides: the checkers of locks, of code and of coverage, and what the benchmarks are built with.
KADREL_FULL_PACKAGES=(
  clang-14
  clang-tidy
  gcovr
  libbenchmark-dev
)

# What ./fuzz needs besides the build packages: the compiler that carries libFuzzer, and the libraries of the readers.
KADREL_FUZZ_PACKAGES=(
  clang-14
  libclang-rt-14-dev
  libpcap-dev
  libzstd-dev
  util-linux
  zlib1g-dev
)

# missing_packages PACKAGE...
# Prints the packages that are not installed, one per line.
missing_packages() {
  local package
  for package in "$@"; do
    dpkg-query -W -f='${db:Status-Status}\n' "$package" 2>/dev/null | grep -qx installed || printf '%s\n' "$package"
  done
}

# ensure_packages PACKAGE...
# Installs missing packages, through sudo when not root. Touches neither apt-get nor sudo when
# nothing is missing.
ensure_packages() {
  local missing=() privilege=()
  if ! command -v dpkg-query >/dev/null; then
    printf '%s: this is no Debian system (dpkg-query is missing), so the packages cannot be checked; going on without.\n' \
      "${0##*/}" >&2
    return 0
  fi
  mapfile -t missing < <(missing_packages "$@")
  ((${#missing[@]} > 0)) || return 0

  if ((EUID != 0)); then
    if ! command -v sudo >/dev/null; then
      printf '%s: packages are missing and there is no sudo here. As root, run:\n  apt-get install --no-install-recommends %s\n' \
        "${0##*/}" "${missing[*]}" >&2
      return 1
    fi
    privilege=(sudo)
  fi
  printf 'Installing %s\n' "${missing[*]}"
  "${privilege[@]}" env DEBIAN_FRONTEND=noninteractive bash "$KADREL_TOP/scripts/install-packages" "${missing[@]}"
}
