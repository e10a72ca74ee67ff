#!/usr/bin/env bash
# Builds the converter twice, once optimised with debug information and once
# with the address and undefined-behaviour sanitizers, and runs every test in
# both: unit tests, end-to-end cases, the ms and me papers, a fixed sample of
# the installed manual pages (2000 pages, 600 under the sanitizers), the tree
# command, the comparisons with mandoc's and groff's renderings. Then fuzzes
# the whole conversion for two minutes (scripts/fuzz.sh). Exits non-zero on
# any failure.
#
# What the tests need and the machine lacks is installed first (as root, with
# apt-get; otherwise the script says what to install and stops): GoogleTest,
# zlib's headers, clang and libFuzzer, mandoc and groff.
#
# The build directories default to build/ and build-asan/; BUILD_DIR and
# ASAN_BUILD_DIR choose others.
set -uo pipefail
cd "$(dirname "$0")/.."
source scripts/needs.sh

need cmake have cmake
need make have make
need g++ have "${CXX:-c++}"
need python3 have python3
install_needed "building and testing" || exit 1
need libgtest-dev have_gtest
need zlib1g-dev have_zlib
need clang have clang++
need libclang-rt-dev have_libfuzzer     # the fuzzing stage
need mandoc have mandoc                 # lint of the manual pages, reference
need groff have_groff_papers            # renderings for the comparisons
install_needed "the tests" || exit 1

build_dir=${BUILD_DIR:-build}
asan_dir=${ASAN_BUILD_DIR:-build-asan}
summaries=()
failed=0

# run_suite DIR LABEL [CMAKE OPTION...]
run_suite() {
    local dir=$1 label=$2
    shift 2
    local log
    log=$(mktemp)
    if cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" &&
        cmake --build "$dir" -j2 &&
        (cd "$dir" && ctest --output-on-failure -j2) 2>&1 | tee "$log"; then
        summaries+=("$label: $(grep -E 'tests passed|tests failed' "$log" | tail -n 1)")
    else
        failed=1
        local summary
        summary=$(grep -E 'tests passed|tests failed' "$log" | tail -n 1)
        summaries+=("$label: FAILED ${summary:-(build or configuration failed)}")
    fi
    rm -f "$log"
}

everything=(-DTROFFTOVIF_TESTS=ON -DTROFFTOVIF_TREE=ON)
run_suite "$build_dir" "RelWithDebInfo ($build_dir)" "${everything[@]}" -DTROFFTOVIF_CORPUS_SAMPLE=2000
run_suite "$asan_dir" "sanitizers ($asan_dir)" "${everything[@]}" -DTROFFTOVIF_SANITIZE=ON \
    -DTROFFTOVIF_CORPUS_SAMPLE=600

if fuzz_log=$(scripts/fuzz.sh "${FUZZ_SECONDS:-120}" 2>&1); then
    summaries+=("fuzzing: $(echo "$fuzz_log" | tail -n 1)")
else
    echo "$fuzz_log"
    failed=1
    summaries+=("fuzzing: FAILED (see above)")
fi

echo
echo "Summary"
for line in "${summaries[@]}"; do
    echo "  $line"
done
exit "$failed"
