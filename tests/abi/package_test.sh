#!/bin/sh
# package_test.sh CMAKE SOURCE-DIR BUILD-DIR VERSION CASE C-COMPILER [FLAG...]
# Installs the project into a fresh directory and uses it from there.

set -eu
cmake=$1
source=$2
build=$3
version=$4
case=$5
compiler=$6
shift 6
flags=$*

work=$(mktemp -d)
prefix=$work/prefix
"$cmake" --install "$build" --prefix "$prefix" >/dev/null

# Where the library's own needs are found, when it is linked and when it runs.
others=${LD_LIBRARY_PATH-}
LD_LIBRARY_PATH=$prefix/lib:$others
PKG_CONFIG_PATH=$prefix/lib/pkgconfig
export LD_LIBRARY_PATH PKG_CONFIG_PATH

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

# The projects of examples/linking, by themselves.
projects=$work/linking
cp -r "$source/examples/linking" "$projects"

# Runs a program with the installed engine; the engine must have seen its order, well done.
is_measured() { # PROGRAM
    mkfifo "$work/engine"
    "$prefix/bin/armengine" --report >"$work/engine" &
    exec 3<"$work/engine"
    read -r ready <&3
    "$1" >"$work/output"
    kill $!
    cat <&3 >"$work/report"
    grep -x measured "$work/output"
    grep -E '^shop +order +1 ' "$work/report"
}

case $case in
LibraryFilesAreTheseAndNoOthers)
    (cd "$prefix" && find include lib ! -type d | sort) >"$work/found"
    diff - "$work/found" <<END
include/arm.h
include/arm.hpp
include/armext.h
lib/cmake/arm/armConfig.cmake
lib/cmake/arm/armConfigVersion.cmake
lib/cmake/arm/armTargets-relwithdebinfo.cmake
lib/cmake/arm/armTargets.cmake
lib/libarm.so
lib/libarm.so.2
lib/libarm.so.$version
lib/pkgconfig/libarm.pc
END
    ;;
PkgConfigBuildsAProgram)
    # The flags are meant to be split.
    "$compiler" $flags $(pkg-config --cflags libarm) -o "$work/program" "$work/program.c" \
        $(pkg-config --libs libarm)
    "$work/program"
    test "$(pkg-config --modversion libarm)" = "$version"
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
MakeBuildsTheExampleProject)
    make -C "$projects" CC="$compiler" CFLAGS="$flags"
    is_measured "$projects/shop"
    ;;
CMakeBuildsTheExampleProject)
    "$cmake" -S "$projects" -B "$work/build" -DCMAKE_PREFIX_PATH="$prefix" \
        -DCMAKE_C_COMPILER="$compiler" -DCMAKE_C_FLAGS="$flags"
    "$cmake" --build "$work/build"
    is_measured "$work/build/shop"
    ;;
MesonBuildsTheExampleProject)
    CC="$compiler $flags" meson setup "$work/build" "$projects"
    meson compile -C "$work/build"
    is_measured "$work/build/shop"
    ;;
ProgramThatLoadsTheLibraryIsMeasured)
    make -C "$projects" CC="$compiler" CFLAGS="$flags" optional
    is_measured "$projects/optional"
    ;;
ProgramThatLoadsTheLibraryWorksWithoutIt)
    make -C "$projects" CC="$compiler" CFLAGS="$flags" optional
    LD_LIBRARY_PATH=$others "$projects/optional" >"$work/output"
    printf 'one order\nnot measured\n' | diff - "$work/output"
    ;;
*)
    echo "no case $case" >&2
    exit 1
    ;;
esac
