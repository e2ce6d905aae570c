#include "tests/soak/chaos_inetd.h"

#include <unistd.h>

#include <ttyline/vc.h>

#include "tests/system/support/daemon.h"

constexpr int FIRST_LINE = 258;
constexpr int LAST_LINE = 1148;
constexpr int LOOK_MS = 20;
constexpr std::chrono::milliseconds SETTLE_TIME{300};
constexpr std::chrono::milliseconds GIVE_UP_TIME{3000};

// One record in so many is answered with more than it asked for.
constexpr unsigned int TEASE_ONE_IN = 12;
constexpr unsigned int HARM_ONE_IN = 2500;
// Numbers that the daemon rarely has open, yet small enough for its table.
constexpr int RARE_NUMBER = 48;
constexpr unsigned int RARE_NUMBERS = 16;

ChaosInetd::ChaosInetd(unsigned int seed, int services)
    : services_(services), random_(seed)
{
}

ChaosInetd::~ChaosInetd()
{
    ending_ = true;
    if (thread_.joinable()) {
        thread_.join();
    }
}

void ChaosInetd::start()
{
    thread_ = std::thread(&ChaosInetd::run, this);
}

bool ChaosInetd::restart()
{
    restarting_ = true;
    return eventually([&] {
        return !restarting_ && epoch_ % 2 == 0;
    });
}

unsigned int ChaosInetd::roll(unsigned int sides)
{
    return static_cast<unsigned int>(random_() % sides);
}

void ChaosInetd::run()
{
    while (!ending_) {
        InetdConnection connection = inetd_.accept(LOOK_MS);
        if (connection.fd() >= 0) {
            serve(&connection);
        }
    }
}

// Sessions can be relied on once every listener has been open for a moment. A
// child that was being killed when the old ones were closed may have kept them
// until then: clients that came in there are lost with it, and a new listener
// beside it could not be opened, which has cost other services theirs. In that
// case only a new connection helps.
bool ChaosInetd::settle(int permits, Clock::time_point began)
{
    if (epoch_ % 2 == 0) {
        return true;
    }
    const auto age = Clock::now() - began;
    if (permits >= services_ && age > SETTLE_TIME) {
        epoch_++;
    }
    return epoch_ % 2 == 0 || age < GIVE_UP_TIME;
}

// A connection that was ended here has been followed by a reset: nothing of it
// is left. One that the daemon has ended, because a listener could not be
// opened, leaves its sessions on their lines.
void ChaosInetd::serve(InetdConnection *connection)
{
    const auto began = Clock::now();
    int permits = 0;

    if (ended_here_) {
        free_lines_.clear();
        for (int line = FIRST_LINE; line <= LAST_LINE; line++) {
            free_lines_.insert(line);
        }
    }
    ended_here_ = true;
    while (!ending_ && !restarting_ && settle(permits, began)) {
        if (connection->silent(LOOK_MS)) {
            continue;
        }
        const auto record = connection->receive();
        if (!record) {
            ended_here_ = false;
            break;
        }
        permits +=
            (record->vc_flag & (VC_FLAG_PORT_PERMIT | VC_FLAG_PATH_PERMIT)) != 0
                ? 1
                : 0;
        answer(connection, *record);
        if (!calm_ && roll(TEASE_ONE_IN) == 0) {
            tease(connection, *record);
        }
        if (!calm_ && epoch_ % 2 == 0 && roll(HARM_ONE_IN) == 0) {
            epoch_++;
            harm(connection);
            return;
        }
    }
    epoch_ += 1 - epoch_ % 2;
    restarting_ = false;
}

void ChaosInetd::give_line(InetdConnection *connection, const tty_cmsg &report)
{
    if (free_lines_.empty()) {
        return;
    }
    last_assigned_ = report;
    last_assigned_.ttyno = *free_lines_.begin();
    free_lines_.erase(free_lines_.begin());
    connection->send(last_assigned_);
}

void ChaosInetd::answer(InetdConnection *connection, const tty_cmsg &record)
{
    switch (record.vc_flag) {
    case VC_FLAG_PORT_PERMIT:
    case VC_FLAG_PATH_PERMIT:
        connection->permit(record);
        break;
    case VC_FLAG_CLIENT_ALLOC:
        give_line(connection, record);
        break;
    case VC_FLAG_CLIENT_CLEAR:
        // A refused assignment names its client; that line is taken.
        if (record.accept_id == 0) {
            free_lines_.insert(record.ttyno);
            cleans_++;
        }
        break;
    default:
        break;
    }
}

// What must not disturb any session: kinds that mean nothing, records for
// other processes, lines that are none or that nobody is on.
void ChaosInetd::tease(InetdConnection *connection, const tty_cmsg &record)
{
    tty_cmsg odd = record;

    odd.path[VC_PATH_SIZE - 1] = '\0';
    switch (roll(6)) {
    case 0:
        odd.vc_flag = roll(2) == 0 ? 0x004 : 0x040;
        break;
    case 1:
        odd.vc_flag = VC_FLAG_CLIENT_ALLOC;
        odd.ttyno = roll(2) == 0 ? -1 : 1586;
        odd.sockfd = -1;
        break;
    case 2:
        odd.vc_flag = VC_FLAG_CLIENT_CLEAR;
        odd.ttyno = roll(2) == 0 ? static_cast<int>(roll(258)) : 1500;
        break;
    case 3:
        odd.vc_flag = VC_FLAG_PORT_PERMIT;
        odd.pid = 1;
        break;
    case 4:
        odd.vc_flag = VC_FLAG_STOP_LISTEN;
        odd.pid = 1;
        break;
    default:
        odd.vc_flag = VC_FLAG_ALLOC_OK;
        break;
    }
    connection->send(odd);
}

// What ends sessions, and the connection after it.
void ChaosInetd::harm(InetdConnection *connection)
{
    unsigned char garbage[sizeof(tty_cmsg)];
    tty_cmsg record = last_assigned_;

    for (unsigned char &byte : garbage) {
        byte = static_cast<unsigned char>(random_());
    }
    switch (roll(6)) {
    case 0: // an inetd that was started anew
        break;
    case 1:
        connection->send_bytes(garbage, sizeof garbage);
        break;
    case 2:
        connection->send_bytes(garbage, roll(sizeof garbage));
        break;
    case 3: // a line for a connection that has long gone
        record.sockfd = RARE_NUMBER + static_cast<int>(roll(RARE_NUMBERS));
        connection->assign(record, FIRST_LINE + static_cast<int>(roll(64)));
        break;
    case 4: // the same line twice
        connection->send(record);
        break;
    default:
        record.vc_flag = VC_FLAG_PATH_FAIL;
        connection->send(record);
        break;
    }
    if (roll(2) == 0) {
        usleep(roll(20000));
    }
}
