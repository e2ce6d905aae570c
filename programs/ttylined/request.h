// Requests of the line library, out of the bytes of a stream. ttyline/tty.h
// says what they look like.
#pragma once

#include <cstdint>
#include <string>

enum class request_kind {
    login,
    speed,
    session_timeout,
    exec_timeout,
    hold, // the line is the one that is excepted, 1586: none
    release,
};

struct line_request {
    request_kind kind;
    uint32_t ttyno;
    uint32_t value;
};

enum class request_result {
    none,    // more bytes are needed
    request, // its bytes were taken off
    broken,  // no request begins like this, and where the next one begins is
             // not known
};

// Takes the next request off the bytes; why is set when they are broken.
request_result request_next(std::string &bytes, line_request &request,
                            std::string &why);

// False, and why, for numbers that mean nothing.
bool request_valid(const line_request &request, std::string &why);

// "login ttyno=300", "hold except=300 time=60"
std::string request_text(const line_request &request);
