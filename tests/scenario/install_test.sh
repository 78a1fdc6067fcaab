#!/usr/bin/env bash
# usage: install_test.sh BUILD-TREE SOURCE-TREE LIBDIR CC [FLAG...]
#
# Installs the build into a folder of its own, moves that folder away (nothing may depend on where it
# was), and uses it as a stranger would: a C program by pkg-config, a CMake project by
# find_package, and the program of README.md. FLAGs go to every compilation (a sanitizer's).
set -euo pipefail

build=$1 source=$2 libdir=$3 cc=$4
shift 4
flags=("$@")
here=$source/tests/scenario/install

work=$(cd "$(mktemp -d)" && pwd -P)  # the library refuses paths with symbolic links
trap 'rm -rf "$work"' EXIT
fail() {
  printf 'install_test: %s\n' "$*"
  exit 1
}

cmake --install "$build" --prefix "$work/first" > "$work/install.log" || fail "$(< "$work/install.log")"
mv "$work/first" "$work/prefix"
prefix=$work/prefix
library=$prefix/$libdir

# What is installed, and that the links and the name inside the library agree.
[[ -L $library/libgst-plexa.so && -L $library/libgst-plexa.so.1 ]] || fail 'a link is missing'
[[ $(readlink "$library/libgst-plexa.so") == libgst-plexa.so.1 ]] || fail 'the development link'
soname=$(objdump -p "$library/libgst-plexa.so" | awk '$1 == "SONAME" { print $2 }')
[[ $soname == libgst-plexa.so.1 ]] || fail "SONAME is $soname"
runpath=$(objdump -p "$library/libgst-plexa.so" | awk '$1 == "RUNPATH" || $1 == "RPATH" { print $2 }')
[[ -z $runpath ]] || fail "the library keeps a search path: $runpath"
for header in "$source"/include/gst-plexa/*.h; do
  cmp -s "$header" "$prefix/include/gst-plexa/$(basename "$header")" ||
    fail "not installed: $(basename "$header")"
done
# The programs come with their manual pages; a build without them has none to install.
if grep -qi "^PLEXA_BUILD_TOOLS:BOOL=ON$" "$build/CMakeCache.txt"; then
  for file in bin/plexa-{pvr,box} share/man/man1/plexa-{pvr,box}.1 \
    share/bash-completion/completions/plexa-{pvr,box} lib/systemd/system/plexa-box.service \
    "$libdir/libplexa-box-detect.so"; do
    [[ -s $prefix/$file ]] || fail "not installed: $file"
  done
  for program in plexa-pvr plexa-box; do
    LD_LIBRARY_PATH=$library${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH} "$prefix/bin/$program" --version \
      > "$work/program.log" 2>&1 || fail "the installed $program: $(< "$work/program.log")"
  done
fi
if grep -rIl --include='*.pc' --include='*.cmake' -e "$build" -e "$source" -e "$work" "$prefix"; then
  fail 'these files name a folder of this machine'
fi

export PKG_CONFIG_PATH=$library/pkgconfig${PKG_CONFIG_PATH:+:$PKG_CONFIG_PATH}
export LD_LIBRARY_PATH=$library${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}
cd "$work"

# pkg-config
read -r -a package <<< "$(pkg-config --cflags --libs gst-plexa plexa-platform-host)"
"$cc" -std=c11 -Wall -Wextra -Werror "${flags[@]}" "$here/first_recording.c" -o by-pkg-config "${package[@]}"
[[ $(./by-pkg-config "$work/a.kvf") == 'written and read back' ]] || fail 'by pkg-config'
[[ -s $work/a.kvf ]] || fail 'no file was written'

# CMake
CFLAGS="${flags[*]}" cmake -S "$here" -B by-cmake -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_C_COMPILER="$cc" > cmake.log 2>&1 || fail "$(< cmake.log)"
cmake --build by-cmake > build.log 2>&1 || fail "$(< build.log)"
[[ $(by-cmake/first_recording "$work/b.kvf") == 'written and read back' ]] || fail 'by find_package'

# The program that README.md shows compiles as it stands there, and refuses what is no recording.
# shellcheck disable=SC2016
sed -n '/^```c$/,/^```$/{/^```/!p}' "$source/README.md" > readme.c
[[ -s readme.c ]] || fail 'README.md shows no program'
"$cc" -std=c11 -Wall -Wextra -Werror "${flags[@]}" readme.c -o readme "${package[@]}"
if ./readme "$work/missing.mdb" 1000 > readme.log 2>&1; then
  fail 'the program of README.md accepts a missing recording'
fi
echo 'installed, moved and used'
