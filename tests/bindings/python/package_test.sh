#!/bin/sh
# package_test.sh CASE PYTHON SOURCE-DIR VERSION
# The Python package as pip installs it, and its type hints. Nothing is fetched.

set -eu
case=$1
python=$2
source=$3
version=$4
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

case $case in
BuildsWithTheVersionOfTheProject)
    cp "$source/CMakeLists.txt" "$work"
    cp -r "$source/python" "$work/python"
    "$python" -m pip -q --no-cache-dir --disable-pip-version-check install --root-user-action=ignore \
        --no-index --no-build-isolation --no-deps --target "$work/installed" "$work/python"
    [ -e "$work/installed/arm/py.typed" ]
    cd "$work"
    PYTHONPATH=$work/installed "$python" -B - "$version" <<'END'
import importlib.metadata
import sys

import arm

print(arm.__file__, importlib.metadata.version("arm"))
assert "/installed/" in arm.__file__
assert importlib.metadata.version("arm") == sys.argv[1]
END
    ;;
TypeHintsAreStrict)
    cp "$source/examples/python/linkcheck.py" "$work"
    # The hints say something: a wrong use is refused.
    printf 'import arm\narm.Application(7)\narm.measured("order")\n' >"$work/wrong.py"
    if MYPYPATH=$source/python:$work "$python" -m mypy --strict --no-incremental --cache-dir=/dev/null \
        --python-version 3.10 -p arm -m linkcheck -m wrong >"$work/remarks"; then
        echo "wrong types are let pass" >&2
        exit 1
    fi
    cat "$work/remarks"
    # Of the package, of its example, and of what is wrong: only lines 2 and 3 of the last.
    sed -n 's/^\(.*:[0-9]*\): error.*/\1/p' "$work/remarks" | sed 's,.*/,,' >"$work/lines"
    printf 'wrong.py:2\nwrong.py:3\n' | diff - "$work/lines"
    tail -n 1 "$work/remarks" | grep -q 'checked 6 source files'
    ;;
*)
    echo "no case $case" >&2
    exit 1
    ;;
esac
