# shellcheck shell=bash
# Listeners moved, stopped and opened again while a session runs. A part of
# script.
# Variables of one part are used in another.
# shellcheck disable=SC2034,SC2154

ordered() {
    answers "$control" "$1" '^ok$'
}

check_visit() {
    local user=visitor line device
    log_in "$1" "TCP4:127.0.0.1:$port"
    log_out "$1"
}

check_move() {
    local old=$port line device
    log_in "session before the move" "TCP4:127.0.0.1:$port"
    port=$(free_port)
    check "consoled is told to move its port" ordered "port 6 $old $port"
    check "... ttylined was told" within_20_s \
        traced "port change family=2 port=$old new_port=$port protocol=6 "
    check "... and permits the new port" within_20_s \
        traced "to client [0-9]+: permit .*family=2 port=$port "
    check "... which is listened on" within_20_s listens "$port"
    check "... the old port is not" within_20_s closed "$old"
    check "... and refuses" refuses "$old"
    check_visit "on the new port"
    check_goes_on "session before the move"
    log_out "session before the move"
}

check_stop() {
    local line device requests request='listen request .* protocol=6 '
    log_in "session before the stop" "TCP4:127.0.0.1:$port"
    check "consoled is told to stop a protocol" ordered "stop 6"
    check "... its port is not listened on" within_20_s closed "$port"
    check "... and refuses" refuses "$port"
    check "... the path of another protocol is" path_listens "$dir/console"
    check_goes_on "session before the stop"
    requests=$(count_traced "$request")
    check "consoled is told to open it again" ordered "open 6"
    check "... ttylined was asked" within_20_s \
        more_traced "$requests" "$request"
    check "... its port is listened on" within_20_s listens "$port"
    check_visit "after the stop"
    log_out "session before the stop"
}
