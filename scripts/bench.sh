# What the benches share; sourced from the repository's root.
# shellcheck shell=bash
. scripts/steps.sh

is_duration() {
    [[ $1 =~ ^[1-9][0-9]{0,5}$ ]]
}

# Where results can be written; nothing means nowhere.
is_results() {
    [ -z "$1" ] || [[ $1 = *.json && -d $(dirname "$1") ]]
}

# measure_and_draw RESULTS COMMAND...: the command gets the results as its last argument, if any.
# Ends with the command's status.
measure_and_draw() {
    local results=$1 status=0
    shift
    "$@" ${results:+"$results"} || status=$?
    [ -z "$results" ] || bench/draw "$results"
    exit "$status"
}

# run_bench NAME DEFAULT [SECONDS]: builds the bench and takes its place for so many seconds.
run_bench() {
    local name=$1 seconds=${3:-$2}
    if [ $# -gt 3 ] || ! is_duration "$seconds"; then
        echo "usage: bench/$name [SECONDS]" >&2
        exit 2
    fi
    prepare_bench "$name"
    exec "build/release/bench/$name" "$seconds"
}

prepare_bench() {
    step packages "Installing what is missing" scripts/install-packages build run bench
    step namespaces "User namespaces" check_namespaces
    step build-release "Building" build_bench "$1"
    echo
}

build_bench() {
    cmake --preset release && cmake --build --preset release --target "bench-$1"
}
