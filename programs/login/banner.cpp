#include "programs/login/banner.h"

#include <string>

#include <ttyline/tty.h>

#include "programs/login/prompt.h"

// A value is one line of a file: its own line ends are written as two
// characters.
static std::string with_line_ends(const std::string &text)
{
    std::string shown;

    for (std::size_t i = 0; i < text.size(); i++) {
        if (text.compare(i, 2, "\\n") == 0) {
            shown += '\n';
            i++;
        } else {
            shown += text[i];
        }
    }
    return shown;
}

void banner_show(const kit_session *session, const char *key)
{
    char value[TTY_PAIR_MAX + 3];
    const unsigned line = static_cast<unsigned>(session->line);

    if (tty_getenv(line, key, value, sizeof value) != nullptr) {
        prompt_say(with_line_ends(value).c_str());
    }
}
