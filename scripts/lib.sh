# lib.sh - what the scripts share; sourced, never run.
# shellcheck shell=bash

# Root of the source tree, whatever folder the script was called from.
plexa_root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd -P)

# What building and testing takes, here and in the 32-bit tree.
# shellcheck disable=SC2034
plexa_build_packages=(g++ cmake ninja-build pkg-config
  libglib2.0-dev libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev
  libgstreamer-plugins-bad1.0-dev libcairo2-dev libjson-glib-dev libgtest-dev libgmock-dev libbenchmark-dev
  gstreamer1.0-tools gstreamer1.0-plugins-base gstreamer1.0-x gstreamer1.0-plugins-good
  gstreamer1.0-plugins-bad gstreamer1.0-plugins-ugly gstreamer1.0-libav fonts-dejavu-core)

# The comment block at the head of the calling script is its help text.
usage() {
  sed -n '2,/^[^#]/{s/^# \{0,1\}//p}' "$0"
}

die() {
  printf '%s: %s\n' "$(basename "$0")" "$*" >&2
  exit 1
}

usage_error() {
  printf '%s: %s\n' "$(basename "$0")" "$*" >&2
  usage >&2
  exit 2
}

# Runs a command as root: directly, or by sudo.
as_root() {
  if [[ $EUID -eq 0 ]]; then
    "$@"
  elif command -v sudo > /dev/null; then
    sudo "$@"
  else
    die "needs root to run $1: run this as root, or install sudo"
  fi
}

# Prints those of the named Debian packages that are not installed.
missing_packages() {
  local package
  for package in "$@"; do
    # The format's ${...} is dpkg-query's own.
    # shellcheck disable=SC2016
    [[ $(dpkg-query -W -f '${db:Status-Status}' "$package" 2> /dev/null) == installed ]] ||
      printf '%s\n' "$package"
  done
}

# Compiles through ccache where there is one.
launcher_options() {
  if command -v ccache > /dev/null; then
    printf '%s\n' -DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache
  fi
}

# Files of the project whose path below its root matches an extended regular expression,
# NUL-separated. What builds leave in build*/ is none of the project's.
source_files() {
  (cd "$plexa_root" && find . \( -path ./.git -o -path './build*' \) -prune -o -type f -print0) |
    sed -z 's|^\./||' | grep -zE "$1" | sort -z
}

# Where the 32-bit tree is, or is to be.
i386_tree() {
  printf '%s\n' "${PLEXA_I386_TREE:-${XDG_CACHE_HOME:-$HOME/.cache}/gst-plexa/i386-bookworm}"
}
