#!/bin/bash
# usage: store_test.sh SOURCE
# Runs the packaged store in a private root, with what its unit and that of the seeding start.
set -euo pipefail
source=$1

root=$(mktemp --directory)
trap 'rm -rf "$root"' EXIT
mkdir -p "$root"/{etc/session-service,opt,proc,dev,run/session-service-store,tmp}
cp -r "$source/packaging/store" "$source"/packaging/libexec/{make-store-files,seed-store} "$root/opt"

# The rest runs inside; a failed command is named.
cat >"$root/opt/test" <<'END'
#!/bin/bash
set -euo pipefail
umask 027
trap 'echo "Failed: $BASH_COMMAND" >&2' ERR
cd /run/session-service-store
service=/redfish/v1/SessionService
members='&&/redfish/v1/AccountService/Roles/Members'

start() {
    /opt/make-store-files
    redis-server /opt/store/redis.conf --supervised no >/tmp/log &
    until store PING >/dev/null 2>&1; do sleep 0.1; done
}
store() {
    REDISCLI_AUTH=$(cat redis.requirepass) redis-cli -e -s redis.sock "$@"
}
seed() {
    /opt/seed-store "$PWD/redis.sock" /etc/session-service /opt/store
}
stop() {
    store SHUTDOWN NOSAVE || true
    wait
}
setting() {
    store CONFIG GET "$1" | tail -n 1
}

start
[ "$(stat --format '%n %a' redis.* | xargs)" = \
    "redis.port 640 redis.requirepass 640 redis.sock 770 redis.unixsocket 640" ]
[ "$(cat redis.port) $(cat redis.unixsocket)" = "0 $PWD/redis.sock" ]
first=$(cat redis.requirepass)
[[ $first =~ ^[0-9a-f]{64}$ ]]
redis-cli -s redis.sock PING | grep -q NOAUTH
[ "$(setting port),$(setting save),$(setting appendonly)" = "0,,no" ]
[ "$(setting maxmemory),$(setting maxmemory-policy)" = "25165824,noeviction" ]

# Everything is there, and the scripts run.
seed
[ "$(store HGET $service SessionTimeout)" = 300 ]
[ "$(store LLEN "$members")" = 3 ]
[ "$(store HGET /redfish/v1/AccountService/Roles/Operator Id)" = '"Operator"' ]
[ "$(store EVALSHA "$(store HGET redisSHAScripts resourceChange)" 5 add /a T EventGroupId 1)" = 1 ]
while read -r key; do
    [ "$(store EXISTS "$key")" = 1 ]
done < <(sed -n 's/^[A-Z]* \([^ ]*\) .*/\1/p' /opt/store/resources.txt)

# A second time, nothing changes but what is missing.
store HSET $service SessionTimeout 77 >/dev/null
store DEL /redfish/v1/EventService >/dev/null
seed
[ "$(store HGET $service SessionTimeout)" = 77 ]
[ "$(store LLEN "$members")" = 3 ]
[ "$(store EXISTS /redfish/v1/EventService)" = 1 ]

# What the service writes into an empty store does not keep the rest out.
store DEL $service >/dev/null
store HSET $service SessionTimeout 88 @odata.etag '"W"' >/dev/null
seed
[ "$(store HGET $service SessionTimeout),$(store HGET $service ServiceEnabled)" = 88,true ]

# What is the controller's own comes first.
stop
mkdir /etc/session-service/scripts
echo "HSET $service SessionTimeout 600 Name '\"My \\\"own\\\" service\"'" >/etc/session-service/resources-own.txt
echo "return 'mine'" >/etc/session-service/scripts/resourceChange.lua
start
[ "$(cat redis.requirepass)" != "$first" ]
[ "$(store DBSIZE)" = 0 ]
seed
[ "$(store HGET $service SessionTimeout)" = 600 ]
[ "$(store HGET $service Id)" = '"SessionService"' ]
[ "$(store EVALSHA "$(store HGET redisSHAScripts resourceChange)" 0)" = mine ]
[ "$(store HEXISTS redisSHAScripts logGeneratorHelper)" = 1 ]

# A line that cannot be used is a failure that names it; the others count.
stop
printf '%s\n' "HSET /own/resource Name" "hset /own/resource Name x" "HSET /own/other Name x" \
    >/etc/session-service/resources-own.txt
start
! seed 2>/tmp/said
grep -qi 'resources-own.txt: .*wrong number' /tmp/said
grep -q 'resources-own.txt: This is no command: hset /own/resource Name x$' /tmp/said
[ "$(store HGET /own/other Name),$(store HGET $service ServiceEnabled)" = x,true ]
[ "$(store HEXISTS redisSHAScripts logGeneratorHelper)" = 1 ]
stop
END
chmod +x "$root/opt/test"

bwrap --unshare-all --uid 0 --gid 0 --die-with-parent --bind "$root" / --ro-bind /usr /usr \
    --symlink usr/bin /bin --symlink usr/lib /lib --symlink usr/lib64 /lib64 --proc /proc --dev /dev \
    --ro-bind /etc/alternatives /etc/alternatives --setenv PATH /usr/sbin:/usr/bin /opt/test
