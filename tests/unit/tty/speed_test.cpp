#include <termios.h>

#include <gtest/gtest.h>

#include <ttyline/tty.h>

struct known_speed {
    int speed;
    int code;
};

static const known_speed known_speeds[] = {
    {50, 1},       {75, 2},        {110, 3},       {134, 4},    {150, 5},
    {200, 6},      {300, 7},       {600, 8},       {1200, 9},   {1800, 10},
    {2400, 11},    {4800, 12},     {9600, 13},     {19200, 14}, {38400, 15},
    {57600, 4097}, {115200, 4098}, {230400, 4099},
};

TEST(Speed, every_speed_has_its_code)
{
    for (const known_speed &known : known_speeds) {
        EXPECT_EQ(tty_speed2code(known.speed), known.code) << known.speed;
    }
}

TEST(Speed, every_code_has_its_speed)
{
    for (const known_speed &known : known_speeds) {
        EXPECT_EQ(tty_code2speed(known.code), known.speed) << known.code;
    }
}

TEST(Speed, codes_are_those_of_the_terminal_interface)
{
    EXPECT_EQ(tty_speed2code(50), B50);
    EXPECT_EQ(tty_speed2code(9600), B9600);
    EXPECT_EQ(tty_speed2code(38400), B38400);
    EXPECT_EQ(tty_speed2code(57600), B57600);
    EXPECT_EQ(tty_speed2code(115200), B115200);
    EXPECT_EQ(tty_speed2code(230400), B230400);
}

TEST(Speed, an_unknown_speed_has_code_0)
{
    for (const int speed : {0, 1, 14400, 460800, -9600}) {
        EXPECT_EQ(tty_speed2code(speed), 0) << speed;
    }
}

TEST(Speed, an_unknown_code_has_speed_0)
{
    for (const int code : {0, 16, 4096, 4100, -1}) {
        EXPECT_EQ(tty_code2speed(code), 0) << code;
    }
}
