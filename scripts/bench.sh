# What the benches share; sourced from the repository's root.
# shellcheck shell=bash
. scripts/steps.sh

# run_bench NAME DEFAULT [SECONDS]: builds the bench and takes its place for so many seconds.
run_bench() {
    local name=$1 seconds=${3:-$2}
    if [ $# -gt 3 ] || ! [[ $seconds =~ ^[1-9][0-9]{0,5}$ ]]; then
        echo "usage: bench/$name [SECONDS]" >&2
        exit 2
    fi
    prepare_bench "$name"
    exec "build/release/bench/$name" "$seconds"
}

prepare_bench() {
    step packages "Installing what is missing" scripts/install-packages build run
    step namespaces "User namespaces" check_namespaces
    step build-release "Building" build_bench "$1"
    echo
}

build_bench() {
    cmake --preset release && cmake --build --preset release --target "bench-$1"
}
