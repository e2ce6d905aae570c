#include "tests/system/programs/ttylined_admin_run.h"

#include <cstring>
#include <ctime>

bytes item(uint16_t type, uint32_t value, uint16_t length)
{
    bytes made(8);

    std::memcpy(made.data(), &type, sizeof type);
    std::memcpy(made.data() + 2, &length, sizeof length);
    std::memcpy(made.data() + 4, &value, sizeof value);
    return made;
}

bytes operator+(bytes a, const bytes &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

bytes about_line(uint32_t ttyno, uint16_t type, uint32_t value)
{
    return item(0x20, ttyno) + item(type, value);
}

bytes hold(uint32_t except, uint32_t seconds)
{
    return about_line(except, 0x800, seconds);
}

bytes release()
{
    return item(0x1000, 0);
}

long long now_ms()
{
    timespec now = {};

    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}
