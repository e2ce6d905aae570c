// The terminal's line editing does the work: a line is read byte by byte up to
// its end, so that what is typed ahead stays for the next question.
#include "programs/login/prompt.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

using steady = std::chrono::steady_clock;

static steady::time_point g_end = steady::time_point::max();

static void print(const char *text)
{
    std::size_t left = strlen(text);

    while (left > 0) {
        const ssize_t written = write(STDOUT_FILENO, text, left);
        if (written < 0 && errno != EINTR) {
            return;
        }
        if (written > 0) {
            text += written;
            left -= static_cast<std::size_t>(written);
        }
    }
}

void prompt_say(const char *text)
{
    print(text);
    print("\n");
}

void prompt_limit(unsigned seconds)
{
    g_end = seconds != 0 ? steady::now() + std::chrono::seconds(seconds)
                         : steady::time_point::max();
}

bool prompt_time_over()
{
    return steady::now() >= g_end;
}

static int time_left()
{
    if (g_end == steady::time_point::max()) {
        return -1;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        g_end - steady::now());
    return left.count() > 0 ? static_cast<int>(left.count()) + 1 : 0;
}

// As read(), 0 also when the time is over.
static ssize_t read_byte(char *byte)
{
    pollfd watched = {STDIN_FILENO, POLLIN, 0};

    const int ready = poll(&watched, 1, time_left());
    return ready > 0 ? read(STDIN_FILENO, byte, 1) : ready;
}

// Reads to the end of the line also what is too long for the buffer.
static prompt_result read_line(char *answer, std::size_t size)
{
    std::size_t length = 0;
    char byte = 0;

    for (;;) {
        const ssize_t got = read_byte(&byte);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got != 1) {
            return prompt_result::ENDED;
        }
        if (byte == '\n') {
            break;
        }
        if (length < size) {
            answer[length] = byte;
        }
        length += length < size ? 1 : 0;
    }
    if (length == size || memchr(answer, '\0', length) != nullptr) {
        return prompt_result::TOO_LONG;
    }
    answer[length] = '\0';
    return prompt_result::ANSWERED;
}

// The end of the line is shown: the next output begins on a line of its own.
static bool hide_input(termios *before)
{
    if (tcgetattr(STDIN_FILENO, before) != 0) {
        return false;
    }
    termios hidden = *before;
    hidden.c_lflag &= ~tcflag_t{ECHO};
    hidden.c_lflag |= ECHONL;
    return tcsetattr(STDIN_FILENO, TCSAFLUSH, &hidden) == 0;
}

prompt_result prompt_ask(const char *text, bool echo, char *answer,
                         std::size_t size)
{
    termios before = {};

    const bool hidden = !echo && hide_input(&before);
    if (!echo && !hidden) {
        return prompt_result::ENDED;
    }
    print(text);
    prompt_result result = read_line(answer, size);
    if (hidden) {
        tcsetattr(STDIN_FILENO, TCSANOW, &before);
    }
    if (result != prompt_result::ANSWERED) {
        explicit_bzero(answer, size);
    }
    return result;
}
