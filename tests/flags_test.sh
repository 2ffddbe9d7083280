#!/usr/bin/env bash
# Sanitizers in the user's own flags replace the daemon's own C++ runtime and the checks of buffers,
# and C programs are linked with them. Wants the build folder, the generator, the C and the C++
# compiler.
set -euo pipefail
cd "$(dirname "$0")/.."
folder=$1/flags-test generator=$2 c=$3 cxx=$4 status=0
unset CFLAGS CXXFLAGS LDFLAGS

link_line() {  # of a program, as Ninja or as make has it
  sed -n "/^build $1: /,/^\$/p" "$folder/build.ninja" 2>/dev/null ||
    find "$folder" -path "*/$1.dir/link.txt" -exec cat '{}' +
}
words() { tr ' ' '\n' | sed -n "/^$1/p"; }
facts() {
  link_line bh_servd | words -nodefaultlibs
  link_line c_program | words -fsanitize=
  find "$folder" \( -name build.ninja -o -name flags.make \) -exec cat '{}' + |
    words -D_FORTIFY_SOURCE=
}
wants() {  # the facts, then what CMake is told
  local shown
  rm -rf "$folder"
  cmake -S . -B "$folder" -G "$generator" -Wno-dev -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_C_COMPILER="$c" -DCMAKE_CXX_COMPILER="$cxx" "${@:2}" >/dev/null
  shown=$(facts | sort -u | paste -sd ' ')
  [ "$shown" = "$1" ] && return
  echo "CXXFLAGS=${CXXFLAGS:-} ${*:2}: wanted '$1', got '$shown'"
  status=1
}

wants '-D_FORTIFY_SOURCE=3 -nodefaultlibs' -DCMAKE_CXX_FLAGS=-g0
wants '-fsanitize=address' -DCMAKE_CXX_FLAGS=-fsanitize=address
wants '-fsanitize=undefined' '-DCMAKE_CXX_FLAGS_RELEASE=-O2 -fsanitize=undefined'
CXXFLAGS='-g0 -fsanitize=address,undefined' wants '-fsanitize=address,undefined'
exit $status
