# shellcheck shell=bash
# What the scripts of this folder share; each sources it first, before it
# changes directory:
#
#   source "$(dirname "$0")/lib.sh"
#
# usage            prints the script's header comment: its --help text
# packages GROUP   the packages of one group of scripts/packages.list
# build_preset     configures a CMake preset and builds it
# sysroot_dir      makes or reuses a tree of scripts/sysroot and prints its path
#
# The build log: build_preset writes what configuring and building print to
# build.log in the preset's build directory (build/build.log for the default
# preset, build-PRESET/build.log for the others), anew on each call. Nothing of
# it reaches the terminal while all goes well; on failure the whole log goes to
# standard error, followed by a line that names the log.

DRAVIK_SCRIPT=$(cd "$(dirname "$0")" && pwd)/$(basename "$0")
DRAVIK_SOURCE_DIR=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# usage: the comment at the top of the running script, from the line after "#!"
# to the last comment line before the code, each line without its "# ".
usage() {
  sed -n '2,${/^#/!q;s/^# \{0,1\}//p}' "$DRAVIK_SCRIPT"
}

# packages GROUP: the packages that scripts/packages.list gives GROUP (host,
# sysroot, cross or kernel; "both" lines count for host and sysroot), one a
# line, in the order of the file.
packages() {
  local group names
  while read -r group names; do
    names=${names%%#*}
    case "$group" in
      "$1") ;;
      both) [[ "$1" == host || "$1" == sysroot ]] || continue ;;
      *) continue ;;
    esac
    # shellcheck disable=SC2086  # one word a package
    printf '%s\n' $names
  done <"$DRAVIK_SOURCE_DIR/scripts/packages.list"
}

# preset_dir PRESET: the build directory of a configure preset of
# CMakePresets.json, relative to the source directory.
preset_dir() {
  /usr/bin/python3 - "$DRAVIK_SOURCE_DIR/CMakePresets.json" "$1" <<'EOF'
import json
import sys

with open(sys.argv[1]) as f:
    presets = json.load(f)["configurePresets"]
for preset in presets:
    if preset["name"] == sys.argv[2]:
        print(preset["binaryDir"].replace("${sourceDir}/", ""))
        sys.exit(0)
sys.exit(f"no configure preset {sys.argv[2]} in {sys.argv[1]}")
EOF
}

# build_preset [--jobs N] PRESET [CONFIGURE-ARG...] [-- TARGET...]: configures
# PRESET with the extra configure arguments, then builds the TARGETs (all when
# none is named) with N jobs (the build tool's default when not given), with
# the log of the header above. Returns 1 when configuring failed, 2 when
# building did.
build_preset() {
  local jobs_option=() preset dir log configure=() targets=()
  if [[ "$1" == --jobs ]]; then
    jobs_option=(-j "$2")
    shift 2
  fi
  preset=$1
  shift
  while [[ $# -gt 0 && "$1" != -- ]]; do
    configure+=("$1")
    shift
  done
  [[ $# -gt 0 ]] && shift
  [[ $# -gt 0 ]] && targets=(--target "$@")
  dir=$(preset_dir "$preset") || return 1
  log="$DRAVIK_SOURCE_DIR/$dir/build.log"
  mkdir -p "$(dirname "$log")"
  if ! (cd "$DRAVIK_SOURCE_DIR" && cmake --preset "$preset" "${configure[@]}") >"$log" 2>&1; then
    cat "$log" >&2
    echo "${preset}: configuring failed; the log is $log" >&2
    return 1
  fi
  if ! (cd "$DRAVIK_SOURCE_DIR" &&
        cmake --build --preset "$preset" "${jobs_option[@]}" "${targets[@]}") >>"$log" 2>&1; then
    cat "$log" >&2
    echo "${preset}: building failed; the log is $log" >&2
    return 2
  fi
}

# sysroot_dir [--kernel]: makes or reuses the arm64 sysroot (or the kernel's
# tree) with scripts/sysroot, whose messages go to standard error, and prints
# its path; false when scripts/sysroot failed.
sysroot_dir() {
  local out
  out=$("$DRAVIK_SOURCE_DIR/scripts/sysroot" "$@") || return 1
  printf '%s\n' "${out##*$'\n'}"
}
