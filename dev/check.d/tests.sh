# Builds configurations and counts their tests.
# shellcheck shell=bash disable=SC2154,SC2034  # report.sh has the counters

# A number out of the opening tag of a test report: attribute FILE NAME
attribute() {
    sed -n "s/.*[[:space:]]$2=\"\([0-9]*\)\".*/\1/p" "$1" | head -n 1
}

# Builds a preset, then begins its tests, each of which counts: tests PRESET.
# Tests begun before have ended when it returns. The build leaves them the
# processor: they have deadlines.
tests() {
    local preset=$1
    if ! step "configure-$preset" cmake --preset "$preset" ||
        ! step "build-$preset" ${later_group:+nice} \
            cmake --build --preset "$preset"; then
        collect
        return
    fi
    rm -f "$logs/$preset.xml"
    later count "$preset" \
        ctest --preset "$preset" --output-junit "$PWD/$logs/$preset.xml"
}

# Counts the tests of a preset: count PRESET. Their failures say more than the
# status does.
count() {
    local preset=$1 report=$logs/$1.xml all bad left_out
    if [ ! -s "$report" ] || [ "$(attribute "$report" tests)" = 0 ]; then
        failed=$((failed + 1))
        failures+=("tests of $preset did not run")
        tail -n 60 "$logs/$preset.log"
        return
    fi
    all=$(attribute "$report" tests)
    bad=$(attribute "$report" failures)
    left_out=$(($(attribute "$report" skipped) + $(attribute "$report" disabled)))
    passed=$((passed + all - bad - left_out))
    failed=$((failed + bad))
    skipped=$((skipped + left_out))
    if [ "$bad" != 0 ]; then
        failures+=("$bad tests of $preset")
        grep -B 2 -A 40 -E '\*\*\*|FAILED|Failure' "$logs/$preset.log" |
            tail -n 200
    fi
}
