#!/bin/sh
# Checks the model: all lines of model/properties, or those named, as many at once as there are
# processors. Each works in build/model/NAME.
#   sh model/check.sh [NAME...]

set -u
cd "$(dirname "$0")/.." || exit 1

# An interleaving that is to be found is looked for breadth first, which gives the shortest.
search() { # FILE EXPECTED MACRO...
    breadth=
    [ "$2" = holds ] || breadth=-DBFS
    model=$1
    shift 2
    spin "$@" -a "$model.pml" &&
        cc -O1 -w -DSAFETY -DNOREDUCE -DCOLLAPSE $breadth -o pan pan.c &&
        ./pan -m1000000
    [ ! -e "$model.pml.trail" ] || spin "$@" -p -k "$model.pml.trail" "$model.pml" >trace 2>&1
}

# A property holds when the whole state space was searched and nothing found.
outcome_of() { # LOG
    case $(cat "$1") in
    *'assertion violated'*'errors: 1'*) echo assertion ;;
    *'invalid end state'*'errors: 1'*) echo deadlock ;;
    *'Search not completed'* | *'max search depth too small'*) echo unfinished ;;
    *'errors: 0'*) echo holds ;;
    *) echo broken ;;
    esac
}

check() { # NAME FILE EXPECTED SENTENCE MACRO...
    name=$1
    file=$2
    expected=$3
    sentence=$4
    shift 4
    directory=build/model/$name
    rm -rf "$directory"
    mkdir -p "$directory"
    cp "model/$file.pml" "$directory"
    (cd "$directory" && search "$file" "$expected" "$@") >"$directory/log" 2>&1
    rm -f "$directory"/pan*
    result=$(outcome_of "$directory/log")
    states=$(sed -n 's/^ *\([0-9.e+]*\) states, stored.*/\1/p' "$directory/log")
    [ "$result" = "$expected" ] || sentence="FAILED, expected: $expected. $sentence"
    printf '%-9s %9s states  %-20s %s\n' "$result" "${states:-0}" "$name" "$sentence"
    [ "$result" = "$expected" ]
}

check_line() { # LINE
    IFS='|' read -r name file macros expected sentence <<END
$1
END
    check $name $file $expected "${sentence# }" $macros
}

chosen() { # [NAME...]
    if [ $# -eq 0 ]; then
        grep -v -e '^#' -e '^$' model/properties
    else
        for name; do
            grep "^$name " model/properties || echo "$name | no-such-property | | holds | unknown"
        done
    fi
}

case ${1-} in
--line) check_line "$2" ;;
*) chosen "$@" | xargs -P "$(nproc)" -d '\n' -n 1 sh model/check.sh --line ;;
esac
