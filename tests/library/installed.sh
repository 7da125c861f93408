#!/usr/bin/env bash
# The installed library is found by pkg-config and CMake, and another project that takes this
# source tree gets the library alone: installed.sh PROJECT BUILD
set -euo pipefail
project=$1
build=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

for component in library development; do
  cmake --install "$build" --component "$component" --prefix "$work/prefix" >/dev/null
done

echo "pkg-config"
export PKG_CONFIG_PATH
PKG_CONFIG_PATH=$(dirname "$(find "$work/prefix" -name talvorn.pc)")
read -ra flags <<<"$(pkg-config --cflags --libs talvorn)"
cc -std=c11 -Wall -Wextra -Wpedantic -Werror "$project/examples/c/devices.c" "${flags[@]}" \
  -o "$work/devices"
c++ -std=c++17 -Wall -Wextra -Wpedantic -Werror "$project/examples/cpp/follow.cpp" "${flags[@]}" \
  -o "$work/follow"
# Nobody is there to be asked: the program runs, and says so.
said=$(LD_LIBRARY_PATH=$(pkg-config --variable=libdir talvorn) TALVORN_RUNTIME_DIR=$work \
  "$work/devices" 2>&1) && exit 1
[[ $said == "devices: the locator does not answer" ]]

echo "find_package"
cmake -G Ninja -S "$project/examples" -B "$work/examples" -DCMAKE_PREFIX_PATH="$work/prefix" \
  >/dev/null
cmake --build "$work/examples" >/dev/null

echo "add_subdirectory"
mkdir "$work/other"
cat >"$work/other/CMakeLists.txt" <<END
cmake_minimum_required(VERSION 3.25)
project(other LANGUAGES C CXX)
add_subdirectory($project locator)
add_executable(other $project/examples/c/devices.c)
target_link_libraries(other PRIVATE Talvorn::talvorn)
END
cmake -G Ninja -S "$work/other" -B "$work/other/build" >/dev/null
planned=$(ninja -C "$work/other/build" -t commands)
grep -q "libtalvorn.so" <<<"$planned"
if grep -oE "gtest|unit_|talvorn-locator|talvorn-sim|scdoc" <<<"$planned"; then exit 1; fi
