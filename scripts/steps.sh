# What demo and check share; sourced from the repository's root.
# shellcheck shell=bash

export CC=gcc CXX=g++
logs=build/logs
mkdir -p "$logs"

# step NAME TEXT COMMAND...
# Runs the command as one line of progress. Its output goes to the log NAME; when it fails, the
# output is shown and the script ends with status 1.
step() {
    local log=$logs/$1.log text=$2 start=$SECONDS
    shift 2
    printf '%-44s ' "$text"
    if ! "$@" >"$log" 2>&1; then
        printf 'failed\n'
        cat "$log" >&2
        exit 1
    fi
    printf 'done, %d s\n' $((SECONDS - start))
}

# The testbed runs the daemon in private roots like this one.
check_namespaces() {
    bwrap --unshare-user --uid 0 --gid 0 --unshare-net --unshare-pid \
        --ro-bind / / --proc /proc --dev /dev true && return
    echo "The testbed needs user namespaces, which this machine refuses to $(id -un)."
    return 1
}

# build PRESET OPTION...: the options go to the configuration.
build() {
    local preset=$1
    shift
    cmake --preset "$preset" "$@" && cmake --build --preset "$preset"
}
