# shellcheck shell=bash
# Lines as an operator sees and steers them: the line console, ttyctl, and
# what ttylined makes of the requests. A part of script.
# Variables of one part are used in another.
# shellcheck disable=SC2034,SC2154

# The line of the console's user.
console_line=
lock_holder=

check_console() {
    local user=console
    connect "UNIX-CONNECT:$dir/inpath"
    check "in-path: the line console prompts" within_20_s \
        shown 'rl-con [0-9]+> '
    console_line=$(answer 'rl-con ([0-9]+)> ')
    check "in-path: ttylined has assigned the line" \
        traced "line assignment ttyno=$console_line .*\"$dir/inpath\""
    send 'set LOGNAME alice'
    check "in-path: a key is set at the prompt" within_20_s shown '^stored'
    check "... ttyctl reads it" same "$(ctl get "$console_line" LOGNAME)" alice
    check "... the information file has it" \
        same "$(stored "$console_line" LOGNAME)" alice
    check "... what was typed is not in the dump log" \
        absent 'set LOGNAME alice' "$store/.vc_dump.txt"
    check "... where no other user could look either" \
        same "$(stat -c %a "$dir")" 700
}

absent() {
    [ -s "$2" ] && ! grep -aq "$1" "$2"
}

leave_console() {
    local user=console
    leave "in-path" "$console_line" exit
}

json_shows() {
    matches "$(ctl lines --json | tr -d ' \n')" "$1"
}

# While both sessions run.
check_table() {
    local console
    console=$(stored "$console_line" TTYDEV)
    check "ttyctl lines: shows the line of a shell" \
        ctl_shows "^ *$line +$(id -un) +127\\.0\\.0\\.1 +$device +6 +0 +login\$" \
        lines
    check "ttyctl lines: shows the console's line and its user" \
        ctl_shows "^ *$console_line +alice +uid $(id -u) +$console +7 " lines
    check "ttyctl lines --json: has the line of the shell" \
        json_shows "\{\"line\":$line,[^}]*\"device\":\"$device\","
    check "ttyctl lines --json: has the console's line and its user" \
        json_shows "\{\"line\":$console_line,\"user\":\"alice\","
}

check_login() {
    # shellcheck disable=SC2016
    send 'ttyctl --timeout 20 login-ok $TTYNUM; echo "login-ok gives $?."'
    check "a login is reported from inside a session" \
        within_20_s shown 'login-ok gives 0\.'
    check "... ttylined was told" within_20_s \
        traced "from admin [0-9]+: login ttyno=$line\$"
    check "... its operator sees it" \
        answers "$operator" admin "^$line +yes +- "
    check "... ttyctl lines shows it" \
        ctl_shows "^ *$line .* logged in\$" lines
}

# Both daemons, one grammar.
check_json() {
    local socket
    for socket in "$operator" "$control"; do
        check "ttyctl ask --json: ${socket##*/} has its services" \
            ctl_shows '^\{"services":\[\{' ask --json "$socket" services
        check "... and says what it does not know" \
            ctl_shows '^\{"error":"unknown command' ask --json "$socket" frob
    done
    check "ttylined: asks before it ends all sessions" \
        ctl_shows 'this ends [1-9][0-9]* sessions' ask "$operator" quit
}

check_setting() {
    check "a changed setting is reported" ctl cfg "$line" SPEED 9600
    check "... ttylined was told" within_20_s \
        traced "from admin [0-9]+: speed ttyno=$line value=9600\$"
    check "... its operator sees it" \
        answers "$operator" admin "^$line +yes +9600 "
}

# Nothing of an identity outlives its session; what somebody stores on a free
# line does.
check_reset() {
    check "a line forgets its user after the session" within_20_s \
        ctl_shows 'has no value for LOGNAME$' get "$console_line" LOGNAME
    check "ttyctl lines shows it free" \
        ctl_shows "^ *$console_line +- .* free\$" lines
    check "ttyctl set: stores a user" ctl set "$console_line" LOGNAME carol
    check "ttyctl reset: succeeds" ctl reset "$console_line"
    check "... the user has gone" ctl_shows 'has no value for LOGNAME$' \
        get "$console_line" LOGNAME
    check "... from the information file too" \
        grep -q '^LOGNAME=.\?$' "$store/.tty_info_$console_line"
    check "... TTYPID is that of no session" \
        same "$(stored "$console_line" TTYPID)" -1
    check "... ttyctl lines shows it free" \
        ctl_shows "^ *$console_line +- .* free\$" lines
}

check_lines() {
    local line device
    log_in "shell user" "TCP4:127.0.0.1:$port"
    check_console
    check_table
    check_login
    check_setting
    check_json
    log_out "shell user"
    leave_console
    check_reset
}

check_services() {
    local mask=$store/.service_cur.txt
    check "without a mask service 4 is enabled" \
        ctl_shows '^enabled$' service 4
    check "... and service 5 is not" ctl_shows '^disabled$' service 5
    echo 32 >"$mask"
    check "a mask of 32 enables service 5" ctl_shows '^enabled$' service 5
    check "... and no longer service 4" ctl_shows '^disabled$' service 4
    rm "$mask"
}

stop_lock_holder() {
    [ -n "$lock_holder" ] || return 0
    kill "$lock_holder" 2>/dev/null || true
    wait "$lock_holder" 2>/dev/null || true
    lock_holder=
}

# The holder is one of the programs that are there anyway; should this script
# be killed it ends by itself.
check_stuck_lock() {
    check "ttyctl set: stores a user" ctl set 300 LOGNAME bob
    mkfifo "$dir/lock"
    socat -T 120 -u "OPEN:$dir/lock,rdwr" \
        "OPEN:$store/.tty_info_300.lock,setlkw" 2>"$dir/lock.log" &
    lock_holder=$!
    check "ttyctl names who holds the lock of a line" within_20_s \
        ctl_shows "^ttyctl: line 300 is locked by process $lock_holder \(socat" \
        get --timeout 1 300 LOGNAME
    check "... ttyctl lines shows the line as locked" \
        ctl_shows '^ *300 .* locked$' lines --timeout 1
    stop_lock_holder
    check "... the value is there when the holder has gone" \
        same "$(ctl get 300 LOGNAME)" bob
}

# While line 300 is taken the hold leaves none.
check_waiting() {
    local user=waiting line device waits
    waits=$(count_traced 'waits, lines are held')
    knock "TCP4:127.0.0.1:$port"
    check "a second connection is kept waiting" within_20_s \
        more_traced "$waits" 'waits, lines are held'
    check "... the operator sees it" \
        answers "$operator" admin '^waiting: 1$'
    check "... and the hold" answers "$operator" admin \
        '^hold: all lines but 300, [0-9]+ s left$'
    check "... nothing is sent to it" silent
    check "ttyctl release: succeeds" ctl release
    get_in "released connection"
    log_out "released connection"
}

check_hold() {
    local line device
    check "ttyctl hold: succeeds" ctl hold --except 300 600
    check "... ttylined was told" within_20_s \
        traced 'from admin [0-9]+: hold except=300 time=600$'
    log_in "connection during the hold" "TCP4:127.0.0.1:$port"
    check "... it has the excepted line" same "$line" 300
    check_waiting
    log_out "connection during the hold"
}
