#!/usr/bin/env bash
# Builds the converter and converts the bundled example, the converter's own
# manual page, with the man package; the result is examples/trofftovif.1.vif.
set -euo pipefail
cd "$(dirname "$0")/.."

build_dir=${BUILD_DIR:-build}
example=man/trofftovif.1
options=(-man)

cmake -S . -B "$build_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build "$build_dir" -j2

output=examples/$(basename "$example").vif
"$build_dir/trofftovif" "${options[@]}" "$example" "$output"
echo "Converted $example to $output ($(wc -l <"$output") lines)."
