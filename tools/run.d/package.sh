# './run package': Debian packages for both widths, and what is promised of them.

PACKAGE_PACKAGES="build-essential dpkg-dev debhelper dh-python python3 scdoc lintian binutils-i686-linux-gnu"
PACKAGE_TEST_PACKAGES="debootstrap"
# What the 32-bit packages are linked with.
PACKAGE_SYSROOT=$ROOT/build/sysroot-i386-package
PACKAGE_SYSROOT_PACKAGES="libicu72 libicu-dev libc6 libstdc++6 libgcc-s1"

# ---- building -----------------------------------------------------------------------------------

project_version() {
    sed -n 's/^project(arm VERSION \([0-9.]*\) .*/\1/p' CMakeLists.txt
}

# debian/changelog, from the sections '## VERSION (DATE)' of CHANGELOG.md and their lists.
debian_changelog() {
    maintainer=$(sed -n 's/^Maintainer: //p' debian/control)
    awk -v maintainer="$maintainer" '
        function finish_item(    words, count, line, i) {
            count = split(item, words, " ")
            line = "  *"
            for (i = 1; i <= count; ++i) {
                if (length(line " " words[i]) > 78) { print line; line = "   " }
                line = line " " words[i]
            }
            if (count > 0) print line
            item = ""
        }
        function finish_section() {
            finish_item()
            if (date != "") printf "\n -- %s  %s\n\n", maintainer, date
        }
        /^## [0-9]/ {
            finish_section()
            command = "LC_ALL=C date -u -R -d " substr($3, 2, length($3) - 2)
            command | getline date
            close(command)
            printf "libarm (%s) unstable; urgency=medium\n\n", $2
        }
        date == "" { next }
        /^- / { finish_item(); item = substr($0, 3) }
        /^  / { item = item " " $0 }
        END { finish_section() }' CHANGELOG.md
}

# The libraries, and a package database from which dpkg-shlibdeps tells what they need. Their files
# are listed where they lie.
fetch_package_sysroot() {
    (
        SYSROOT=build/sysroot-i386-package
        SYSROOT_PACKAGES=$PACKAGE_SYSROOT_PACKAGES
        fetch_sysroot
    ) || return 1
    info=$PACKAGE_SYSROOT/dpkg/info
    mkdir -p "$info" "$PACKAGE_SYSROOT/dpkg/updates"
    echo 1 >"$info/format"
    for file in "$PACKAGE_SYSROOT"/apt/*.deb; do
        name=$(dpkg-deb -f "$file" Package)
        [ "$(dpkg-deb -f "$file" Multi-Arch)" != same ] || name=$name:i386
        rm -rf "$PACKAGE_SYSROOT/apt/control"
        dpkg-deb -e "$file" "$PACKAGE_SYSROOT/apt/control" || return 1
        for part in shlibs symbols; do
            [ ! -e "$PACKAGE_SYSROOT/apt/control/$part" ] ||
                cp "$PACKAGE_SYSROOT/apt/control/$part" "$info/$name.$part"
        done
        dpkg-deb --fsys-tarfile "$file" | tar t | sed "s,^\./,$PACKAGE_SYSROOT/,; s,/\$,," \
            >"$info/$name.list"
        sed '/^Package:/a Status: install ok installed' "$PACKAGE_SYSROOT/apt/control/control"
        echo
    done >"$PACKAGE_SYSROOT/dpkg/status"
}

need_package_sysroot() {
    [ ! -e "$PACKAGE_SYSROOT/complete" ] || return 0
    echo "run: fetching the i386 packages $PACKAGE_SYSROOT_PACKAGES into build/sysroot-i386-package"
    fetch_package_sysroot || die "cannot fetch them (see build/logs/sysroot.log): is the network there?"
    rm -rf "$PACKAGE_SYSROOT/apt"
    touch "$PACKAGE_SYSROOT/complete"
}

# The sources as a package of their own, from which both widths are built. The modes of its files do
# not depend on who has checked them out.
make_source_package() { # DIRECTORY
    tree=$1/libarm
    mkdir -p "$tree" || return 1
    tar -c --exclude-vcs --exclude=./build --exclude='__pycache__' --mode=u=rwX,go=rX . |
        tar -x -p -C "$tree" || return 1
    debian_changelog >"$tree/debian/changelog" && chmod 644 "$tree/debian/changelog" || return 1
    (cd "$1" && dpkg-source -b libarm && rm -rf libarm)
}

build_packages() { # DIRECTORY ARCHITECTURE DPKG-BUILDPACKAGE-ARGUMENT...
    directory=$1
    architecture=$2
    shift 2
    (
        umask 022
        cd "$directory" || exit 1
        rm -rf "$architecture" && mkdir "$architecture"
        dpkg-source -x --no-copy libarm_*.dsc "$architecture/libarm" || exit 1
        cd "$architecture/libarm" || exit 1
        DEB_BUILD_OPTIONS="parallel=$JOBS" dpkg-buildpackage -us -uc "$@"
    )
}

build_both_widths() { # DIRECTORY
    echo "run: packing the sources"
    make_source_package "$1" >"$LOG" 2>&1 || return 1
    echo "run: building the packages of amd64"
    telling amd64 build_packages "$1" amd64 -b || return 1
    echo "run: building the packages of i386"
    ARM_I386_SYSROOT=$PACKAGE_SYSROOT telling i386 build_packages "$1" i386 -B -ai386 -d || return 1
    for architecture in amd64 i386; do
        mv "$1/$architecture"/*.deb "$1/$architecture"/*.changes "$1/$architecture"/*.buildinfo "$1" &&
            rm -rf "${1:?}/$architecture" || return 1
    done
}

make_packages() { # DIRECTORY
    rm -rf "$1"
    mkdir -p "$1" build/logs
    LOG=build/logs/package.log
    build_both_widths "$1"
}

# ---- what is promised ---------------------------------------------------------------------------

lint_packages() {
    (cd build/package && lintian --fail-on error,warning --allow-root libarm_*.dsc libarm_*.changes)
}

# A second build, in another place, at another time of another zone, in another language.
reproduce_packages() {
    elsewhere=$(mktemp -d) || return 1
    (
        TZ=Pacific/Kiritimati
        LC_ALL=C.UTF-8
        export TZ LC_ALL
        umask 077
        make_packages "$elsewhere/second/build"
    ) || { echo "run: the second build failed: see build/logs/package.log" >&2; return 1; }
    result=0
    for file in build/package/*.deb build/package/*.dsc build/package/*.tar.*; do
        cmp "$file" "$elsewhere/second/build/${file##*/}" || result=1
    done
    rm -rf "$elsewhere"
    [ $result -ne 0 ] || sha256sum build/package/*.deb
    return $result
}

install_test() {
    [ "$(id -u)" -eq 0 ] || { echo "run: a new root can only be made by root" >&2; return 1; }
    sh tests/packages/install_test.sh "$ROOT/build/package" "$ROOT" "$ROOT/build/package-root"
}

package() { # [test]
    need_packages $BUILD_PACKAGES $PACKAGE_PACKAGES
    need_package_sysroot
    case ${1-} in '' | test) ;; *) die "package takes test, or nothing" ;; esac
    make_packages "$ROOT/build/package" || die "the packages do not build: see $LOG"
    (cd build/package && ls -- *.deb)
    [ "${1-}" = test ] || return 0
    need_packages $PACKAGE_TEST_PACKAGES
    check "lintian" lint_packages
    check "a second build gives the same packages" reproduce_packages
    check "packages in a new root" install_test
    echo "$PASSED passed, $FAILED failed"
    [ "$FAILED" -eq 0 ]
}

# ---- the stored ABI -----------------------------------------------------------------------------

# After a deliberate change of the interface.
store_abi() {
    need_packages $BUILD_PACKAGES
    for width in amd64 i386; do
        need_preset $width
        build_quietly $width arm || die "the build of $width failed: see $LOG"
        flags=
        [ $width = amd64 ] || flags=-m32
        sh tests/abi/guard_test.sh store "$ROOT" "$ROOT/build/$width" $width gcc $flags || exit 1
    done
}
