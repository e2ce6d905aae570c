#include "tests/unit/vc/vc_fixture.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

Calls g_calls;

void VcTest::SetUp()
{
    int ends[2];

    runtime_test::SetUp();
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    inetd_fd_ = ends[0];
    far_end_ = ends[1];
    g_calls = Calls();
    vc_debug_init();
}

void VcTest::TearDown()
{
    close(inetd_fd_);
    close(far_end_);
    runtime_test::TearDown();
}

std::vector<std::string> VcTest::messages()
{
    const auto lines = support::lines_of(path("/mng/tty/.vc_dump.txt"));
    const std::string own = " " + std::to_string(getpid()) + ":";
    std::vector<std::string> fresh;

    for (; log_read_ < lines.size(); log_read_++) {
        const std::string text = support::without_stamp(lines[log_read_]);
        if (text.compare(0, own.size(), own) == 0) {
            fresh.push_back(text.substr(own.size()));
        }
    }
    return fresh;
}

bool VcTest::logged(const std::string &text)
{
    const std::vector<std::string> texts = messages();

    return std::find(texts.begin(), texts.end(), text) != texts.end();
}

std::vector<tty_cmsg> VcTest::sent() const
{
    std::vector<tty_cmsg> records;
    tty_cmsg record;

    while (recv(far_end_, &record, sizeof record, MSG_DONTWAIT) ==
           static_cast<ssize_t>(sizeof record)) {
        records.push_back(record);
    }
    return records;
}

bool VcTest::give(const tty_cmsg &record) const
{
    return send(far_end_, &record, sizeof record, MSG_NOSIGNAL) ==
           static_cast<ssize_t>(sizeof record);
}

void VcTest::add(const vc_reg &reg)
{
    ASSERT_EQ(vc_service_reg(&reg), 0);
}

vc_srv *VcTest::service(int index)
{
    vc_srv *srv;

    VC_FOR_EACH_SERVICE(srv)
    {
        if (index-- == 0) {
            return srv;
        }
    }
    return nullptr;
}

static int count_init(int)
{
    g_calls.init++;
    g_calls.order += "init ";
    return g_calls.init_result;
}

static int count_read(int ttyno)
{
    g_calls.read++;
    g_calls.ttyno = ttyno;
    return g_calls.read_result;
}

static int count_write(int ttyno)
{
    g_calls.write++;
    g_calls.ttyno = ttyno;
    return g_calls.write_result;
}

static int count_kill(int)
{
    g_calls.kill++;
    g_calls.order += "kill ";
    return 0;
}

static int count_alloc(int ttyno, int inetd_fd, int sockfd, int master_fd)
{
    g_calls.alloc++;
    g_calls.order += "alloc ";
    g_calls.ttyno = ttyno;
    g_calls.alloc_inetd_fd = inetd_fd;
    g_calls.alloc_sockfd = sockfd;
    g_calls.alloc_master_fd = master_fd;
    return g_calls.alloc_result;
}

static int wait_in_shell(int, const char *)
{
    // The parent's death or its signal ends this.
    for (;;) {
        pause();
    }
}

vc_reg plain(int family, int port, const char *unix_path, uint32_t protocol)
{
    vc_reg reg = {};

    reg.socket_type = family;
    reg.listen_port = port;
    reg.listen_path = unix_path;
    reg.protocol = protocol;
    reg.init_func = count_init;
    reg.read_func = count_read;
    reg.write_func = count_write;
    reg.kill_func = count_kill;
    reg.alloc_func = count_alloc;
    reg.shell_func = wait_in_shell;
    return reg;
}

// Below the numbers that the kernel hands out, and other ones in each of the
// tests that run side by side.
int unused_port(int family)
{
    static int next;

    for (;;) {
        const int port = 10000 + (getpid() * 16 + next++) % 22000;
        const int fd = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        struct sockaddr_storage storage = {};
        storage.ss_family = static_cast<sa_family_t>(family);
        // Ports stand in the same place in both families.
        reinterpret_cast<struct sockaddr_in *>(&storage)->sin_port =
            htons(static_cast<uint16_t>(port));
        const bool free =
            bind(fd, reinterpret_cast<struct sockaddr *>(&storage),
                 family == AF_INET ? sizeof(struct sockaddr_in)
                                   : sizeof(struct sockaddr_in6)) == 0;
        close(fd);
        if (free) {
            return port;
        }
    }
}

Listener::Listener()
{
    int ends[2] = {-1, -1};

    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    fd = ends[0];
    copy_ = dup(fd);
    peer_ = ends[1];
}

Listener::~Listener()
{
    close(copy_);
    close(peer_);
}

bool Listener::shut_down() const
{
    char byte;

    // The copy keeps the connection up when the socket is only closed.
    return recv(peer_, &byte, 1, MSG_DONTWAIT) == 0;
}

bool Listener::closed() const
{
    return fcntl(fd, F_GETFD) == -1;
}
