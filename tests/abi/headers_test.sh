#!/bin/sh
# headers_test.sh INCLUDE-DIR STANDARD COMPILER [FLAG...]
# Compiles the public headers without a warning: each first, twice, and in both orders.

set -u
include=$1
standard=$2
shift 2
case $standard in
c++*) language=c++ ;;
*) language=c ;;
esac

compile() { # COMPILER [FLAG...] < source
    "$@" -x $language -std=$standard -Wall -Wextra -pedantic -Werror -I "$include" -c -o /dev/null -
}

including() { # HEADER...
    printf '#include "%s"\n' "$@"
    echo 'int main(void) { return 0; }'
}

if echo 'static int never_used(void) { return 0; }' | compile "$@" 2>/dev/null; then
    echo "the compiler lets warnings pass" >&2
    exit 1
fi

failed=0
# What comes first stands alone: a header cannot lean on what is read behind it.
for headers in "arm.h arm.h armext.h" "armext.h armext.h arm.h"; do
    for option in -DARM_TEST_NO_OPTION -DARM_BARE_TYPE_NAMES; do
        # Several headers are meant to be split.
        if ! including $headers | compile "$@" $option; then
            echo "failed: $headers $option" >&2
            failed=1
        fi
    done
done
exit $failed
