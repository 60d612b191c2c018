# shellcheck shell=bash
# Building the Debian package. To be sourced.

# build_deb SOURCE PLACE [OPTION...]
# Builds a copy of the tree SOURCE in PLACE, with options for dpkg-buildpackage; the package arrives beside PLACE. The
# tree itself stays as it is. The time in all files is that of debian/changelog, so the same tree gives the same package.
#
# The unit tests do not run here: ./test runs them in three builds, sanitizers among them, and ./package --arch
# under qemu, ./package --releases on two Debians.
build_deb() {
  local source=$1 place=$2
  shift 2
  mkdir -p -- "$place"
  tar -C "$source" --exclude=./build --exclude=./out --exclude=./.git --exclude=__pycache__ --exclude=.pytest_cache -c . |
    tar -C "$place" -x
  (
    cd -- "$place" || exit
    # A value of the caller would win over the changelog.
    unset SOURCE_DATE_EPOCH
    LC_ALL=C.UTF-8 DEB_BUILD_OPTIONS="nocheck parallel=$(nproc)" DEB_BUILD_PROFILES=nocheck \
      dpkg-buildpackage --build=binary --unsigned-source --unsigned-changes "$@"
  )
}
