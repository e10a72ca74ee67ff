#!/usr/bin/env bash
# Builds the converter and converts the bundled example, the converter's own
# manual page, with the man package; the result is examples/trofftovif.1.vif.
# The converter needs nothing but a C++20 compiler, CMake and make: neither
# GoogleTest nor zlib (for trofftovif-tree) is asked for in a fresh build
# folder, and only the converter is built.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/needs.sh

build_dir=${BUILD_DIR:-build}
example=man/trofftovif.1
options=(-man)

need cmake have cmake
need make have make
need g++ have "${CXX:-c++}"
install_needed "building the converter"

# A build folder configured before (by scripts/test.sh, say) keeps its own
# settings; only the converter's target is built in it.
configure=()
if [ ! -f "$build_dir/CMakeCache.txt" ]; then
    configure=(-DTROFFTOVIF_TESTS=OFF -DTROFFTOVIF_TREE=OFF)
fi
cmake -S . -B "$build_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "${configure[@]}"
cmake --build "$build_dir" -j2 --target trofftovif

output=examples/$(basename "$example").vif
"$build_dir/trofftovif" "${options[@]}" "$example" "$output"
echo "Converted $example to $output ($(wc -l <"$output") lines)."
