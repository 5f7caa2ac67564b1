#!/bin/sh
# install_test.sh PACKAGES-DIR SOURCE-DIR ROOT-DIR
# Installs the built packages of both widths into a new root and uses them there: programs of both
# widths with one engine, an upgrade, a 32-bit engine, removal and purge. Needs root. ROOT-DIR is
# made anew, in mount, IPC and PID namespaces of its own; the base system is kept in ROOT-DIR.base
# for the next run.

set -eu
packages=$1
source=$2
root=$3
base=$root.base
log=$root.log
# What a programmer has.
base_packages="gcc gcc-multilib libc6-dev make pkg-config cmake meson man-db python3
    libc6:i386 libicu72:i386 libicu72 libstdc++6:i386"
released=$(dpkg-deb -f "$packages"/libarm2_*_amd64.deb Version)

if [ "${ARM_IN_NAMESPACES-}" != yes ]; then
    exec env ARM_IN_NAMESPACES=yes unshare --mount --ipc --pid --fork --kill-child --mount-proc \
        sh "$0" "$@"
fi

fail() {
    echo "install_test: $*" >&2
    exit 1
}

say() {
    echo "-- $*"
}

quietly() { # COMMAND...
    "$@" >"$log" 2>&1 || { tail -n 30 "$log" >&2; fail "failed: $*"; }
}

# ---- a new root ---------------------------------------------------------------------------------

enter() { # ROOT-DIR COMMAND...
    new=$1
    shift
    env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 HOME=/root DEBIAN_FRONTEND=noninteractive \
        chroot "$new" "$@"
}

inside() { # COMMAND...
    enter "$root" "$@"
}

mount_all() { # ROOT-DIR
    mount --bind "$1" "$1"
    mount --make-private "$1"
    mount -t proc proc "$1/proc"
    mount -t tmpfs -o mode=1777 tmpfs "$1/tmp"
    for device in null zero full random urandom tty; do
        [ -e "$1/dev/$device" ] || : >"$1/dev/$device"
        mount --bind /dev/$device "$1/dev/$device"
    done
    cp /etc/resolv.conf "$1/etc/resolv.conf"
}

# Debian's base system and base_packages, from where this machine has its own packages.
make_base() {
    rm -rf "$base.new"
    site=$(apt-get indextargets --format '$(SITE)' 'Label: Debian' 'Codename: bookworm' | head -n 1)
    quietly debootstrap --variant=minbase --include=systemd,ca-certificates bookworm "$base.new" \
        "${site:?}"
    mount_all "$base.new"
    quietly enter "$base.new" dpkg --add-architecture i386
    quietly enter "$base.new" apt-get -q update
    quietly enter "$base.new" apt-get -q -y --no-install-recommends install $base_packages
    enter "$base.new" apt-get clean
    umount -R "$base.new"
    echo "$base_packages" >"$base.new/base-packages"
    rm -rf "$base"
    mv "$base.new" "$base"
}

make_root() {
    rm -rf "$root"
    cp -a "$base" "$root"
    mount_all "$root"
    mkdir "$root/packages" "$root/packages/next"
    cp "$packages"/*.deb "$root/packages/"
    cp -r "$source/examples/linking" "$root/linking"
}

# ---- packages -----------------------------------------------------------------------------------

install_files() { # FILE...
    quietly inside apt-get -q -y --no-install-recommends install "$@"
}

file_of() { # PACKAGE ARCHITECTURE
    echo "/packages/${1}_${released}_$2.deb"
}

every_file() { # DIRECTORY
    for package in libarm2_amd64 libarm2_i386 libarm-dev_amd64 libarm-dev_i386 libarm-tools_amd64 \
        python3-arm_all; do
        ls "$root$1/${package%_*}_"*"_${package##*_}.deb" | sed "s,^$root,,"
    done
}

version_of() { # PACKAGE
    inside dpkg-query -W -f '${db:Status-Status} ${Version}' "$1"
}

all_are() { # VERSION
    for package in libarm2:amd64 libarm2:i386 libarm-dev:amd64 libarm-dev:i386 libarm-tools python3-arm; do
        [ "$(version_of $package)" = "installed $1" ] || fail "$package is $(version_of $package)"
    done
}

# The same package with a higher version.
raise_version() { # FILE
    rm -rf "$root/raised"
    dpkg-deb -R "$1" "$root/raised"
    sed -i "s/$released/$released+next/g" "$root/raised/DEBIAN/control"
    dpkg-deb -b --root-owner-group "$root/raised" "$root/packages/next" >/dev/null
}

# What dpkg knows of ours, removed packages with configuration files included.
known() {
    inside dpkg-query -W -f '${binary:Package} ${source:Package}\n' | sed -n 's/ libarm$//p'
}

owner_and_mode() { # PATH...
    inside stat -c '%n %U %a' "$@"
}

# ---- use ----------------------------------------------------------------------------------------

# As the unit does, for there is no init here.
start_engine() {
    : >"$root.engine"
    (exec env -i PATH=/usr/sbin:/usr/bin:/bin chroot --userspec armengine "$root" armengine --report) \
        >"$root.engine" 2>&1 &
    engine=$!
    tries=0
    until grep -q serving "$root.engine"; do
        tries=$((tries + 1))
        [ $tries -lt 200 ] || { cat "$root.engine" >&2; fail "the engine does not start"; }
        sleep 0.1
    done
}

# The orders that the engine saw well done.
stop_engine() { # ORDERS
    kill $engine
    wait $engine || fail "the engine failed"
    grep -E "^shop +order +$1 " "$root.engine" ||
        { cat "$root.engine" >&2; fail "the engine should have seen $1 orders"; }
}

# Programs run as anybody.
measured() { # COMMAND...
    inside setpriv --reuid nobody --regid nogroup --clear-groups "$@" >"$root.output"
    grep -qx measured "$root.output" || { cat "$root.output" >&2; fail "not measured: $*"; }
}

build_programs() {
    for width in 64 32; do
        triplet=x86_64-linux-gnu
        [ $width = 64 ] || triplet=i386-linux-gnu
        flags=$(inside env PKG_CONFIG_LIBDIR=/usr/lib/$triplet/pkgconfig pkg-config --cflags libarm)
        [ -z "$(echo $flags)" ] || fail "pkg-config names a system directory: $flags"
        quietly inside env PKG_CONFIG_LIBDIR=/usr/lib/$triplet/pkgconfig \
            make -C /linking clean all CC="gcc -m$width"
        for program in shop optional; do mv "$root/linking/$program" "$root/$program$width"; done
        quietly inside env CC="gcc -m$width" cmake -S /linking -B /linking/cmake$width
        quietly inside cmake --build /linking/cmake$width
        quietly inside env CC="gcc -m$width" PKG_CONFIG_LIBDIR=/usr/lib/$triplet/pkgconfig \
            meson setup /linking/meson$width /linking
        quietly inside meson compile -C /linking/meson$width
        # The number of bits is the fifth byte of a program.
        for program in /$program$width /linking/cmake$width/shop /linking/meson$width/shop; do
            [ "$(od -An -tu1 -j4 -N1 "$root$program" | tr -d ' ')" = $((width / 32)) ] ||
                fail "$program is not of $width bits"
        done
    done
}

# ---- the test -----------------------------------------------------------------------------------

[ "$(cat "$base/base-packages" 2>/dev/null)" = "$base_packages" ] || { say "making a base system"; make_base; }
say "a new root"
make_root

say "installing $released, both widths side by side"
install_files $(every_file /packages)
all_are "$released"
inside getent passwd armengine
owner_and_mode /var/kelp /var/orv/kestra/common/QDN/logs | tee "$root.output"
printf '/var/kelp armengine 755\n/var/orv/kestra/common/QDN/logs root 1777\n' | diff - "$root.output" ||
    fail "directories are not as promised"
inside systemd-analyze verify --man=no armengine.service armengine@shop.service ||
    fail "the units are not good"
for page in "3 arm_start" "3 GetExpectedCodeset" "7 libarm" "1 armengine" "5 libarm-trace"; do
    inside sh -c "zgrep -q SH /usr/share/man/man${page% *}/${page#* }.${page% *}.gz" ||
        fail "there is no page $page"
done

say "programs of both widths, one engine"
build_programs
start_engine
for program in shop64 shop32 optional64 optional32 linking/cmake64/shop linking/cmake32/shop \
    linking/meson64/shop linking/meson32/shop; do
    measured /$program
done
measured env ARMDEBUG=1 /shop32
inside grep -q 'libarm:arm_start ENTER' /var/orv/kestra/common/QDN/logs/trace-armdebug.log
measured python3 -c 'import arm
application = arm.Application("shop")
order = arm.TransactionClass(application, "order")
with arm.transaction(order) as measured:
    print("measured" if measured.handle > 0 else "not measured")'
stop_engine 10

say "upgrading while the engine serves"
start_engine
measured /shop64
echo 'ARMENGINE_OPTIONS="--requests 77"' >"$root/etc/default/armengine"
for file in $(every_file /packages); do raise_version "$root$file"; done
install_files $(every_file /packages/next)
all_are "$released+next"
grep -q 77 "$root/etc/default/armengine" || fail "the upgrade has overwritten a configuration file"
measured /shop64
measured /shop32
stop_engine 3

say "a 32-bit engine"
install_files --allow-downgrades "$(file_of libarm-tools i386)"
start_engine
measured /shop64
measured /shop32
stop_engine 2

say "removing"
quietly inside apt-get -q -y remove $(known)
for path in /usr/bin/armengine /usr/include/arm.h /usr/lib/tmpfiles.d/libarm-tools.conf \
    /usr/lib/python3/dist-packages/arm; do
    [ ! -e "$root$path" ] || fail "$path is still there"
done
left=$(find "$root/usr" "$root/lib" "$root/etc" -name '*libarm*' ! -path '*/systemd/*' ! -path '*/sysusers.d/*')
[ -z "$left" ] || fail "files are left: $left"
[ -e "$root/etc/default/armengine" ] || fail "a removal has deleted a configuration file"
inside /optional64 | grep -qx 'not measured' || fail "a program that can do without the library cannot"
inside /optional32 | grep -qx 'not measured' || fail "a program that can do without the library cannot"

say "purging"
quietly inside apt-get -q -y purge $(known)
left=$(find "$root/etc" "$root/var/lib/systemd" -name '*armengine*' -o -name '*libarm*')
[ -z "$left" ] || fail "files are left: $left"
for path in /var/kelp /var/orv; do [ ! -e "$root$path" ] || fail "$path is still there"; done
[ -z "$(known)" ] || fail "dpkg still knows $(known)"

say "all good"
umount -R "$root"
rm -rf "$root" "$root.engine" "$root.output"
