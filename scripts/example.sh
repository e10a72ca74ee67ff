#!/usr/bin/env bash
# Builds the converter and converts the bundled example document, writing the
# result beside it as examples/<name>.vif.
set -euo pipefail
cd "$(dirname "$0")/.."

build_dir=${BUILD_DIR:-build}
example=examples/sample.tr
options=()   # e.g. (-man) for a manual page

cmake -S . -B "$build_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build "$build_dir" -j2

output=${example%.tr}.vif
"$build_dir/trofftovif" "${options[@]}" "$example" "$output"
echo "Converted $example to $output ($(wc -l <"$output") lines)."
