#!/usr/bin/env bash
# The library builds alone, without what client and tests need, and gives its
# package. Wants the build folder, the C and the C++ compiler.
set -euo pipefail
cd "$(dirname "$0")/.."
folder=$1/only-library-test
unset CFLAGS CXXFLAGS LDFLAGS

rm -rf "$folder"
cmake -S . -B "$folder" -Wno-dev --no-warn-unused-cli \
  -DBH_ONLY_LIBRARY=ON \
  -DCMAKE_C_COMPILER="$2" -DCMAKE_CXX_COMPILER="$3" \
  -DCMAKE_DISABLE_FIND_PACKAGE_{CLI11,nlohmann_json,GTest,benchmark}=ON >/dev/null
cmake --build "$folder" >/dev/null
cpack --config "$folder/CPackConfig.cmake" -B "$folder/packages" >/dev/null
diff <(echo libbh-dev) <(cd "$folder/packages" && ls -- *.deb | cut -d_ -f1)
