#!/bin/bash
# usage: health_test.sh SOURCE
# What the health timer finds out about a store and about who listens there, and what it has systemd
# do about it. That systemd does it, only a machine that boots can show.
set -euo pipefail
source=$1

root=$(mktemp --directory)
trap 'rm -rf "$root"' EXIT
mkdir -p "$root"/{opt/bin,proc,dev,run/session-service-store,tmp}
cp "$source"/packaging/libexec/{check-health,make-store-files} "$source/packaging/store/redis.conf" "$root/opt"

# All units are active; what is done to them is noted.
cat >"$root/opt/bin/systemctl" <<'EOF'
#!/bin/sh
case "$*" in
    *is-active*) ;;
    *MainPID*) cat /tmp/process ;;
    *) echo "$*" >>/tmp/done ;;
esac
EOF
printf '#!/bin/sh\n' >"$root/opt/bin/sleep"
chmod +x "$root"/opt/bin/*

# The rest runs inside; a failed command is named.
cat >"$root/opt/test" <<'END_OF_TEST'
#!/bin/bash
set -euo pipefail
umask 027
trap 'echo "Failed: $BASH_COMMAND" >&2' ERR
cd /run/session-service-store
service=/redfish/v1/SessionService
sessions=$service/Sessions

store() {
    REDISCLI_AUTH=$(cat redis.requirepass) redis-cli -e -s redis.sock "$@"
}
# listen CHANNEL...
listen() {
    REDISCLI_AUTH=$(cat redis.requirepass) redis-cli -s redis.sock SUBSCRIBE "$@" &>/dev/null &
    listener=$!
    for channel in "$@"; do
        until [ "$(store PUBSUB NUMSUB "$channel" | tail -n 1)" = 1 ]; do :; done
    done
}
hang_up() {
    kill "$listener"
    wait "$listener" || true
    until [ -z "$(store PUBSUB CHANNELS '*')" ]; do :; done
}
# finds DONE SAID: what is done, a line each, and what is said.
finds() {
    : >/tmp/done
    said=$(/opt/check-health)
    [ "$(cat /tmp/done)" = "$1" ] || { echo "Done: $(cat /tmp/done), said: $said" >&2; return 1; }
    [ "$said" = "$2" ] || { echo "Said: $said" >&2; return 1; }
}
restarted="session-service.service has been started again."

/opt/make-store-files
redis-server /opt/redis.conf --supervised no >/tmp/log &
until store PING >/dev/null 2>&1; do :; done
cp /usr/bin/sleep /tmp/session-service
/tmp/session-service infinity &
echo $! >/tmp/process
until [ "$(cat /proc/$!/comm)" = session-service ]; do :; done
store HSET $service @odata.id "\"$service\"" >/dev/null

listen "&&$sessions"/{CreateNewSession,DeleteSession} "&&$service/CHANNEL"
finds "" ""

# Sessions that the expiry has just looked at, and what it does not look at.
store RPUSH "&&$sessions/Members" "&&ObjectRef $sessions/1" "&&ObjectRef $sessions/2" >/dev/null
store HSET $sessions/1 SessionType '"Redfish"' >/dev/null
store HSET $sessions/2 SessionType '"KVMIP"' >/dev/null
store HSET "&&$sessions/1" Token '"x"' >/dev/null
finds "" ""
store HSET "&&$sessions/2" Token '"x"' >/dev/null
# outdate SESSION: as if nobody had read its reference for a minute.
outdate() {
    store EVAL "redis.call('RESTORE', KEYS[1], 0, redis.call('DUMP', KEYS[1]), 'REPLACE', 'IDLETIME', 60)" \
        1 "&&$sessions/$1" >/dev/null
}
outdate 2
finds "" ""
outdate 1
finds "restart session-service.service" "<4>Sessions do not expire: $restarted"
# Lists that others read do not hide that.
store LRANGE "&&$sessions/Members" 0 -1 >/dev/null
finds "restart session-service.service" "<4>Sessions do not expire: $restarted"
store DEL "&&$sessions/1" >/dev/null

# One channel after another has no listener.
hang_up
listen "&&$sessions/DeleteSession" "&&$service/CHANNEL"
finds "restart session-service.service" "<4>Nobody listens for logins: $restarted"
hang_up
listen "&&$sessions/CreateNewSession" "&&$service/CHANNEL"
finds "restart session-service.service" "<4>Nobody listens for logouts: $restarted"
hang_up
listen "&&$sessions"/{CreateNewSession,DeleteSession}
finds "restart session-service.service" "<4>Nobody listens for changes: $restarted"

# The store has been emptied: what the service needs at its start is put there first. What it has
# written itself meanwhile is not all of that.
store FLUSHALL >/dev/null
store HSET $service @odata.etag '"W"' >/dev/null
finds "stop session-service.service
restart session-service-seed.service
start session-service.service" "<4>The store is empty: session-service-seed.service has been started again."

# A process that still waits for the end of another one is left alone.
echo $$ >/tmp/process
store HSET $service @odata.id "\"$service\"" >/dev/null
finds "" ""

store SHUTDOWN NOSAVE || true
finds "restart session-service-store.service" \
    "<4>The store does not answer: session-service-store.service has been started again." 2>/dev/null
END_OF_TEST
chmod +x "$root/opt/test"

bwrap --unshare-all --uid 0 --gid 0 --die-with-parent --bind "$root" / --ro-bind /usr /usr \
    --symlink usr/bin /bin --symlink usr/lib /lib --symlink usr/lib64 /lib64 --proc /proc --dev /dev \
    --ro-bind /etc/alternatives /etc/alternatives --setenv PATH /opt/bin:/usr/sbin:/usr/bin /opt/test
