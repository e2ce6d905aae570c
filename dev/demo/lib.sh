# shellcheck shell=bash
# What the parts of script share: the count of checks, users on
# connections of their own, and looks at what the daemons have done. Whoever
# sources it has set dir, the demo's directory.
# Variables of one part are used in another.
# shellcheck disable=SC2034,SC2154

# The daemons' paths below it.
trace=$dir/trace
store=$dir/run/mng/tty
operator=$dir/control
control=$dir/consoled.control

passed=0
failed=0
# Who is spoken of: a function that speaks of another has a local of this name.
user=first
declare -A client_pids client_fds

check() {
    local what=$1
    shift
    if "$@"; then
        echo "ok    $what"
        passed=$((passed + 1))
    else
        echo "FAIL  $what"
        failed=$((failed + 1))
    fi
}

within_20_s() {
    local deadline=$((SECONDS + 20))
    until "$@"; do
        [ "$SECONDS" -lt "$deadline" ] || return 1
        sleep 0.05
    done
}

same() {
    [ -n "$1" ] && [ "$1" = "$2" ]
}

matches() {
    grep -qE -e "$2" <<<"$1"
}

# Both ends of the fifo are open here, so nobody waits for the other.
connect() {
    local input=$dir/$user.input fd
    rm -f "$input"
    mkfifo "$input"
    : >"$dir/$user.output"
    exec {fd}<>"$input"
    socat - "$1" <"$input" >"$dir/$user.output" 2>"$dir/$user.log" &
    client_pids[$user]=$!
    client_fds[$user]=$fd
}

hang_up() {
    local fd=${client_fds[$user]-} pid=${client_pids[$user]-}
    [ -n "$pid" ] || return 0
    kill "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
    exec {fd}>&-
    unset "client_pids[$user]" "client_fds[$user]"
}

hang_up_all() {
    local user
    for user in "${!client_pids[@]}"; do
        hang_up
    done
}

send() {
    printf '%s\n' "$1" >&"${client_fds[$user]}"
}

# The terminal echoes what is sent: a pattern must match the answer alone.
shown() {
    grep -aqE -e "$1" "$dir/$user.output"
}

answer() {
    sed -nE "s|.*$1.*|\1|p" "$dir/$user.output" | head -n 1
}

silent() {
    [ ! -s "$dir/$user.output" ]
}

disconnected() {
    ! kill -0 "${client_pids[$user]}" 2>/dev/null
}

traced() {
    grep -qE "$1" "$trace"
}

count_traced() {
    grep -cE "$1" "$trace" || true
}

more_traced() {
    [ "$(count_traced "$2")" -gt "$1" ]
}

# In the information file of a line: stored LINE KEY
stored() {
    sed -n "s/^$2=//p" "$store/.tty_info_$1" | tr -d '\r'
}

# Whether somebody listens on a port: state 0A.
listens() {
    grep -q ":$(printf %04X "$1") [0-9A-F]*:0000 0A " \
        /proc/net/tcp /proc/net/tcp6 2>/dev/null
}

closed() {
    ! listens "$1"
}

path_listens() {
    grep -q " $1\$" /proc/net/unix
}

refuses() {
    ! socat -u /dev/null "TCP4:127.0.0.1:$1" 2>"$dir/refused.log" &&
        grep -q 'Connection refused' "$dir/refused.log"
}

# A port below the range that the kernel hands out, on which nobody listens.
free_port() {
    local found
    for _ in 1 2 3 4 5 6 7 8; do
        found=$((20000 + RANDOM % 10000))
        listens "$found" || break
    done
    echo "$found"
}

# Sends a daemon a command and prints its answer: ask SOCKET COMMAND
ask() {
    printf '%s\n' "$2" | socat -t 20 - "UNIX-CONNECT:$1"
}

answers() {
    matches "$(ask "$1" "$2")" "$3"
}

# With more patience than by default: the machine may be busy.
ctl() {
    TMPDIR=$dir/run ttyctl --timeout 20 "$@"
}

# ctl_shows PATTERN COMMAND...
ctl_shows() {
    local pattern=$1
    shift
    matches "$(ctl "$@" 2>&1)" "$pattern"
}

# Connects and asks the shell that will answer where it runs.
knock() {
    connect "$1"
    # shellcheck disable=SC2016
    send 'echo "is $TTYNUM/$TTYTYPE/$PROTOCOL/$CONN_TYPE/$TERM at $(tty)."'
}

# Sets line and device: the number of the user's line and its terminal.
get_in() {
    check "$1: logs in" within_20_s shown 'is [0-9]+/.* at .*\.'
    line=$(answer 'is ([0-9]+)/')
    device=$(answer 'is .* at (/dev/[a-z0-9/]+)\.')
}

# NAME ADDRESS
log_in() {
    knock "$2"
    get_in "$1"
}

# Ends the session on a line: leave NAME LINE COMMAND
leave() {
    local cleaned
    cleaned=$(count_traced "line clean ttyno=$2 ")
    send "$3"
    check "$1: is disconnected after exit" within_20_s disconnected
    check "$1: its line was reported clean" within_20_s \
        more_traced "$cleaned" "line clean ttyno=$2 "
    hang_up
}

log_out() {
    leave "$1" "$line" "echo last-''42; exit"
    check "$1: has seen the last line of output" shown 'last-42'
}

check_goes_on() {
    local word=$RANDOM$RANDOM
    send "echo still-''$word"
    check "$1: goes on" within_20_s shown "still-$word"
}
