// Where a login finds programs: what users run, and what root does.
#pragma once

constexpr char TTY_USER_PATH[] = "/usr/local/bin:/usr/bin:/bin";
constexpr char TTY_ROOT_PATH[] =
    "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
