#!/usr/bin/env bash
# shellcheck disable=SC2016,SC2034  # the checks are evaluated later, on purpose
# Builds the Debian packages (cfgd, cfgd-web) of the host build (build) and of the device's
# build (build-armel) with cpack, checks their contents (the manual pages too) and control fields
# with dpkg-deb, and runs the armel package's daemon as `cfgd -v` under qemu (-v prints the
# version and exits before doing anything, so it is safe outside the sandbox). Packages in
# build-packages/ARCH.
#   scripts/package-test.sh          (after scripts/test.sh has built both)
set -euo pipefail
cd "$(dirname "$0")/.."

out=build-packages
version=$(sed -n 's/.*kSoftwareVersion = "\(.*\)";/\1/p' src/core/version.h)
passed=0 failed=0
check() {  # check NAME COMMAND...
    if "${@:2}"; then
        passed=$((passed + 1))
        echo "ok   $1"
    else
        failed=$((failed + 1))
        echo "FAIL $1"
    fi
}
# The mode and path column of the package's file list.
files() { dpkg-deb -c "$1" | awk '{ print $1, $6 }'; }
has_file() { files "$1" | grep -qxF -- "$2"; }
field() { dpkg-deb -f "$1" "$2"; }
member() { dpkg-deb --fsys-tarfile "$1" | tar -xOf - "$2"; }  # one file's contents
no_local() { ! files "$1" | grep -q ' \./usr/local'; }

for pair in build:amd64 build-armel:armel; do
    dir=${pair%%:*} arch=${pair#*:}
    echo "== $dir ($arch)"
    # The device's layout, also in a build directory made while the default was /usr/local.
    cmake -S . -B "$dir" -DCMAKE_INSTALL_PREFIX=/usr >/dev/null
    rm -rf "${out:?}/$arch"
    mkdir -p "$out"
    cpack --config "$dir/CPackConfig.cmake" -B "$out/$arch" >"$out/cpack-$arch.log" 2>&1 ||
        { cat "$out/cpack-$arch.log"; exit 1; }
    daemon=$out/$arch/cfgd_${version}_$arch.deb web=$out/$arch/cfgd-web_${version}_all.deb
    check "$arch: cfgd: Architecture $arch" [ "$(field "$daemon" Architecture)" = "$arch" ]
    for entry in "-rwxr-xr-x ./usr/sbin/cfgd" "-rwxr-xr-x ./usr/bin/cfgctl" \
        "-rwxr-xr-x ./etc/init.d/S50cfgd" "-rw-r--r-- ./usr/share/man/man1/cfgctl.1.gz" \
        "-rw-r--r-- ./usr/share/man/man8/cfgd.8.gz"; do
        check "$arch: cfgd: $entry" has_file "$daemon" "$entry"
    done
    for page in man1/cfgctl.1.gz man8/cfgd.8.gz; do
        check "$arch: cfgd: $page gzip -9n, of this version" eval 'gz=$(member "$daemon" \
            "./usr/share/man/$page" | od -An -tx1 | tr -d " \n") &&
            [[ $gz == 1f8b08000000000002* ]] &&
            [[ $(member "$daemon" "./usr/share/man/$page" | gzip -dc) == *"\"cfgd $version\""* ]]'
    done
    check "$arch: cfgd: init script a conffile" \
        eval 'dpkg-deb -I "$daemon" conffiles | grep -qx /etc/init.d/S50cfgd'
    check "$arch: cfgd-web: Depends" [ "$(field "$web" Depends)" = "lighttpd, php-cgi, cfgd" ]
    for entry in "-rw-r--r-- ./usr/share/cfgd/php/cfgd.php" \
        "-rw-r--r-- ./usr/share/cfgd/php/cfgd_names.php" \
        "-rw-r--r-- ./usr/share/cfgd/web/public/index.php" \
        "-rw-r--r-- ./usr/share/cfgd/web/lib/app.php" \
        "-rw-r--r-- ./etc/lighttpd/conf-available/cfgd-web.conf" \
        "-rwxr-xr-x ./usr/sbin/cfgd-web-passwd"; do
        check "$arch: cfgd-web: $entry" has_file "$web" "$entry"
    done
    check "$arch: nothing under /usr/local" eval 'no_local "$daemon" && no_local "$web"'
done

echo "== the armel daemon from its package, under qemu"
root=$out/armel/root
rm -rf "$root"
dpkg-deb -x "$out/armel/cfgd_${version}_armel.deb" "$root"
status=0
text=$(qemu-arm -L /usr/arm-linux-gnueabi "$root/usr/sbin/cfgd" -v 2>&1) || status=$?
printf '%s\n' "$text"
check "armel: cfgd -v: two lines, its version, status 2" eval '[ "$status" = 2 ] &&
    [ "$(printf "%s\n" "$text" | wc -l)" = 2 ] && [ "$(printf "%s\n" "$text" | head -n 1)" = "$version" ]'
check "armel: cfgd is an ARM program" \
    eval 'arm-linux-gnueabi-readelf -h "$root/usr/sbin/cfgd" | grep -q "Machine: *ARM"'
echo "$passed passed, $failed failed"
((failed == 0))
