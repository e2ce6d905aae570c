# Runs what check has to run, one thing beside another where it may, and counts
# how it ended.
# shellcheck shell=bash disable=SC2154  # check says where the logs are

passed=0
failed=0
skipped=0
failures=()
started=$SECONDS

note() {
    printf '== %4ds  %s\n' $((SECONDS - started)) "$1"
}

# One check that counts as one test: step NAME COMMAND...
step() {
    local name=$1
    shift
    note "$name"
    "$@" >"$logs/$name.log" 2>&1
    judge "$name" $?
}

# What a check has come to, and whether that is good: judge NAME STATUS. A
# command that cannot do its work on this machine has exited with 77, and its
# last line says why.
judge() {
    local name=$1
    case $2 in
    0) passed=$((passed + 1)) ;;
    77)
        skipped=$((skipped + 1))
        tail -n 1 "$logs/$name.log"
        ;;
    *)
        failed=$((failed + 1))
        failures+=("$name")
        tail -n 60 "$logs/$name.log"
        ;;
    esac
    [ "$2" = 0 ]
}

# Runs a command beside what follows: later JUDGE NAME COMMAND... One at a
# time; the next waits for it, and so does collect, which then calls JUDGE NAME
# STATUS. A process group of its own, as its processes could not be found
# otherwise, and as interrupts would be ignored in it.
later() {
    collect
    later_judge=$1
    later_name=$2
    shift 2
    note "$later_name, beside what follows"
    set -m
    "$@" </dev/null >"$logs/$later_name.log" 2>&1 &
    later_group=$!
    set +m
}

collect() {
    local group=$later_group
    [ -n "$group" ] || return 0
    wait "$group"
    local status=$?
    later_group=
    note "$later_name ended"
    "$later_judge" "$later_name" "$status"
    return 0
}

# However check ends, nothing that it started goes on.
abandon() {
    [ -z "$later_group" ] || kill -- "-$later_group" 2>/dev/null
}
later_group=
later_name=
trap abandon EXIT
trap 'exit 130' INT
trap 'exit 143' HUP TERM

finish() {
    local counts
    collect
    note "done"
    if [ ${#failures[@]} -gt 0 ]; then
        printf 'failed: %s\n' "${failures[@]}"
    fi
    counts="$passed passed, $failed failed"
    [ "$skipped" = 0 ] || counts+=", $skipped skipped"
    echo "$counts"
    [ "$failed" = 0 ]
    exit
}
