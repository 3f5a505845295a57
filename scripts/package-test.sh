#!/usr/bin/env bash
# shellcheck disable=SC2016,SC2034  # the checks are evaluated later, on purpose
# Builds the Debian packages for amd64 and armel and checks them. `cfgd`, the daemon's package
# that ships on devices, holds the hardened profile: it comes from a small build of that
# profile per architecture (build-packages/hardened-ARCH: the daemon, cfgctl and the manual
# pages, nothing else). `cfgd-legacy` comes from the plain builds (build, build-armel). Each
# tree also packs cfgd-web. The script checks the packages' contents (the manual pages too) and
# control fields with dpkg-deb and runs lintian on them (failing on any error or warning; what
# lintian reports of a Debian system that the device is not, the packages override with their
# reasons). Then it runs each daemon package's cfgd (under qemu for armel) inside the sandbox
# and reads its profile from the mode of the queue it creates: 0660 hardened, 0666 legacy. The
# armel packages' `cfgd -v` runs under qemu as well. Packages in build-packages/ARCH (cfgd,
# cfgd-web) and build-packages/ARCH-legacy (cfgd-legacy, cfgd-web).
#   scripts/package-test.sh          (after scripts/test.sh has built build and build-armel)
set -euo pipefail
cd "$(dirname "$0")/.."

# Inside the sandbox: `package-test.sh __queue-mode ROOT...` starts the daemon of each
# unpacked package ROOT on the device's files, prints "ROOT MODE" with the permissions of the
# queue it made (or "ROOT none" with its log when it made none) and stops it again.
if [ "${1:-}" = __queue-mode ]; then
    [ -n "${CFGD_SANDBOX:-}" ] || { echo "package-test: __queue-mode runs in the sandbox" >&2; exit 2; }
    lock=/tmp/kiv_lock log=/tmp/package-cfgd.log
    for root in "${@:2}"; do
        run=("$root/usr/sbin/cfgd")
        # The ARM program under qemu, without the host's driver simulation preloaded (the
        # daemon goes on without a gateway driver).
        [[ $(arm-linux-gnueabi-readelf -h "${run[0]}") =~ Machine:\ *ARM ]] &&
            run=(env -u LD_PRELOAD qemu-arm -L /usr/arm-linux-gnueabi "${run[@]}")
        rm -f "$lock"
        "${run[@]}" -f /mnt/user/kiv_config.ini -l "$lock" </dev/null >"$log" 2>&1 &
        pid=$! queue=
        for ((tenths = 0; tenths < 300; ++tenths)); do
            queue=$(sed -n "s/^[0-9]*, \([0-9]*\), $pid\$/\1/p" "$lock" 2>/dev/null || true)
            if [ -n "$queue" ] || ! kill -0 "$pid" 2>/dev/null; then break; fi
            /bin/sleep 0.1  # by its path: the sleep in PATH is the stub
        done
        mode=$(awk -v key="$queue" 'NR > 1 && $1 == key { print $3 }' /proc/sysvipc/msg)
        kill -TERM "$pid" 2>/dev/null || true
        wait "$pid" || true
        echo "$root ${mode:-none}"
        [ -n "$mode" ] || sed 's/^/    /' "$log"
    done
    exit 0
fi

out=build-packages
version=$(sed -n 's/.*kSoftwareVersion = "\(.*\)";/\1/p' src/core/version.h)
jobs=$(nproc)
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

check "packaging/changelog: its latest entry is version $version" \
    [ "$(dpkg-parsechangelog -l packaging/changelog -S Version)" = "$version" ]

# DIR ARCH PROFILE PACKAGE OTHER: the build trees, and the daemon's package each packs.
trees=("build amd64 legacy cfgd-legacy cfgd" "build-armel armel legacy cfgd-legacy cfgd"
       "$out/hardened-amd64 amd64 hardened cfgd cfgd-legacy"
       "$out/hardened-armel armel hardened cfgd cfgd-legacy")
daemons=()  # the daemon packages, for the sandbox
for tree in "${trees[@]}"; do
    read -r dir arch profile package other <<<"$tree"
    echo "== $dir ($arch, $profile)"
    # The device's layout, also in a build directory made while the default was /usr/local.
    options=(-DCMAKE_INSTALL_PREFIX=/usr)
    if [ "$profile" = hardened ]; then
        options+=(-G Ninja -DCFGD_HARDENED=ON -DCFGD_TESTS=OFF -DCFGD_BENCH=OFF -DCFGD_WERROR=ON)
        # The toolchain file counts only when a build directory is made; given again, cmake warns.
        [ "$arch" = armel ] && [ ! -f "$dir/CMakeCache.txt" ] &&
            options+=(-DCMAKE_TOOLCHAIN_FILE=cmake/armel-toolchain.cmake)
    fi
    cmake -S . -B "$dir" "${options[@]}" >/dev/null
    # What the packages install (already built in the plain builds by scripts/test.sh).
    cmake --build "$dir" -j "$jobs" --target cfgd cfgctl man >"$dir/package-build.log" 2>&1 ||
        { cat "$dir/package-build.log"; exit 1; }
    dest=$out/$arch
    [ "$profile" = hardened ] || dest=$out/$arch-$profile
    rm -rf "$dest"
    mkdir -p "$dest"
    cpack --config "$dir/CPackConfig.cmake" -B "$dest" >"$dest/cpack.log" 2>&1 ||
        { cat "$dest/cpack.log"; exit 1; }
    daemon=$dest/${package}_${version}_$arch.deb web=$dest/cfgd-web_${version}_all.deb
    daemons+=("$daemon")
    check "$arch: $package: Architecture $arch" [ "$(field "$daemon" Architecture)" = "$arch" ]
    check "$arch: $package: conflicts with and replaces $other" \
        eval '[ "$(field "$daemon" Conflicts)" = "$other" ] &&
            [ "$(field "$daemon" Replaces)" = "$other" ]'
    # The shared libraries it links, versioned (dpkg-shlibdeps); amd64 links the C++ runtime too.
    check "$arch: $package: Depends: libc6, libiniparser1" \
        eval '[[ $(field "$daemon" Depends) == "libc6 (>= "*"), libiniparser1 (>= "* ]]'
    for entry in "-rwxr-xr-x ./usr/sbin/cfgd" "-rwxr-xr-x ./usr/bin/cfgctl" \
        "-rwxr-xr-x ./etc/init.d/S50cfgd" "-rw-r--r-- ./usr/share/man/man1/cfgctl.1.gz" \
        "-rw-r--r-- ./usr/share/man/man8/cfgd.8.gz" \
        "-rw-r--r-- ./usr/share/doc/$package/copyright" \
        "-rw-r--r-- ./usr/share/doc/$package/changelog.gz" \
        "-rw-r--r-- ./usr/share/lintian/overrides/$package"; do
        check "$arch: $package: $entry" has_file "$daemon" "$entry"
    done
    for page in man1/cfgctl.1.gz man8/cfgd.8.gz; do
        check "$arch: $package: $page gzip -9n, of this version" eval 'gz=$(member "$daemon" \
            "./usr/share/man/$page" | od -An -tx1 | tr -d " \n") &&
            [[ $gz == 1f8b08000000000002* ]] &&
            [[ $(member "$daemon" "./usr/share/man/$page" | gzip -dc) == *"\"cfgd $version\""* ]]'
    done
    check "$arch: $package: init script a conffile" \
        eval 'dpkg-deb -I "$daemon" conffiles | grep -qx /etc/init.d/S50cfgd'
    check "$arch: cfgd-web: Depends" \
        [ "$(field "$web" Depends)" = "lighttpd, lighttpd-mod-openssl, openssl, php-cgi, cfgd | cfgd-legacy" ]
    for entry in "-rw-r--r-- ./usr/share/cfgd/php/cfgd.php" \
        "-rw-r--r-- ./usr/share/cfgd/php/cfgd_names.php" \
        "-rw-r--r-- ./usr/share/cfgd/web/public/index.php" \
        "-rw-r--r-- ./usr/share/cfgd/web/lib/app.php" \
        "-rw-r--r-- ./etc/lighttpd/conf-available/cfgd-web.conf" \
        "-rwxr-xr-x ./usr/sbin/cfgd-web-passwd" \
        "-rw-r--r-- ./usr/share/man/man8/cfgd-web-passwd.8.gz" \
        "-rwxr-xr-x ./usr/sbin/cfgd-web-cert" \
        "-rw-r--r-- ./usr/share/man/man8/cfgd-web-cert.8.gz" \
        "-rw-r--r-- ./usr/share/cfgd/web/public/signin.php" \
        "-rw-r--r-- ./usr/share/cfgd/web/public/favicon.svg" \
        "-rw-r--r-- ./usr/share/doc/cfgd-web/copyright" \
        "-rw-r--r-- ./usr/share/doc/cfgd-web/changelog.gz"; do
        check "$arch: cfgd-web: $entry" has_file "$web" "$entry"
    done
    check "$arch: nothing under /usr/local" eval 'no_local "$daemon" && no_local "$web"'
    # lintian says why on its own output; as root it also says it would rather not be.
    status=0
    lintian --fail-on error,warning --tag-display-limit 0 "$daemon" "$web" 2>&1 |
        grep -v '^running with root privileges' || status=${PIPESTATUS[0]}
    check "$arch: $package, cfgd-web: lintian: no errors, no warnings" [ "$status" = 0 ]
done

echo "== the daemon packages' cfgd in the sandbox: the mode of its queue shows its profile"
roots=()
for daemon in "${daemons[@]}"; do
    root=${daemon%.deb}.root
    rm -rf "$root"
    dpkg-deb -x "$daemon" "$root"
    roots+=("$root")
done
modes=$(sandbox/sandbox.sh test bash scripts/package-test.sh __queue-mode "${roots[@]}")
printf '%s\n' "$modes"
for root in "${roots[@]}"; do
    expected=666
    [[ ${root##*/} == cfgd_* ]] && expected=660
    check "${root##*/}: cfgd's queue mode 0$expected" \
        eval '[ "$(printf "%s\n" "$modes" | sed -n "s|^$root ||p")" = "$expected" ]'
done

echo "== the armel packages' cfgd -v, under qemu"
for root in "${roots[@]}"; do
    [[ $root == *_armel.root ]] || continue
    status=0
    text=$(qemu-arm -L /usr/arm-linux-gnueabi "$root/usr/sbin/cfgd" -v 2>&1) || status=$?
    printf '%s\n' "$text"
    check "${root##*/}: cfgd -v: two lines, its version, status 2" eval '[ "$status" = 2 ] &&
        [ "$(printf "%s\n" "$text" | wc -l)" = 2 ] &&
        [ "$(printf "%s\n" "$text" | head -n 1)" = "$version" ]'
    check "${root##*/}: cfgd is an ARM program" \
        eval 'arm-linux-gnueabi-readelf -h "$root/usr/sbin/cfgd" | grep -q "Machine: *ARM"'
done
echo "$passed passed, $failed failed"
((failed == 0))
