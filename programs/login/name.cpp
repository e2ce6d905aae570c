#include "programs/login/name.h"

#include <cstring>

constexpr unsigned char DELETE = 0x7f;

static bool printable(const char *text)
{
    for (; *text != '\0'; text++) {
        const unsigned char byte = static_cast<unsigned char>(*text);
        if (byte < ' ' || byte == DELETE) {
            return false;
        }
    }
    return true;
}

bool login_name_acceptable(const char *name)
{
    const std::size_t length = strlen(name);

    return length > 0 && length < LOGIN_NAME_SIZE && name[0] != '-' &&
           name[0] != ' ' && name[length - 1] != ' ' && printable(name);
}
