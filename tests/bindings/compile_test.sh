#!/bin/sh
# compile_test.sh INCLUDE-DIR CASE COMPILER [FLAG...]
# What arm.hpp compiles to, and what it refuses.

set -eu
include=$1
case=$2
compiler=$3
shift 3
flags=$*
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
warnings="-Wall -Wextra -pedantic -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast
    -Wcast-qual -Wundef -Wnon-virtual-dtor -Werror"

compile() { # FILE FLAG...
    source=$1
    shift
    "$compiler" "$@" -I"$include" -c "$source" -o "$work/object.o"
}

check_only() { # FILE FLAG...
    compile "$@" -fsyntax-only
}

# All of the interface, so that no template stays unread; the header stands alone, and twice.
cat >"$work/use.cpp" <<'END'
#include <arm.hpp>
#include <arm.hpp>

#include <utility>

int use() {
  arm::metric_descriptions metrics;
  metrics.describe<1, arm::metric_type::gauge32>("depth");
  arm::application application("shop", "somebody");
  const arm::transaction_class of(application, "order", "detail", metrics);
  arm::data_block block;
  block.counter32<1>(1).counter64<2>(2).counter_ratio32<3>(3, 4).gauge32<4>(5).gauge64<5>(6);
  block.gauge_ratio32<6>(7, 8).id32<1>(9).id64<2>(10).string8<3>("x").string32("y");
  block.want_correlator().want_trace().child_of_environment();
  arm::transaction parent(of, block);
  if (const auto correlator = block.correlator()) {
    arm::transaction child(of, *correlator);
    if (!correlator->to_environment()) child.fail();
  }
  arm::transaction moved(std::move(parent));
  (void)moved.update();
  (void)moved.update(block);
  (void)moved.update("half-way");
  moved.abort();
  return moved.stop() + application.end();
}
END

# The same work by hand and with arm.hpp.
cat >"$work/cost.cpp" <<'END'
#include <arm.hpp>

void work();

extern "C" void by_hand(const arm_int32_t* tran_class) {
  const arm_int32_t id = *tran_class;
  const arm_int32_t handle = id > 0 ? arm_start(id, 0, nullptr, 0) : id;
  work();
  if (handle >= 0) (void)arm_stop(handle, ARM_GOOD, 0, nullptr, 0);
}

extern "C" void with_object(const arm::transaction_class& tran_class) {
  const arm::transaction measured(tran_class);
  work();
}
END

instructions() { # FUNCTION
    objdump -d --no-show-raw-insn "$work/object.o" |
        awk -v name="<$1>:" '/>:$/ { on = ($2 == name) } on && /^ / { ++count } END { print count + 0 }'
}

# One compilation refuses each of the expressions, and nothing but them. Compilers name the line
# that leads to a refusal.
all_refused() { # EXPRESSION...
    printf 'void f() { %s; }\n' "$@" 'arm::data_block().gauge32<1>(1)' |
        awk '{ sub(/f/, "f" NR) } 1' >"$work/wrong.cpp"
    if check_only "$work/wrong.cpp" -std=c++17 -include arm.hpp $flags 2>"$work/errors"; then
        echo "compiles: $*"
        exit 1
    fi
    grep -q 'static assertion failed\|static_assert' "$work/errors" || { cat "$work/errors"; exit 1; }
    sed -n 's/.*wrong\.cpp:\([0-9]*\):.*/\1/p' "$work/errors" | sort -u >"$work/refused"
    seq $# | diff - "$work/refused"
}

case $case in
StandardsCompileWithoutWarnings)
    for standard in c++17 c++20; do
        compile "$work/use.cpp" -std=$standard -O1 $warnings "$@"
        check_only "$work/use.cpp" -std=$standard -fno-exceptions -fno-rtti $warnings "$@"
    done
    ;;
ObjectCostsNoMoreThanTheCalls)
    compile "$work/cost.cpp" -std=c++17 -O2 -fno-exceptions "$@"
    hand=$(instructions by_hand)
    object=$(instructions with_object)
    echo "$hand instructions by hand, $object with arm.hpp"
    [ "$hand" -gt 0 ] && [ "$object" -le "$hand" ]
    ;;
OnlyTheCallsAreCalled)
    # With exceptions there is one question more: whether one is under way. What compilers add for
    # the case that a function throws which cannot is never run.
    compile "$work/cost.cpp" -std=c++17 -O2 -fno-pic "$@"
    nm -C "$work/object.o" | sed -n 's/^ *U //p' | sort >"$work/found"
    cat >"$work/allowed" <<'END'
arm_start
arm_stop
std::uncaught_exceptions()
work()
END
    grep -v -E '^(_Unwind_Resume|__gxx_personality_v0|__stack_chk_fail|__cxa_begin_catch|std::terminate\(\)|_GLOBAL_OFFSET_TABLE_|DW.ref.*)$' \
        "$work/found" >"$work/calls"
    diff "$work/allowed" "$work/calls"
    ;;
WrongSlotsAreRefused)
    all_refused 'arm::data_block().gauge32<0>(1)' 'arm::data_block().gauge32<7>(1)' \
        'arm::metric_descriptions().describe<8, arm::metric_type::gauge32>("x")' \
        'arm::metric_descriptions().describe<7, arm::metric_type::gauge32>("x")' \
        'arm::metric_descriptions().describe<1, arm::metric_type::string32>("x")'
    # By itself, as it is refused by the same words as gauge32<7>, which compilers say once.
    all_refused 'arm::data_block().string8<7>("x")'
    ;;
*)
    echo "no case $case" >&2
    exit 1
    ;;
esac
