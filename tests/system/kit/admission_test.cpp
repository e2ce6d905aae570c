// Who may come in, and what those are told who may not.
#include <arpa/inet.h>
#include <grp.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "tests/support/wait.h"
#include "tests/system/kit/kit_daemon.h"

class KitAdmission : public KitTest
{
  protected:
    void SetUp() override
    {
        KitTest::SetUp();
        rules.size = sizeof rules;
        unix_path = console();
        on_path = service_on(unix_path);
        on_path.program = program;
        on_path.admission = &rules;
        on_port = on_path;
        on_port.path = nullptr;
        on_port.protocol = 6;
        on_port.port = free_port(AF_INET);
        record.path_mode = 0666;
    }

    // A client that binds to an address of the loopback first.
    int client_from(const char *address) const
    {
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in own = {};
        own.sin_family = AF_INET;
        inet_pton(AF_INET, address, &own.sin_addr);
        EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&own), sizeof own), 0);
        return connected(fd, "127.0.0.1");
    }

    int connected(int fd, const char *address) const
    {
        sockaddr_in peer = {};
        peer.sin_family = AF_INET;
        peer.sin_port = htons(static_cast<uint16_t>(on_port.port));
        inet_pton(AF_INET, address, &peer.sin_addr);
        EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&peer), sizeof peer),
                  0);
        return fd;
    }

    // What a client is told as another user, with these groups.
    std::string told_as(uid_t uid, gid_t gid, std::vector<gid_t> groups)
    {
        int ends[2];
        EXPECT_EQ(pipe(ends), 0);
        const int status = support::in_child([&] {
            setgroups(groups.size(), groups.data());
            if (setgid(gid) != 0 || setuid(uid) != 0) {
                return false;
            }
            const int client = client_of(on_path);
            const std::string text =
                client >= 0 ? read_until(client, "\n") : "not connected\n";
            return write(ends[1], text.data(), text.size()) > 0;
        });
        EXPECT_EQ(status, 0);
        close(ends[1]);
        std::string text = all_of(ends[0]);
        close(ends[0]);
        return text;
    }

    const char *program[4] = {"/bin/sh", "-c", "echo welcome; exec sleep 60",
                              nullptr};
    kit_admission rules = {};
    std::string unix_path;
    kit_service on_path = {};
    kit_service on_port = {};
};

TEST_F(KitAdmission, peer_address_that_is_not_listed_is_closed)
{
    const char *peers[] = {"127.0.0.8/29", "10.0.0.0/8", nullptr};
    rules.peers = peers;
    start({&on_port});
    const int in = client_from("127.0.0.9");
    EXPECT_EQ(read_until(in, "welcome\r\n"), "welcome\r\n");
    const int out = client_from("127.0.0.16");
    EXPECT_TRUE(ended(out));
    close(in);
    close(out);
}

TEST_F(KitAdmission, ipv6_peers_are_listed_by_network)
{
    const char *peers[] = {"::/127", nullptr};
    rules.peers = peers;
    start({&on_port});
    const int in = connect_port(AF_INET6, on_port.port);
    EXPECT_EQ(read_until(in, "welcome\r\n"), "welcome\r\n");
    const int out = client_from("127.0.0.1");
    EXPECT_TRUE(ended(out));
    close(in);
    close(out);
}

TEST_F(KitAdmission, address_that_was_connected_to_can_be_narrowed)
{
    const char *locals[] = {"127.0.0.5", nullptr};
    rules.locals = locals;
    start({&on_port});
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int in = connected(fd, "127.0.0.5");
    EXPECT_EQ(read_until(in, "welcome\r\n"), "welcome\r\n");
    const int other = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int out = connected(other, "127.0.0.6");
    EXPECT_TRUE(ended(out));
    close(in);
    close(out);
}

TEST_F(KitAdmission, empty_list_lets_nobody_in)
{
    const char *none[] = {nullptr};
    rules.peers = none;
    rules.users = none;
    start({&on_port, &on_path});
    const int client = client_from("127.0.0.1");
    EXPECT_TRUE(ended(client));
    EXPECT_EQ(told_as(getuid(), getgid(), {}),
              "ttyline: you may not use this service\r\n");
    close(client);
}

TEST_F(KitAdmission, user_of_a_unix_peer_decides)
{
    if (getuid() != 0) {
        GTEST_SKIP() << "only root becomes somebody else";
    }
    const char *users[] = {"nobody", "4711", nullptr};
    rules.users = users;
    ASSERT_EQ(chmod(root_.c_str(), 0711), 0);
    start({&on_path});
    EXPECT_EQ(told_as(65534, 65534, {}), "welcome\r\n");
    EXPECT_EQ(told_as(4711, 100, {}), "welcome\r\n");
    EXPECT_EQ(told_as(4712, 100, {}),
              "ttyline: you may not use this service\r\n");
    EXPECT_EQ(told_as(0, 0, {}), "ttyline: you may not use this service\r\n");
}

TEST_F(KitAdmission, any_group_of_a_unix_peer_decides)
{
    if (getuid() != 0) {
        GTEST_SKIP() << "only root becomes somebody else";
    }
    const char *groups[] = {"4200", nullptr};
    rules.groups = groups;
    ASSERT_EQ(chmod(root_.c_str(), 0711), 0);
    start({&on_path});
    EXPECT_EQ(told_as(4711, 4200, {}), "welcome\r\n");
    EXPECT_EQ(told_as(4711, 100, {7, 4200}), "welcome\r\n");
    EXPECT_EQ(told_as(4711, 100, {7}),
              "ttyline: you may not use this service\r\n");
}

TEST_F(KitAdmission, service_that_is_full_says_so)
{
    rules.most_sessions = 2;
    start({&on_path});
    const int first = client_of(on_path);
    const int second = client_of(on_path);
    EXPECT_EQ(read_until(first, "welcome\r\n"), "welcome\r\n");
    EXPECT_EQ(read_until(second, "welcome\r\n"), "welcome\r\n");
    const int third = client_of(on_path);
    EXPECT_EQ(all_of(third),
              "ttyline: all sessions of this service are in use\r\n");
    close(third);
    close(first);
    EXPECT_TRUE(eventually([&] {
        return ask("status").find(" sessions=1 ") != std::string::npos;
    }));
    const int fourth = client_of(on_path);
    EXPECT_EQ(read_until(fourth, "welcome\r\n"), "welcome\r\n");
    close(second);
    close(fourth);
}

TEST_F(KitAdmission, one_peer_can_have_so_many_and_others_are_not_counted)
{
    rules.most_per_peer = 1;
    start({&on_port});
    const int first = client_from("127.0.0.1");
    EXPECT_EQ(read_until(first, "welcome\r\n"), "welcome\r\n");
    const int same = client_from("127.0.0.1");
    EXPECT_EQ(all_of(same),
              "ttyline: too many sessions from where you are\r\n");
    const int other = client_from("127.0.0.2");
    EXPECT_EQ(read_until(other, "welcome\r\n"), "welcome\r\n");
    close(first);
    close(same);
    close(other);
}

TEST_F(KitAdmission, refusal_is_read_by_a_client_that_has_typed_ahead)
{
    rules.most_sessions = 1;
    start({&on_port});
    const int first = client_from("127.0.0.1");
    EXPECT_EQ(read_until(first, "welcome\r\n"), "welcome\r\n");
    const int second = client_from("127.0.0.1");
    ASSERT_TRUE(write_all(second, std::string(3000, 'x')));
    EXPECT_EQ(all_of(second).find("ttyline: all sessions"), 0u);
    close(first);
    close(second);
}

TEST_F(KitAdmission, daemon_has_the_last_word)
{
    on_path.admit = [](const kit_session *session, char *reason, size_t size,
                       void *) {
        if (session->line != 258) {
            return 0;
        }
        snprintf(reason, size, "not on line %d\nInjected: yes", session->line);
        return 1;
    };
    start({&on_path});
    const int client = client_of(on_path);
    EXPECT_EQ(all_of(client), "ttyline: not on line 258\r\n");
    close(client);
}

TEST_F(KitAdmission, unix_path_is_the_daemons_users_unless_it_says_more)
{
    record.path_mode = 0;
    start({&on_path});
    struct stat status = {};
    ASSERT_EQ(stat(console().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
}

static mode_t mode_of(const std::string &name)
{
    struct stat status = {};

    return stat(name.c_str(), &status) == 0 ? status.st_mode & 0777 : 0;
}

// As each tty_setenv() of the daemon's own leaves it.
TEST_F(KitAdmission, unix_path_has_its_mode_whatever_the_creation_mask)
{
    record.path_mode = 0600;
    record.reload = [](char *, size_t, void *) {
        umask(0);
        return 0;
    };
    start({&on_path});
    EXPECT_EQ(ask("reload"), "ok\n");
    EXPECT_EQ(ask("stop 7"), "ok\n");
    ASSERT_EQ(unlink(console().c_str()), 0);
    EXPECT_EQ(ask("open 7"), "ok\n");
    EXPECT_TRUE(eventually([&] {
        return mode_of(console()) == 0600;
    })) << mode_of(console());
}

// He may have connected before the path got its mode.
TEST_F(KitAdmission, peer_whom_the_paths_mode_keeps_out_is_refused)
{
    if (getuid() != 0) {
        GTEST_SKIP() << "only root becomes somebody else";
    }
    ASSERT_EQ(chmod(root_.c_str(), 0711), 0);
    record.path_mode = 0660;
    start({&on_path});
    // The daemon may still be about to give the new path its mode.
    EXPECT_TRUE(eventually([&] {
        return chmod(console().c_str(), 0666) == 0 &&
               told_as(4711, 4711, {}) ==
                   "ttyline: you may not use this service\r\n";
    }));
    EXPECT_EQ(mode_of(console()), 0660u);
    EXPECT_EQ(told_as(4711, 4711, {getgid()}), "welcome\r\n");
}

static const char *no_peers[] = {nullptr};
static kit_admission nobody = {sizeof nobody, no_peers, nullptr, nullptr,
                               nullptr,       0,        0};

TEST_F(KitAdmission, rules_are_replaced_on_a_reload)
{
    record.reload = [](char *, size_t, void *context) {
        return kit_admit(static_cast<kit_service *>(context), &nobody);
    };
    record.context = &on_port;
    start({&on_port});
    const int before = client_from("127.0.0.1");
    EXPECT_EQ(read_until(before, "welcome\r\n"), "welcome\r\n");
    EXPECT_EQ(ask("reload"), "ok\n");
    const int after = client_from("127.0.0.1");
    EXPECT_TRUE(ended(after));
    // Who is in stays.
    ASSERT_TRUE(write_all(before, "x"));
    EXPECT_EQ(read_until(before, "x"), "x");
    close(before);
    close(after);
}

TEST_F(KitAdmission, rules_that_cannot_be_understood_are_refused)
{
    for (const char *text : {"10.0.0.0/33", "10.0.0", "::1/129", "/8", "",
                             "10.0.0.0/", "10.0.0.0/x"}) {
        const char *peers[] = {text, nullptr};
        rules.peers = peers;
        EXPECT_EQ(kit_offer(&on_port), -1) << text;
        EXPECT_NE(std::string(kit_error()).find("no address"),
                  std::string::npos)
            << kit_error();
    }
    const char *users[] = {"no-such-user-here", nullptr};
    rules.peers = nullptr;
    rules.users = users;
    EXPECT_EQ(kit_offer(&on_path), -1);
    EXPECT_STREQ(kit_error(), "there is no user 'no-such-user-here'");
}
