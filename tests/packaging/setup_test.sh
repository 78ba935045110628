#!/bin/bash
# usage: setup_test.sh BUILD
# Runs the set-up command in a private root without systemd: what it makes, what it leaves alone, and
# what is left when it has been undone. That all of it serves, only a machine that boots can show.
set -euo pipefail
build=$1

folder=$(mktemp --directory)
trap 'rm -rf "$folder"' EXIT
tree=$folder/tree root=$folder/root units=$folder/units said=$folder/said

fail() {
    echo "$1" >&2
    [ ! -e "$said" ] || cat "$said" >&2
    exit 1
}

for component in session-service session-service-frontend; do
    (umask 077 && DESTDIR=$tree cmake --install "$build" --component $component >/dev/null)
done
[ "$(stat --format %a "$tree/usr/share/session-service-frontend/page")" = 755 ] ||
    fail "Only root can read what root has installed."

mkdir -p "$root"/{etc/redis,etc/pam.d,etc/nginx/{sites-enabled,conf.d},etc/ssl,etc/systemd/system,run} \
    "$root"/{var/lib/dpkg,usr/{bin,sbin,lib,lib64,local,share},proc,dev,tmp} "$units"
cp -r "$tree/usr/share/session-service" "$tree/usr/share/session-service-frontend" "$root/usr/share"
cp -r "$tree/usr/libexec" "$root/usr"
cp "$tree/usr/sbin/session-service-setup" "$root/setup"
cp "$tree"/usr/lib/systemd/system/* "$units"
for link in bin sbin lib lib64; do
    ln -s "usr/$link" "$root/$link"
done
printf '%s\n' root:x:0:0::/:/bin/sh session-service-store:x:0:0::/: session-service-frontend:x:0:0::/: \
    >"$root/etc/passwd"
printf '%s:x:0:\n' root session-service-store session-service-frontend redfish-administrators \
    redfish-operators redfish-readonly >"$root/etc/group"
echo sudo:x:0:anna >>"$root/etc/group"

# What Debian's packages bring.
configuration=$root/etc/redis/redis.conf
touch "$root/etc/.pwd.lock"
chmod 600 "$root/etc/.pwd.lock"
printf 'port 7777\n# unixsocket /run/redis/redis-server.sock\nsave ""\n' >"$configuration"
chmod 640 "$configuration"
echo "server {}" >"$root/etc/nginx/nginx.conf"
touch "$root/etc/nginx/sites-enabled/default"
for unit in redis-server nginx; do
    printf '[Service]\nExecStart=/bin/true\n[Install]\nWantedBy=multi-user.target\n' \
        >"$units/$unit.service"
done
write_status() {
    printf 'Package: %s\nStatus: install ok installed\nVersion: 1\nArchitecture: all\nMaintainer: x\nDescription: x\nConffiles:\n %s %s\n\n' \
        redis-server /etc/redis/redis.conf "$(md5sum <"$configuration" | cut -d ' ' -f 1)" \
        nginx-common /etc/nginx/nginx.conf "$(md5sum <"$root/etc/nginx/nginx.conf" | cut -d ' ' -f 1)" \
        >"$root/var/lib/dpkg/status"
}
write_status

# inside COMMAND...
inside() {
    bwrap --unshare-all --uid "${user-0}" --gid 0 --die-with-parent --hostname board --bind "$root" / \
        --ro-bind /usr/bin /usr/bin --ro-bind /usr/sbin /usr/sbin --ro-bind /usr/lib /usr/lib \
        --ro-bind /usr/lib64 /usr/lib64 --ro-bind /etc/ssl /etc/ssl --bind "$units" /usr/lib/systemd/system \
        --ro-bind "$tree/usr/lib/sysusers.d" /usr/lib/sysusers.d --proc /proc --dev /dev --chdir / \
        --clearenv --setenv PATH /usr/sbin:/usr/bin "$@"
}
set_up() {
    inside /setup "$@" >"$said" 2>&1
}
says() {
    grep --quiet --line-regexp -e "$1" "$said" || fail "It does not say: $1"
}
says_not() {
    ! grep --quiet -e "$1" "$said" || fail "It says: $1"
}
# All that it could have changed; the key and the certificate are others each time.
state() {
    (cd "$root" && find etc run usr var -printf '%p %y %m %l ' \( -type f -exec sha256sum {} \; -o -printf '\n' \) | sort)
}
is_enabled() {
    inside systemctl --quiet is-enabled "$1"
}

inside systemctl --quiet enable redis-server.service nginx.service
before=$(state)

user=1000
! set_up || fail "It lets anybody try."
says "session-service-setup: run this as root, such as with sudo."
user=0
! set_up --all || fail "It takes any option."
set_up --dry-run || fail "It does not say what it would do."
says "would have made /etc/pam.d/q73"
[ "$(state)" = "$before" ] || fail "A dry run changes something."

set_up || fail "It fails."
says "made /etc/pam.d/q73"
says "disabled nginx.service, which came with its package and serves nobody here"
says "disabled redis-server.service, which came with its package and serves nobody here"
says "made /usr/local/etc/nginx/certificate.pem, for DNS:board,DNS:localhost,.*"
says "systemd does not run here: everything starts with the machine."
for unit in session-service{,-store,-seed,-frontend}.service session-service.path session-service-health.timer; do
    is_enabled "$unit" || fail "$unit is not enabled."
done
for unit in nginx.service redis-server.service; do
    ! is_enabled $unit || fail "Debian's $unit goes on."
done
inside sh -c 'cd /usr/local/etc/nginx && ls nginx.conf limits.conf listen.conf listen-http.conf settings.lua &&
    ls /usr/local/share/nginx/lua/main.lua /usr/local/share/nginx/page/index.html /usr/local/share/nginx/metadata.xml' >/dev/null ||
    fail "The front end lacks a file."
[ "$(stat --format %a "$root/var/nginx/pkey.tmp" "$root/usr/local/etc/nginx/certificate.key" | xargs)" = "640 640" ] ||
    fail "The keys have other modes."
[ "$(stat --format %a "$configuration")" = 640 ] || fail "The store's configuration has another mode."
[[ "$(cat "$root/var/nginx/pkey.tmp")" =~ ^[0-9a-f]{64}$ ]] || fail "The key is none."
inside openssl x509 -in /usr/local/etc/nginx/certificate.pem -noout -checkend 1000000000 >/dev/null ||
    fail "The certificate does not last."

# The session service finds its store; Debian's server does not take its socket away.
[ "$(grep -m 1 '^unixsocket ' "$configuration")" = "unixsocket /run/session-service-store/redis.sock" ] ||
    fail "The session service does not find its store."
mkdir "$root/run/session-service-store"
# shellcheck disable=SC2016  # for the shell inside
socket=$(inside sh -c 'redis-server /etc/redis/redis.conf >/dev/null & i=0
    until redis-cli -p 7777 PING >/dev/null 2>&1 || [ $i -gt 300 ]; do i=$((i+1)); sleep 0.1; done
    redis-cli -p 7777 CONFIG GET unixsocket; redis-cli -p 7777 SHUTDOWN NOSAVE')
[ "$socket" = unixsocket ] || fail "Debian's server has the socket $socket."
rmdir "$root/run/session-service-store"

# A second run does nothing.
after=$(state)
set_up || fail "A second run fails."
says "Everything is set up already."
[ "$(state)" = "$after" ] || fail "A second run changes something."

# What the owner changes stays, what is missing comes back, what comes with a new package is taken.
echo "# mine" >>"$root/etc/pam.d/q73"
rm "$root/usr/local/etc/nginx/settings.lua" "$root/etc/pam.d/groups2privs.conf"
echo "return {}" >"$root/usr/local/etc/nginx/settings.lua"
echo "# new" >>"$root/usr/share/session-service/examples/q73.conf"
sed -i 's/^SessionTimeout=/&450/' "$root/var/nginx/SessionPersistentProp.conf"
set_up || fail "It fails beside changes of the owner."
says "left /etc/pam.d/q73 as it is"
says "left /usr/local/etc/nginx/settings.lua as it is"
says "made /etc/pam.d/groups2privs.conf"
says "updated /etc/pam.d/q73.conf"
says_not SessionPersistentProp
grep --quiet "# mine" "$root/etc/pam.d/q73" || fail "It takes the owner's words."

# What a power cut has emptied is made again; so are the store's lines that Redis has rewritten.
: >"$root/etc/pam.d/groups2privs.conf"
: >"$root/usr/local/etc/nginx/certificate.pem"
# As CONFIG REWRITE leaves them.
sed -i '/^unixsocket/d' "$configuration"
set_up || fail "It does not mend what a power cut has left."
says "made again /etc/pam.d/groups2privs.conf"
says "made /usr/local/etc/nginx/certificate.pem, for .*"
[ "$(grep -m 1 '^unixsocket ' "$configuration")" = "unixsocket /run/session-service-store/redis.sock" ] ||
    fail "The session service does not find its store any more."
[ "$(grep -c '^# BEGIN' "$configuration")" = 1 ] || fail "The marks are there more than once."

set_up --undo || fail "It cannot be undone."
says "left /etc/pam.d/q73: it has been changed"
says "left /usr/local/etc/nginx/settings.lua: it has been changed"
says "removed /var/nginx/SessionPersistentProp.conf"
says "enabled nginx.service again"
rm -r "$root/etc/pam.d/q73" "$root/usr/local/etc" "$root/usr/share/session-service"
cp -r "$tree/usr/share/session-service" "$root/usr/share"
diff <(echo "$before") <(state) || fail "It leaves something behind."
set_up --undo
says "Nothing has been set up."

# A unit that has been masked meanwhile does not keep the rest from being taken back.
set_up || fail "It fails after it has been undone."
ln -s /dev/null "$root/etc/systemd/system/nginx.service"
! set_up --undo || fail "It does not say that something is left."
says "nginx.service cannot be enabled again: has it been masked?"
says "removed /etc/pam.d/q73"
rm "$root/etc/systemd/system/nginx.service"
inside systemctl --quiet enable nginx.service

# Servers that somebody has set up, and a store of the owner's for the session service, stay.
echo "server {}" >"$root/etc/nginx/conf.d/own.conf"
printf 'unixsocket /run/redis/redis.sock\n' >>"$configuration"
mkdir "$root/run/redis"
touch "$root/run/redis/redis.port"
own=$(sha256sum "$configuration")
set_up || fail "It fails beside servers of the owner."
says "left the store as it is: the files of one are in /run/redis"
says "left nginx.service as it is: its configuration has been changed"
[ "$(sha256sum "$configuration")" = "$own" ] || fail "It changes the owner's store."
for unit in nginx.service redis-server.service; do
    is_enabled $unit || fail "It stops the owner's $unit."
done
! is_enabled session-service-store.service || fail "There are two stores."
