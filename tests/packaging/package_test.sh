#!/bin/bash
# usage: package_test.sh SOURCE BUILD ARCHITECTURE
# Packs what is built, and looks at the packages as the machine that installs them would.
set -euo pipefail
source=$1 build=$2 architecture=$3

fail() {
    echo "$1" >&2
    exit 1
}

# pack FOLDER
pack() {
    rm -rf "$1"
    dpkg-architecture --host-arch "$architecture" --force --command \
        cpack --config "$build/CPackConfig.cmake" -B "$1" >/dev/null
}

folder=$build/tests/packaging/packages
export SOURCE_DATE_EPOCH=1700000000
pack "$folder/one"
pack "$folder/two"
cd "$folder/one"
version=$(dpkg-parsechangelog --file "$source/packaging/debian/changelog" --show-field Version)
service=session-service_${version}_$architecture.deb
frontend=session-service-frontend_${version}_all.deb
demo=session-service-demo_${version}_$architecture.deb
for package in "$service" "$frontend" "$demo"; do
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
contains "$service" usr/sbin/session-service usr/sbin/sessionctl "$modules/pam_session_role.so" \
    usr/lib/systemd/system/session-service.service \
    usr/lib/systemd/system/session-service-store.target \
    usr/lib/systemd/system/session-service-stats.{service,timer} \
    usr/share/bash-completion/completions/sessionctl \
    usr/libexec/session-service/supervise \
    usr/share/man/man5/{session-service,SessionService,SessionPersistentProp,q73,groups2privs}.conf.5.gz \
    usr/share/man/man8/{session-service,sessionctl,pam_session_role}.8.gz \
    usr/share/doc/session-service/{README.Debian,copyright,changelog.gz,configuration.md} \
    usr/share/doc/session-service/examples/{SessionService,SessionPersistentProp,q73,groups2privs}.conf \
    usr/share/doc/session-service/examples/q73
contains "$frontend" usr/share/session-service-frontend/{nginx.conf,lua/main.lua,page/index.html}
contains "$demo" usr/bin/session-service-demo usr/share/session-service-demo/seed/resources.txt

# Where the controller's own files are, nothing comes with a package.
for package in "$service" "$frontend" "$demo"; do
    if dpkg-deb --contents "$package" | awk '{ print $6 }' |
        grep --extended-regexp '^\./(etc|var|usr/local)/'; then
        fail "$package brings these files, which are the controller's."
    fi
done

depends=$(dpkg-deb --field "$service" Depends)
for library in libc6 libhiredis libpam0g libssl libstdc++6; do
    grep --quiet --fixed-strings -e "$library" <<<"$depends" ||
        fail "The service does not depend on $library: $depends"
done

# The demo looks for files where the packages put them.
tree=$folder/tree
rm -rf "$tree"
for package in "$service" "$frontend" "$demo"; do
    dpkg-deb --extract "$package" "$tree"
done
strings "$tree/usr/bin/session-service-demo" | grep --extended-regexp --only-matching \
    '^/usr/(share/session-service|sbin/session-service|lib/.*/security/).*$' | sort --unique |
    while read -r file; do
        # A controller may be run by valgrind; those that install it for that have the source.
        [ -e "$tree$file" ] || [[ $file = *.supp ]] || fail "The demo looks for $file."
    done
grep --quiet '^ExecStart=/usr/sbin/session-service$' \
    "$tree/usr/lib/systemd/system/session-service.service" || fail "The unit starts something else."
