# Sourced by example.sh and test.sh: finds which of the Debian packages a
# script needs are missing, by trying what each one provides, and installs
# them (as root, with apt-get) or says in one line how to.
#   need PACKAGE COMMAND...   PACKAGE is missing unless COMMAND succeeds
#   install_needed PURPOSE    installs what is missing, or fails saying what

needed_packages=()

need() {
    local package=$1
    shift
    "$@" >/dev/null 2>&1 || needed_packages+=("$package")
}

have() {
    command -v "$1"
}

# compiles_with FLAGS...: a small C++ program on standard input compiles and
# links with the C++ compiler and these flags.
compiles_with() {
    local compiler=${CXX:-c++}
    [ "$1" = --clang ] && { compiler=clang++; shift; }
    have "$compiler" && "$compiler" -std=c++20 -x c++ - -o /dev/null "$@"
}

have_zlib() {
    printf '#include <zlib.h>\nint main() { return zlibVersion()[0] == 0; }\n' | compiles_with -lz
}

have_gtest() {
    printf '#include <gtest/gtest.h>\nTEST(Setup, Links) {}\n' |
        compiles_with -lgtest_main -lgtest -pthread
}

# libFuzzer, which comes apart from clang itself.
have_libfuzzer() {
    printf 'extern "C" int LLVMFuzzerTestOneInput(const unsigned char*, unsigned long) { return 0; }\n' |
        compiles_with --clang -fsanitize=fuzzer
}

# groff with the ms and me macros: the minimal groff-base has neither.
have_groff_papers() {
    [ -z "$(groff -ms -me -z </dev/null 2>&1)" ]
}

install_needed() {
    local purpose=$1
    [ ${#needed_packages[@]} -eq 0 ] && return 0
    local packages=${needed_packages[*]}
    if [ "$(id -u)" -ne 0 ] || ! have apt-get >/dev/null; then
        echo "$(basename "$0"): missing for $purpose: $packages; install with: sudo apt-get install $packages" >&2
        return 1
    fi
    echo "Installing $packages for $purpose"
    export DEBIAN_FRONTEND=noninteractive
    if ! { apt-get update -qq && apt-get install -y -qq --no-install-recommends $packages; }; then
        echo "$(basename "$0"): could not install $packages for $purpose" >&2
        return 1
    fi
    needed_packages=()
}
