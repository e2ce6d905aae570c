# shellcheck shell=bash
# A login over telnet with the real client, by daemons of their own: as
# ttyline-telnetd is not for root, root runs them as nobody. A part of script.
# Variables of one part are used in another.
# shellcheck disable=SC2034,SC2154

nobody=65534
telnet_dir=
telnet_port=
telnet_daemons=()

# In a process of its own.
become_user() {
    if [ "$(id -u)" = 0 ]; then
        exec setpriv --reuid "$nobody" --regid "$nobody" --clear-groups "$@"
    fi
    exec "$@"
}

start_user_daemon() {
    (
        export TMPDIR=$telnet_dir
        become_user "$@" </dev/null >>"$dir/telnet.log" 2>&1
    ) &
    telnet_daemons+=("$!")
}

stop_telnet() {
    local daemon
    for daemon in "${telnet_daemons[@]}"; do
        kill "$daemon" 2>/dev/null || true
        wait "$daemon" 2>/dev/null || true
    done
    telnet_daemons=()
    [ -z "$telnet_dir" ] || rm -rf "$telnet_dir"
    telnet_dir=
}

start_telnet() {
    telnet_dir=$(mktemp -d /tmp/ttyline.XXXXXX)
    [ "$(id -u)" != 0 ] || chown "$nobody:$nobody" "$telnet_dir"
    start_user_daemon ttylined "--trace=$telnet_dir/trace"
    check "telnet: ttylined runs as another user than root" \
        within_20_s test -S "$telnet_dir/mng/tty/inetd/.qv_inetd"
    telnet_port=$(free_port)
    start_user_daemon ttyline-telnetd --port "$telnet_port" \
        --allow 127.0.0.1 --no-ipv6 --no-authentication --program /bin/sh
    check "telnet: ttyline-telnetd listens" within_20_s listens "$telnet_port"
}

# Whoever builds in a place of root's alone has programs that nobody can run.
user_can_run_telnet() {
    (become_user ttyline-telnetd --version) >"$dir/telnet.log" 2>&1
}

# The client has a terminal of its own, of this size and type.
connect_telnet() {
    TERM=linux connect "SYSTEM:stty rows 31 cols 101; \
exec inetutils-telnet 127.0.0.1 $telnet_port,pty,setsid,ctty"
}

check_telnet() {
    local user=telnet trace
    if ! user_can_run_telnet; then
        echo "SKIPPED  telnet: NOBODY CANNOT RUN THE PROGRAMS WHERE THEY ARE"
        return
    fi
    start_telnet
    trace=$telnet_dir/trace
    connect_telnet
    # shellcheck disable=SC2016
    send 'echo "size $(stty size) type $TERM line $TTYNUM/$PROTOCOL."'
    check "telnet: the client's window and type are the program's" \
        within_20_s shown 'size 31 101 type linux line [0-9]+/4\.'
    check "telnet: the line was assigned and answered" within_20_s \
        traced 'alloc ok ttyno=[0-9]+ '
    send "echo last-''42; exit"
    check "telnet: is disconnected after exit" within_20_s disconnected
    check "telnet: has seen the last line of output" shown 'last-42'
    check "telnet: its line was reported clean" within_20_s \
        traced 'line clean ttyno='
    hang_up
    stop_telnet
}
