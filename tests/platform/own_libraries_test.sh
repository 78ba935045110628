#!/bin/bash
# usage: own_libraries_test.sh SOURCE BUILD COMPILER
# Builds the daemon with a controller's own platform libraries, in the ways in which they can be
# given: a shared library by its file, a static one by its file, a shared one by its name.
set -euo pipefail
source=$1 build=$2 compiler=$3

fail() {
    echo "$1" >&2
    exit 1
}

own=$source/tests/platform/own_libraries
libraries=$build/libraries
mkdir -p "$libraries"
compile() {
    "$compiler" -std=c++20 -fPIC -I "$source/src" "$@"
}
compile -shared -o "$libraries/libown_config.so" "$own/config_file.cpp"
compile -c -o "$libraries/own_decryption.o" "$own/data_decryption.cpp"
ar rcs "$libraries/libown_decryption.a" "$libraries/own_decryption.o"
compile -shared -o "$libraries/libown_json.so" "$own/json_generation.cpp"

cmake -S "$source" -B "$build/daemon" -G Ninja \
    -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_COMPILER="$compiler" \
    -DSESSION_SERVICE_TESTS=OFF \
    -DSESSION_SERVICE_CONFIG_LIBRARY="$libraries/libown_config.so" \
    -DSESSION_SERVICE_DECRYPTION_LIBRARY="$libraries/libown_decryption.a" \
    -DSESSION_SERVICE_JSON_LIBRARY=own_json \
    -DCMAKE_EXE_LINKER_FLAGS="-L$libraries"
cmake --build "$build/daemon" --target session-service
daemon=$build/daemon/session-service

needed=$(readelf --dynamic --wide "$daemon" | grep NEEDED)
grep --quiet own_config <<<"$needed" || fail "The daemon does not use the configuration library."
grep --quiet own_json <<<"$needed" || fail "The daemon does not use the JSON library."
if grep --quiet libcrypto <<<"$needed"; then
    fail "The daemon needs libcrypto, although it does not decipher anything itself."
fi

# It has no store to talk to here, and ends; the log is where its own library put it.
log=$build/log
rm -rf "$log"
mkdir "$log"
status=0
bwrap --ro-bind /usr /usr --symlink usr/bin /bin --symlink usr/lib /lib --symlink usr/lib64 /lib64 \
    --unshare-user --unshare-net --unshare-pid --die-with-parent \
    --proc /proc --dev /dev --tmpfs /tmp --bind "$log" /tmp/log \
    --ro-bind "$daemon" /tmp/session-service --ro-bind "$libraries" /tmp/libraries \
    --setenv LD_LIBRARY_PATH /tmp/libraries \
    /tmp/session-service || status=$?
[ "$status" -eq 255 ] || fail "The daemon ended with status $status, without a store."
grep --quiet 'Failed to connect to Redis' "$log/chosen-by-own-library.log" ||
    fail "The daemon's log is not where the configuration library put it."
