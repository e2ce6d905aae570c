// Baud rates and the codes that the terminal interface has for them.
#include <stdint.h>

#include <ttyline/tty.h>

struct speed_code {
    int32_t speed;
    int32_t code;
};

// 19200 and 38400 stand twice, as they always have; the first row is found.
static const speed_code speedtab[] = {
    {50, 1},     {75, 2},     {110, 3},      {134, 4},       {150, 5},
    {200, 6},    {300, 7},    {600, 8},      {1200, 9},      {1800, 10},
    {2400, 11},  {4800, 12},  {9600, 13},    {19200, 14},    {38400, 15},
    {19200, 14}, {38400, 15}, {57600, 4097}, {115200, 4098}, {230400, 4099},
    {0, 0},
};

// The last row ends both searches, as neither a speed nor a code is 0.
int tty_speed2code(int speed)
{
    for (const speed_code *row = speedtab; row->speed != 0; row++) {
        if (row->speed == speed) {
            return row->code;
        }
    }
    return 0;
}

int tty_code2speed(int code)
{
    for (const speed_code *row = speedtab; row->code != 0; row++) {
        if (row->code == code) {
            return row->speed;
        }
    }
    return 0;
}
