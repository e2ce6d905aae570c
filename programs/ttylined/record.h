// What a record says, in words.
#pragma once

#include <cstddef>
#include <string>

#include <ttyline/vc.h>

// The same bit means different things in the two directions.
enum class record_way { from_client, to_client };

enum class record_kind {
    alloc,
    clear,
    port_permit,
    path_permit,
    port_fail,
    path_fail,
    alloc_ok,
    stop_listen,
    port_change,
    unknown,
};

// The first known bit decides, in the order in which the library looks.
record_kind record_kind_of(const tty_cmsg &record, record_way way);

// One line without a line end: kind and the fields that this kind fills.
std::string record_text(const tty_cmsg &record, record_way way);

// "10.0.0.1:23", "[::1]:23", or empty for families without such addresses.
std::string record_peer_text(const tty_cmsg &record);

// The bytes up to the terminator or the limit, escaped to stand between double
// quotes.
std::string escaped_text(const char *bytes, std::size_t limit);
