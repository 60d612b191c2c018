# shellcheck shell=bash
# Configuring and building one preset of CMakePresets.json. To be sourced, with the top of the tree as the working
# directory.

# build_preset PRESET ALL [TARGET...]
# ALL is ON or OFF: whether the build has the unit tests, the programs beside the service and the manual pages, which need
# more packages than the service. Without targets everything is built.
build_preset() {
  local preset=$1 all=$2 targets=()
  shift 2
  if (($# > 0)); then targets=(--target "$@"); fi
  cmake --preset "$preset" -D "KADREL_BUILD_TESTS=$all" -D "KADREL_BUILD_TOOLS=$all" -D "KADREL_BUILD_MAN=$all" &&
    cmake --build --preset "$preset" --parallel "$(nproc)" "${targets[@]}"
}
