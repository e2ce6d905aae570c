#include "programs/rl-con/command.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <ttyline/kit.h>
#include <ttyline/tty.h>

#include "programs/shared/escape.h"
#include "programs/shared/keys.h"

constexpr int VALUE_SIZE = 1024;
static const char BLANKS[] = " \t";

static std::string trimmed(const std::string &text)
{
    const size_t first = text.find_first_not_of(BLANKS);

    if (first == std::string::npos) {
        return "";
    }
    return text.substr(first, text.find_last_not_of(BLANKS) - first + 1);
}

std::string take_word(std::string &text)
{
    text = trimmed(text);
    const size_t end = text.find_first_of(BLANKS);
    std::string word = text.substr(0, end);
    text = end == std::string::npos ? "" : trimmed(text.substr(end));
    return word;
}

// Says so when it is none.
static bool check_key(const std::string &key)
{
    if (key_known(key)) {
        return true;
    }
    printf("no such key: %s\n", escaped(key).c_str());
    return false;
}

// False when nothing is stored, or nothing that can be read.
static bool read_key(const console &c, const char *key, std::string &value)
{
    char text[VALUE_SIZE];

    if (tty_getenv(c.line, key, text, sizeof text) == nullptr) {
        return false;
    }
    value = text;
    return true;
}

static bool store_key(const console &c, const char *key,
                      const std::string &value)
{
    if (value.find('\0') != std::string::npos) {
        printf("a value cannot hold a zero byte\n");
        return false;
    }
    // Of a longer pair the line end would be lost, and the next key with it.
    if (strlen(key) + value.size() > TTY_PAIR_MAX) {
        printf("too long: name and value have room for %d bytes\n",
               TTY_PAIR_MAX);
        return false;
    }
    if (tty_setenv(c.line, key, value.c_str()) != 0) {
        printf("cannot store %s\n", key);
        return false;
    }
    return true;
}

static void show(const console &c, const std::string &arguments)
{
    bool any = false;
    std::string value;

    (void)arguments;
    printf("line    %u\n", c.line);
    printf("device  %s\n", escaped(c.device).c_str());
    printf("peer    %s\n", escaped(c.peer).c_str());
    for (unsigned i = 0; kit_key(i) != nullptr; i++) {
        if (read_key(c, kit_key(i), value)) {
            printf("%s=%s\n", kit_key(i), escaped(value).c_str());
            any = true;
        }
    }
    if (!any) {
        printf("no stored keys\n");
    }
}

static void get(const console &c, const std::string &arguments)
{
    std::string value;

    if (!check_key(arguments)) {
        return;
    }
    if (read_key(c, arguments.c_str(), value)) {
        printf("%s\n", escaped(value).c_str());
    } else {
        printf("%s is not stored\n", arguments.c_str());
    }
}

static void set(const console &c, const std::string &arguments)
{
    std::string value = arguments;
    const std::string key = take_word(value);

    if (check_key(key) && store_key(c, key.c_str(), value)) {
        printf("stored\n");
    }
}

static void reset(const console &c, const std::string &arguments)
{
    (void)arguments;
    if (tty_reset_info(c.line) == 0) {
        printf("reset\n");
    } else {
        printf("cannot reset all keys\n");
    }
}

static void shell(const console &c, const std::string &arguments)
{
    (void)arguments;
    if (!terminal_run_shell(c.term)) {
        printf("cannot start a shell: %s\n", strerror(errno));
    }
}

// Whoever has this prompt may store what he likes: asking for a password here
// would protect nothing, and is left to what runs before it. So it is said that
// nobody has asked.
static void login(const console &c, const std::string &name)
{
    if (!store_key(c, "LOGNAME", name)) {
        return;
    }
    if (tty_login_info_audit(c.line, true) == 0) {
        printf("recorded as logged in; no password was asked for\n");
    } else {
        printf("LOGNAME is stored, the login could not be reported\n");
    }
}

static void help(const console &c, const std::string &arguments);

struct command {
    const char *name;
    const char *arguments;
    int least_words; // after the name
    int most_words;
    const char *purpose;
    // none: the console ends
    void (*run)(const console &, const std::string &);
};

constexpr int ANY_NUMBER = -1;

static const command commands[] = {
    {"show", "", 0, 0, "line, device, peer and stored keys", show},
    {"get", "KEY", 1, 1, "print the value of a key", get},
    {"set", "KEY VALUE...", 2, ANY_NUMBER, "store a value", set},
    {"reset", "", 0, 0, "put the keys back to those of a free line", reset},
    {"shell", "", 0, 0, "run your shell on the line", shell},
    {"login", "NAME", 1, 1, "record a login as this user, unchecked", login},
    {"help", "", 0, 0, "print this", help},
    {"exit", "", 0, 0, "leave the line", nullptr},
};

static void help(const console &c, const std::string &arguments)
{
    (void)c;
    (void)arguments;
    for (const command &known : commands) {
        printf("%-6s%-13s %s\n", known.name, known.arguments, known.purpose);
    }
}

static int count_words(std::string text)
{
    int count = 0;

    while (!take_word(text).empty()) {
        count++;
    }
    return count;
}

static bool words_fit(const command &known, const std::string &arguments)
{
    const int words = count_words(arguments);

    return words >= known.least_words &&
           (known.most_words == ANY_NUMBER || words <= known.most_words);
}

static const command *find_command(const std::string &name)
{
    for (const command &known : commands) {
        if (name == known.name) {
            return &known;
        }
    }
    return nullptr;
}

bool run_command(const console &c, const std::string &line)
{
    std::string arguments = line;
    const std::string name = take_word(arguments);

    if (name.empty()) {
        return true;
    }
    const command *known = find_command(name);
    if (known == nullptr) {
        printf("unknown command: %s (try help)\n", escaped(name).c_str());
    } else if (!words_fit(*known, arguments)) {
        printf("usage: %s%s%s\n", known->name,
               *known->arguments == '\0' ? "" : " ", known->arguments);
    } else if (known->run == nullptr) {
        return false;
    } else {
        known->run(c, arguments);
    }
    return true;
}
