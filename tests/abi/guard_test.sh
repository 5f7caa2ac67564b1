#!/bin/sh
# guard_test.sh CASE SOURCE-DIR BUILD-DIR WIDTH C-COMPILER [FLAG...]
# Compares the library, and the types of the public headers, with the ABI that is stored in
# abi/WIDTH. Cases that begin with "Catches" break a copy of the interface on purpose.
# The case "store" writes abi/WIDTH anew.

set -eu
case=$1
source=$2
build=$3
stored=$2/abi/$4
width=$4
shift 4
compiler=$*
work=$(mktemp -d)
headers=$work/include
cp -r "$source/include" "$headers"

# What is compared: what is exported and the types of that; no location.
abi_of() { # LIBRARY > ABI
    abidw --no-corpus-path --no-show-locs --no-comp-dir-path --no-elf-needed --type-id-style hash \
        --exported-interfaces-only "$1" | sed "s/ path='[^']*'//"
}

# The compiler's flags are meant to be split.
build_types() {
    $compiler -g -O0 -fPIC -shared -I "$headers" -o "$work/types.so" "$source/tests/abi/guarded_types.c"
}

# The sixteen functions as the headers declare them, without a body: what the library may be changed
# to.
build_stub() {
    {
        echo '#include "armext.h"'
        awk '/^(arm_int32_t|const char\*) .*\(/ { inside = 1 }
             inside { ends = sub(/;$/, " { return 0; }"); print; if (ends) inside = 0 }' \
            "$headers/arm.h" "$headers/armext.h"
    } >"$work/stub.c"
    map=$source/src/arm/libarm.map
    [ ! -e "$work/libarm.map" ] || map=$work/libarm.map
    $compiler -g -O0 -w -fPIC -shared -I "$headers" -Wl,-soname,libarm.so.2 -Wl,--version-script="$map" \
        -o "$work/stub.so" "$work/stub.c"
}

compare() { # WHAT LIBRARY
    abi_of "$2" >"$work/$1.abi"
    abidiff "$stored/$1.abi" "$work/$1.abi"
}

refused() { # WHAT LIBRARY
    if compare "$1" "$2" >"$work/report"; then
        echo "the guard let it pass" >&2
        exit 1
    fi
    cat "$work/report"
}

# The edit must hit: a changed file is wanted.
edit() { # SED-SCRIPT FILE
    cp "$2" "$work/before"
    sed -i "$1" "$2"
    ! cmp -s "$2" "$work/before" || { echo "'$1' changes nothing in $2" >&2; exit 1; }
}

case $case in
store)
    mkdir -p "$stored"
    build_types
    abi_of "$build/lib/libarm.so" >"$stored/libarm.abi"
    abi_of "$work/types.so" >"$stored/types.abi"
    ;;
LibraryIsAsStored)
    compare libarm "$build/lib/libarm.so"
    ;;
PublicTypesAreAsStored)
    build_types
    compare types "$work/types.so"
    ;;
HeadersDeclareWhatIsStored)
    build_stub
    compare libarm "$work/stub.so"
    ;;
CatchesAChangedParameter)
    edit 's/arm_stop(arm_int32_t start_handle, arm_int32_t tran_status/arm_stop(arm_int32_t start_handle, int64_t tran_status/' \
        "$headers/arm.h"
    build_stub
    refused libarm "$work/stub.so" | grep -F arm_stop
    ;;
CatchesAnAddedParameter)
    edit 's/arm_completeTransaction(arm_int32_t tran_handle,/& arm_int32_t more,/' "$headers/armext.h"
    build_stub
    refused libarm "$work/stub.so" | grep -F arm_completeTransaction
    ;;
CatchesALostSymbol)
    cp "$source/src/arm/libarm.map" "$work/libarm.map"
    edit '/^ *arm_update;/d' "$work/libarm.map"
    build_stub
    refused libarm "$work/stub.so" | grep -F '1 Removed'
    ;;
CatchesANewSymbol)
    cp "$source/src/arm/libarm.map" "$work/libarm.map"
    edit 's/^ *arm_update;/& arm_more;/' "$work/libarm.map"
    edit 's/^arm_int32_t arm_init(/arm_int32_t arm_more(arm_int32_t id);\n&/' "$headers/arm.h"
    build_stub
    refused libarm "$work/stub.so" | grep -F '1 Added'
    ;;
CatchesAnotherVersionNode)
    cp "$source/src/arm/libarm.map" "$work/libarm.map"
    edit 's/^VERS_1.0/VERS_1.1/' "$work/libarm.map"
    build_stub
    refused libarm "$work/stub.so" | grep -F '16 Removed'
    ;;
CatchesAChangedStruct)
    edit 's/char string32\[32\]/char string32[40]/' "$headers/arm.h"
    build_types
    refused types "$work/types.so" | grep -F arm_user_data1_t
    ;;
CatchesMovedMembers)
    edit 's/^  arm_int32_t format;     /  arm_uint8_t moved[4];/' "$headers/arm.h"
    build_types
    refused types "$work/types.so" | grep -F arm_user_data1_t
    ;;
CatchesAChangedConstant)
    edit 's/define ARM_CorrGen_f 0x20/define ARM_CorrGen_f 0x02/' "$headers/arm.h"
    build_types
    refused types "$work/types.so" | grep -F is_ARM_CorrGen_f
    ;;
*)
    echo "no case $case" >&2
    exit 1
    ;;
esac
rm -rf "$work"
