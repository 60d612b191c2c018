# shellcheck shell=bash
# Roots of other Debians below build/. To be sourced, with KADREL_TOP set to the top of the tree.

# debian_archive
# Prints the archive of Debian that apt of this machine uses. Only that: without the security updates, all architectures have
# the same versions, which they need beside each other.
debian_archive() {
  # shellcheck disable=SC2016  # for apt
  apt-get indextargets --format '$(REPO_URI)' 'Origin: Debian' 'Label: Debian' | head -n 1
}

# say TEXT
# A line of progress, with the seconds so far.
say() {
  printf '==> %4d s  %s\n' "$SECONDS" "$1"
}

# only_root WHAT
# Ends the script where it may not make roots.
only_root() {
  ((EUID == 0)) && return
  printf 'package: %s makes a root and enters it, which only root may do.\n' "$1" >&2
  exit 1
}

# logged LOG COMMAND...
# Runs a command; its output goes into a file, and the end of it is shown when it fails.
logged() {
  local log=$1
  shift
  "$@" >"$log" 2>&1 && return
  grep -vE '^ +Start +[0-9]+: |Test +#[0-9]+: .* Passed ' -- "$log" | tail -n 40 >&2
  printf 'package: failed; the whole output is in %s\n' "$log" >&2
  exit 1
}

# make_root ROOT WANTED COMMAND...
# Makes a root with a command, unless there is one that was made for the same WANTED.
make_root() {
  local root=$1 wanted=$2
  shift 2
  if [[ -d $root && $(cat -- "$root.made-for" 2>/dev/null) == "$wanted" ]]; then return; fi
  rm -rf -- "$root" "$root.made-for"
  mkdir -p -- "${root%/*}"
  logged "$root.log" "$@"
  printf '%s\n' "$wanted" >"$root.made-for"
}

# copy_tree ROOT
# Puts this tree into a root, as /src, with the times of its files: what is not new is not compiled again. Forgets the package.
copy_tree() {
  rm -rf -- "$1/src" "$1/build/package"
  mkdir -p -- "$1/src"
  tar -C "$KADREL_TOP" --exclude=./build --exclude=./out --exclude=./.git --exclude=__pycache__ --exclude=.pytest_cache -c . |
    tar -C "$1/src" -x
}

# enter ROOT COMMAND...
# Runs a command in a root, with its own mounts, processes and network, which end with it.
enter() {
  # shellcheck disable=SC2016  # for the inner shell
  unshare --mount --net --pid --ipc --fork --kill-child -- bash -euc '
    root=$1
    shift
    # A mount of its own: tests in there change how it is shared.
    mount --bind "$root" "$root"
    mount -t proc proc "$root/proc"
    mount -t tmpfs tmpfs "$root/tmp"
    mount -t devpts -o newinstance,ptmxmode=0666 devpts "$root/dev/pts"
    mount --bind "$root/dev/pts/ptmx" "$root/dev/ptmx"
    ip link set lo up
    exec chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 HOME=/root "$@"
  ' enter "$@"
}

# build_units ROOT [OPTION...]
# Builds the unit tests of /src in a root, with options for CMake.
build_units() {
  local root=$1
  shift
  enter "$root" cmake -S /src -B /build/unit -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@"
  enter "$root" nice cmake --build /build/unit --parallel "$(nproc)"
}

# run_units ROOT LOG [VARIABLE=VALUE]
# Runs them and says how many have passed.
run_units() {
  local root=$1 log=$2
  shift 2
  logged "$log" enter "$root" env "$@" ctest --test-dir /build/unit --parallel "$(nproc)" --output-on-failure
  grep 'tests passed' -- "$log"
}
