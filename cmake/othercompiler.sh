#!/bin/sh
# othercompiler.sh COMPILER THE-TREES-COMPILER ARGUMENT... : a launcher that compiles with another
# one than the tree's.
compiler=$1
shift 2
exec "$compiler" "$@"
