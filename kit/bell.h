// What a session's keeper and the daemon tell each other. The bell is a socket
// pair that keeps messages apart; its end of file, either way, says that the
// other one has gone. The channel, another pair, is the program's.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

constexpr size_t BELL_TEXT_SIZE = 128;

// A keeper says each once and in this order: what comes out of it is not heard.
// The first three come before it has read a byte of its peer, and the daemon
// ends processes by their numbers.
enum bell_kind : uint32_t {
    BELL_RUNS = 1, // number is the keeper's process
    BELL_TERMINAL, // number is the program's process, text its terminal
    BELL_USER,     // text is whom the program runs as
    BELL_PROGRAM,  // the line says whose it is, the program was let go
    BELL_ENDING,   // the connection is closed, the program hung up; it was not
                   // gone at once
    BELL_ENDED,    // number is the program's status, text what is left to do:
                   // BELL_CLEAN nothing, BELL_EMPTY the line, else all
    BELL_END,      // daemon: end the session; text is the reason
};

constexpr char BELL_CLEAN[] = "clean"; // nobody is left, the line is clean
constexpr char BELL_EMPTY[] = "empty"; // nobody is left

struct bell_message {
    uint32_t kind;
    int32_t number;
    char text[BELL_TEXT_SIZE];
};

// A message on the channel begins with one byte that says what it is.
enum channel_kind : uint8_t {
    CHANNEL_DATA = 'd',
    CHANNEL_LOGIN = 'y',   // the rest is the user's name
    CHANNEL_REFUSED = 'n', // the same
};
constexpr size_t CHANNEL_MOST = 4096;

bool kit_pair_open(int ends[2]);

// Neither waits. False when it could not be sent.
bool kit_bell_say(int bell, bell_kind kind, int number, const char *text);

// 1: a message, its text terminated; 0: none now; -1: the other end has gone.
int kit_bell_hear(int bell, bell_message *message);

// The length of the message without its first byte, which goes to kind; -1:
// none now; -2: the other end has gone.
ssize_t kit_channel_take(int channel, uint8_t *kind, void *data, size_t size);

// Waits when it is told to. False with errno set.
bool kit_channel_put(int channel, uint8_t kind, const void *data, size_t length,
                     bool wait);
