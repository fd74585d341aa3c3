#!/bin/sh
# Builds the launcher twice, once plain and once with AddressSanitizer and
# UndefinedBehaviorSanitizer, with warnings as errors, and runs the whole test suite on each.
set -eu
cd "$(dirname "$0")/.."
jobs=$(nproc)
export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=0:abort_on_error=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"
# The fresh Debian systems some tests run the launcher on take minutes and about 300 MB each to
# make: both builds share the plain build's.
fresh_systems="$PWD/build-test-plain/fresh-systems"
status=0
for variant in plain sanitize; do
    dir="build-test-$variant"
    sanitize=OFF
    [ "$variant" = sanitize ] && sanitize=ON
    echo "== $variant build"
    cmake -S . -B "$dir" -DWERROR=ON -DSANITIZE="$sanitize" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DZENTHO_FRESH_SYSTEMS_DIR="$fresh_systems" >/dev/null
    cmake --build "$dir" -j"$jobs"
    # The benchmarks are run by hand, never by CTest; building them here keeps them compiling.
    [ "$variant" = plain ] && cmake --build "$dir" -j"$jobs" --target bench
    echo "== $variant tests"
    (cd "$dir" && ctest --output-on-failure -j"$jobs" --timeout 600) || status=1
done
exit $status
