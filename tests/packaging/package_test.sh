#!/bin/bash
# usage: package_test.sh SOURCE BUILD ARCHITECTURE
# Packs what is built, and looks at the packages as the machine that installs them would.
set -euo pipefail
source=$1 build=$2 architecture=$3

fail() {
    echo "$1" >&2
    exit 1
}

version=1.0.0+git202001020304.abcdef0
# pack FOLDER
pack() {
    "$source/packaging/debian/make-packages" "$build" "$1" "$architecture" $version \
        "Built from commit abcdef0." >/dev/null
}

folder=$build/tests/packaging/packages
export SOURCE_DATE_EPOCH=1800000000
pack "$folder/one"
(umask 077 && pack "$folder/two")
cd "$folder/one"
service=session-service_${version}_$architecture.deb
frontend=session-service-frontend_${version}_all.deb
demo=demo/session-service-demo_${version}_$architecture.deb
debug=debug/session-service-dbgsym_${version}_$architecture.deb
demo_debug=debug/session-service-demo-dbgsym_${version}_$architecture.deb
for package in "$service" "$frontend" "$demo" "$debug" "$demo_debug"; do
    [ -f "$package" ] || fail "There is no $package."
    cmp "$package" "../two/$package" || fail "$package is another one each time."
done

lintian --allow-root --fail-on error,warning "$service" "$frontend" "$demo"

# contains PACKAGE FILE...
contains() {
    local package=$1 listing file
    shift
    listing=$(dpkg-deb --contents "$package" | awk '{ print $6 }')
    for file in "$@"; do
        grep --quiet --line-regexp --fixed-strings -e "./$file" <<<"$listing" ||
            fail "$package lacks $file."
    done
}

modules=usr/lib/$(dpkg-architecture --host-arch "$architecture" --force \
    --query DEB_HOST_MULTIARCH)/security
units=usr/lib/systemd/system
contains "$service" usr/libexec/session-service/session-service usr/sbin/sessionctl \
    usr/sbin/session-service-setup "$modules/pam_session_role.so" \
    $units/session-service{,-store,-seed,-health}.service $units/session-service.path \
    $units/session-service-store.target $units/session-service-health.timer \
    usr/libexec/session-service/{check-health,make-store-files,mend-properties,prepare-start} \
    usr/libexec/session-service/{seed-store,supervise} \
    $units/session-service-stats.{service,timer} usr/share/bash-completion/completions/sessionctl \
    usr/lib/sysusers.d/session-service.conf etc/logrotate.d/session-service \
    usr/share/man/man5/{session-service,SessionService,SessionPersistentProp,q73,groups2privs}.conf.5.gz \
    usr/share/man/man8/{session-service,session-service-setup,sessionctl,pam_session_role}.8.gz \
    usr/share/doc/session-service/{README.Debian,copyright,changelog.gz,configuration.md,examples} \
    usr/share/session-service/examples/{SessionService,SessionPersistentProp,q73,groups2privs}.conf \
    usr/share/session-service/examples/q73 usr/share/session-service/settings/SessionService.conf \
    usr/share/session-service/{redis.conf,resources.txt} \
    usr/share/session-service/scripts/{resourceChange,logGeneratorHelper}.lua
contains "$frontend" usr/share/session-service-frontend/{nginx.conf,lua/main.lua,page/index.html} \
    $units/session-service-frontend.service usr/libexec/session-service/make-frontend-files \
    usr/lib/sysusers.d/session-service-frontend.conf etc/logrotate.d/session-service-frontend
contains "$demo" usr/bin/session-service-demo usr/share/session-service-demo/seed/resources.txt

# Where the controller's own files are, nothing comes with a package.
for package in "$service" "$frontend" "$demo"; do
    if dpkg-deb --contents "$package" | awk '{ print $6 }' | grep --invert-match '/$' |
        grep --extended-regexp '^\./(etc|var|usr/local)/' |
        grep --invert-match '^./etc/logrotate.d/session-service'; then
        fail "$package brings these files, which are the controller's."
    fi
done

depends=$(dpkg-deb --field "$service" Depends)
for library in libc6 libhiredis libpam0g libssl libstdc++6; do
    grep --quiet --fixed-strings -e "$library" <<<"$depends" ||
        fail "The service does not depend on $library: $depends"
done

tree=$folder/tree
rm -rf "$tree"
for package in "$service" "$frontend" "$demo" "$debug" "$demo_debug"; do
    dpkg-deb --extract "$package" "$tree"
done

# The demo looks for files where the packages put them.
strings "$tree/usr/bin/session-service-demo" | grep --extended-regexp --only-matching \
    '^/usr/(share/session-service|libexec/session-service|lib/.*/security/).*$' | sort --unique |
    while read -r file; do
        # A controller may be run by valgrind; those that install it for that have the source.
        [ -e "$tree$file" ] || [[ $file = *.supp ]] || fail "The demo looks for $file."
    done

# What the units, the scripts and the set-up name is there.
grep --recursive --no-filename --only-matching --extended-regexp \
    '/usr/(share|libexec)/session-service[a-z-]*/[A-Za-z0-9./_-]*[A-Za-z0-9]' \
    "$tree/$units" "$tree/usr/libexec" "$tree/usr/sbin/session-service-setup" --binary-files=without-match |
    sort --unique | while read -r file; do
    [ -e "$tree$file" ] || fail "Something looks for $file."
done
if grep --recursive --binary-files=without-match '@[A-Za-z_]*@' "$tree/$units" "$tree/usr/libexec" \
    "$tree/usr/sbin/session-service-setup"; then
    fail "Some names have not been filled in."
fi

# The label is that of what is inside.
program=$tree/usr/libexec/session-service/session-service
header=$(readelf --file-header "$program" | awk '/Class:|Machine:/ { print $2, $3 $4 }' | xargs)
case "$(dpkg-deb --field "$service" Architecture) $header" in
    "amd64 ELF64 AdvancedMicro" | "amd64 ELF64 Advanced"*) ;;
    "i386 ELF32 Intel"* | "arm64 ELF64 AArch64"* | "armhf ELF32 ARM"*) ;;
    *) fail "The package of this architecture holds something else: $header." ;;
esac

# Programs are stripped, their debug information is in packages of its own, and neither names the
# folder in which they were built.
while read -r file; do
    if readelf --sections --wide "$file" | grep --quiet ' \.debug_info'; then
        fail "$file is not stripped."
    fi
    id=$(readelf --notes "$file" | sed -n 's/.*Build ID: //p')
    symbols=$tree/usr/lib/debug/.build-id/${id:0:2}/${id:2}.debug
    readelf --sections --wide "$symbols" | grep --quiet ' \.debug_info' ||
        fail "There is no debug information for $file."
    for name in "$file" "$symbols"; do
        if strings --all "$name" | grep --fixed-strings -e "$source" -e "$build"; then
            fail "$name names the folder in which it was built."
        fi
    done
done < <(find "$tree/usr/libexec/session-service/session-service" "$tree/usr/sbin/sessionctl" \
    "$tree/usr/bin/session-service-demo" "$tree/$modules/pam_session_role.so")
