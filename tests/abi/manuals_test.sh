#!/bin/sh
# manuals_test.sh SOURCE-DIR BUILD-DIR VERSION
# Renders the manual pages, checks them with mandoc, and looks whether something has none.

set -eu
source=$1
build=$2
work=$(mktemp -d)
sh "$source/man/render.sh" scdoc "$source/man" "$work/pages" "$3" 2000-02-29
cd "$work/pages"
failed=0

complain() {
    echo "$*" >&2
    failed=1
}

if echo '.TH' | mandoc -Tlint >/dev/null; then complain "mandoc lets everything pass"; fi
find . -name '*.[1-9]' | xargs mandoc -Tlint || complain "mandoc has found something"
grep -q '"2000-02-29" "libarm '"$3"'"' man3/arm_start.3 || complain "no date or version in arm_start(3)"

# Each exported call, each installed program and each of its options.
for call in $(sed -n 's/^ *\([A-Za-z_]*\);$/\1/p' "$source/src/arm/libarm.map"); do
    [ -e "man3/$call.3" ] || complain "$call has no manual page"
done
[ "$(ls man3 | wc -l)" -eq 16 ] || complain "there should be 16 pages in section 3: $(ls man3)"
cmake --install "$build" --prefix "$work/prefix" >/dev/null
for program in "$work/prefix/bin"/*; do
    page=man1/$(basename "$program").1
    [ -e "$page" ] || { complain "$(basename "$program") has no manual page"; continue; }
    LD_LIBRARY_PATH=$work/prefix/lib:${LD_LIBRARY_PATH-} "$program" --help >"$work/help"
    for option in $(grep -o -E -e '--[a-z][a-z-]+' "$work/help" | sort -u); do
        grep -q -F -e "*$option*" "$source/man/$(basename "$program").1.scd" ||
            complain "$page lacks $option"
    done
done
# No page of a program that this width does not have.
for page in "$work/prefix"/share/man/man1/*.1; do
    [ -e "$work/prefix/bin/$(basename "$page" .1)" ] || complain "$(basename "$page") is of no program"
done
# Each file that a program writes or the library reads.
for page in armengine-events libarm-properties libarm-trace; do
    [ -e "$work/prefix/share/man/man5/$page.5" ] || complain "there is no $page(5)"
done

# Each page that another one names.
grep -oh '\\fB[A-Za-z_-]*\\fR([0-9])' man?/* | sed 's/^\\fB\(.*\)\\fR(\(.\))/\1.\2/' |
    grep -i -E '^(lib|w_)?arm|Codeset' | sort -u >"$work/named"
while read -r page; do
    [ -e "man${page##*.}/$page" ] || complain "$page is named and is not there"
done <"$work/named"
[ "$(wc -l <"$work/named")" -ge 16 ] || complain "the pages hardly name each other"

rm -rf "$work"
exit $failed
