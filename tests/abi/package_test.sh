#!/bin/sh
# package_test.sh CMAKE BUILD-DIR CASE C-COMPILER [FLAG...]
# Installs the library into a fresh directory and uses it from there.

set -eu
cmake=$1
build=$2
case=$3
compiler=$4
shift 4
flags=$*

work=$(mktemp -d)
prefix=$work/prefix
"$cmake" --install "$build" --prefix "$prefix" >/dev/null

# Where the library's own needs are found, when it is linked and when it runs.
LD_LIBRARY_PATH=$prefix/lib:${LD_LIBRARY_PATH-}
export LD_LIBRARY_PATH

cat >"$work/program.c" <<'END'
#include <armext.h>
#include <string.h>

/* No engine runs here. */
int main(void) {
  if (arm_init("program", "*", 0, 0, 0) != -2) return 1;
  return strcmp(arm_getCorrelatorKey(), "ARM_CORRELATOR") != 0;
}
END

configure() { # LINE-OF-CMAKE...
    {
        echo 'cmake_minimum_required(VERSION 3.25)'
        echo 'project(consumer LANGUAGES C)'
        printf '%s\n' "$@"
    } >"$work/CMakeLists.txt"
    "$cmake" -G Ninja -S "$work" -B "$work/build" -DCMAKE_PREFIX_PATH="$prefix" \
        -DCMAKE_C_COMPILER="$compiler" -DCMAKE_C_FLAGS="$flags"
}

case $case in
LibraryFilesAreTheseAndNoOthers)
    (cd "$prefix" && find include lib ! -type d | sort) >"$work/found"
    diff - "$work/found" <<'END'
include/arm.h
include/armext.h
lib/cmake/arm/armConfig.cmake
lib/cmake/arm/armConfigVersion.cmake
lib/cmake/arm/armTargets-relwithdebinfo.cmake
lib/cmake/arm/armTargets.cmake
lib/libarm.so
lib/libarm.so.2
lib/libarm.so.2.0.0
lib/pkgconfig/libarm.pc
END
    ;;
PkgConfigBuildsAProgram)
    PKG_CONFIG_PATH=$prefix/lib/pkgconfig
    export PKG_CONFIG_PATH
    # The flags are meant to be split.
    "$compiler" $flags $(pkg-config --cflags libarm) -o "$work/program" "$work/program.c" \
        $(pkg-config --libs libarm)
    "$work/program"
    test "$(pkg-config --modversion libarm)" = 2.0.0
    ;;
FindPackageBuildsAProgram)
    configure 'find_package(arm 2.0 REQUIRED)' 'add_executable(program program.c)' \
        'target_link_libraries(program arm::arm)'
    "$cmake" --build "$work/build"
    "$work/build/program"
    ;;
FindPackageRefusesAnotherMajorVersion)
    ! configure 'find_package(arm 3.0 REQUIRED)'
    configure 'find_package(arm 2.0 REQUIRED)'
    ;;
*)
    echo "no case $case" >&2
    exit 1
    ;;
esac
