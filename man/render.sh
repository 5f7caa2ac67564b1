#!/bin/sh
# render.sh SCDOC SOURCE-DIR OUTPUT-DIR VERSION RELEASE-DATE
# Makes the manual pages of all *.scd files, and those that are only another name of one.

set -eu
scdoc=$1
source=$2
output=$3
version=$4
released=$5

# A page bears the date of the release, not of its making.
SOURCE_DATE_EPOCH=${SOURCE_DATE_EPOCH:-$(date -u -d "$released" +%s)}
export SOURCE_DATE_EPOCH

rm -rf "$output"
mkdir -p "$output"
for file in "$source"/*.scd; do
    page=$(basename "$file" .scd)
    sed "s/@VERSION@/$version/" "$file" | "$scdoc" >"$output/$page.raw" ||
        { echo "$file does not render" >&2; exit 1; }
    section=${page##*.}
    mkdir -p "$output/man$section"
    awk -f "$source/tidy.awk" "$output/$page.raw" >"$output/man$section/$page"
    rm "$output/$page.raw"
done
while read -r name page; do
    section=${name##*.}
    ln -s "$page" "$output/man$section/$name"
done <"$source/links"
