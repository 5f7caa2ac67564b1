#!/bin/sh
# version_test.sh SOURCE-DIR VERSION
# The version is stated in CMakeLists.txt, and in the history of changes; nowhere else, but for what
# the documents and tests show of outputs.

set -eu
cd "$1"
version=$2

found=$(find . \( -path ./build -o -path ./docs -o -path ./tests -o -name '.?*' -o -name '*.symbols' \) -prune -o -type f -print0 |
    xargs -0 grep -lF -- "$version" | sort)
wanted='./CHANGELOG.md
./CMakeLists.txt'
[ "$found" = "$wanted" ] || {
    printf 'version %s is stated in\n%s\n' "$version" "$found" >&2
    exit 1
}

# What documents tell to install.
named=$(grep -rohE 'lib(arm2|arm-dev|arm-tools)_[0-9.]+_|python3-arm_[0-9.]+_' README.md docs | sort -u)
[ -n "$named" ] || { echo "no document names a package" >&2; exit 1; }
[ -z "$(echo "$named" | grep -v -F "_${version}_")" ] || {
    printf 'documents name packages of another version:\n%s\n' "$named" >&2
    exit 1
}

top=$(sed -n 's/^## \([^ ]*\) .*/\1/p' CHANGELOG.md | head -n 1)
[ "$top" = "$version" ] || {
    echo "CHANGELOG.md begins with $top, not with $version" >&2
    exit 1
}
