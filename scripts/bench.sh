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
# Pictures are drawn beside them. Where docs/performance.md has a place for the results' name, it gets
# the tables that the command prints, when the results belong to the documentation. Ends with the
# command's status.
measure_and_draw() {
    local results=$1 status=0 name tables
    shift
    if [ -z "$results" ]; then
        exec "$@"
    fi
    tables=$(mktemp)
    "$@" "$results" | tee "$tables" || status=${PIPESTATUS[0]}
    if [ -s "$results" ]; then
        bench/draw "$results"
        name=$(basename "$results" .json)
        [ "$results" != "$PWD/docs/pictures/$name.json" ] || put_tables "$name" "$tables"
    fi
    rm -f "$tables"
    exit "$status"
}

# put_tables NAME FILE: puts the tables of a file between the two lines "<!-- NAME -->".
put_tables() {
    local document=docs/performance.md changed
    changed=$(mktemp)
    awk -v mark="<!-- $1 -->" -v tables="$2" '
        $0 == mark && !inside {
            print
            inside = 1
            while ((getline line < tables) > 0)
                if (line ~ /^(\|.*)?$/ && (line != "" || previous != ""))
                    print previous = line
            next
        }
        $0 == mark { inside = 0; if (previous != "") print "" }
        !inside
    ' "$document" >"$changed"
    cat "$changed" >"$document"
    rm -f "$changed"
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
