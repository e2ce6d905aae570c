#include "vc/registration.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stddef.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/support/wait.h"
#include "tests/unit/vc/vc_fixture.h"
#include "vc/service.h"
#include "vc/session.h"

using RegistrationTest = VcTest;

static bool allow(const struct sockaddr *, const struct sockaddr *)
{
    return true;
}

static int some_tos()
{
    return 8;
}

static void on_exit_of_session(int, int)
{
}

// The nodes in list order.
static std::vector<vc_srv *> services()
{
    std::vector<vc_srv *> nodes;
    vc_srv *srv;

    VC_FOR_EACH_SERVICE(srv)
    {
        nodes.push_back(srv);
    }
    return nodes;
}

static int registered(const vc_reg &reg)
{
    return vc_service_reg(&reg);
}

TEST_F(RegistrationTest, fields_of_the_registration_stand_in_order)
{
    EXPECT_EQ(offsetof(vc_reg, socket_type), 0u);
    EXPECT_EQ(offsetof(vc_reg, listen_port), 4u);
    EXPECT_EQ(offsetof(vc_reg, listen_path), 8u);
    EXPECT_EQ(offsetof(vc_reg, protocol), 8 + sizeof(void *));
    EXPECT_EQ(offsetof(vc_reg, addrtype), 12 + sizeof(void *));
    EXPECT_EQ(offsetof(vc_reg, scope), 13 + sizeof(void *));
    EXPECT_EQ(offsetof(vc_reg, nameseq_type), 16 + sizeof(void *));
    EXPECT_EQ(offsetof(vc_reg, nameseq_lower), 20 + sizeof(void *));
    EXPECT_EQ(offsetof(vc_reg, nameseq_upper), 24 + sizeof(void *));
    EXPECT_LT(offsetof(vc_reg, init_func), offsetof(vc_reg, read_func));
    EXPECT_LT(offsetof(vc_reg, read_func), offsetof(vc_reg, write_func));
    EXPECT_LT(offsetof(vc_reg, write_func), offsetof(vc_reg, kill_func));
    EXPECT_LT(offsetof(vc_reg, kill_func), offsetof(vc_reg, alloc_func));
    EXPECT_LT(offsetof(vc_reg, alloc_func), offsetof(vc_reg, shell_func));
    EXPECT_LT(offsetof(vc_reg, shell_func), offsetof(vc_reg, exit_func));
    EXPECT_LT(offsetof(vc_reg, exit_func), offsetof(vc_reg, acl_func));
    EXPECT_LT(offsetof(vc_reg, acl_func), offsetof(vc_reg, tos_func));
}

TEST_F(RegistrationTest, a_new_service_has_no_listener_and_no_flags)
{
    ASSERT_EQ(registered(plain(AF_INET, 23, nullptr, 6)), 0);
    ASSERT_EQ(services().size(), 1u);
    EXPECT_EQ(services()[0]->listen_fd, -1);
    EXPECT_EQ(services()[0]->flags, 0u);
    EXPECT_TRUE(g_vc_inited);
    EXPECT_FALSE(g_vc_started);
    EXPECT_TRUE(messages().empty());
}

TEST_F(RegistrationTest, the_record_is_copied_whole)
{
    vc_reg reg = plain(30, 0, nullptr, 3);
    reg.addrtype = 1;
    reg.scope = 2;
    reg.nameseq_type = 3;
    reg.nameseq_lower = 4;
    reg.nameseq_upper = 5;
    reg.exit_func = on_exit_of_session;
    reg.acl_func = allow;
    reg.tos_func = some_tos;
    ASSERT_EQ(vc_service_reg(&reg), 0);
    const vc_reg &copy = services()[0]->reg;
    EXPECT_EQ(copy.addrtype, 1);
    EXPECT_EQ(copy.scope, 2);
    EXPECT_EQ(copy.nameseq_type, 3u);
    EXPECT_EQ(copy.nameseq_lower, 4u);
    EXPECT_EQ(copy.nameseq_upper, 5u);
    EXPECT_EQ(copy.init_func, reg.init_func);
    EXPECT_EQ(copy.shell_func, reg.shell_func);
    EXPECT_EQ(copy.exit_func, reg.exit_func);
    EXPECT_EQ(copy.acl_func, reg.acl_func);
    EXPECT_EQ(copy.tos_func, reg.tos_func);
}

TEST_F(RegistrationTest, the_path_is_the_services_own_copy)
{
    char name[] = "/tmp/a";
    ASSERT_EQ(registered(plain(AF_UNIX, 0, name, 7)), 0);
    name[5] = 'b';
    EXPECT_STREQ(services()[0]->reg.listen_path, "/tmp/a");
}

TEST_F(RegistrationTest, services_stand_in_the_order_of_registration)
{
    ASSERT_EQ(registered(plain(AF_INET, 23, nullptr, 6)), 0);
    ASSERT_EQ(registered(plain(AF_INET, 24, nullptr, 1)), 0);
    ASSERT_EQ(registered(plain(AF_UNIX, 0, "/tmp/x", 7)), 0);
    ASSERT_EQ(services().size(), 3u);
    EXPECT_EQ(services()[0]->reg.listen_port, 23);
    EXPECT_EQ(services()[1]->reg.listen_port, 24);
    EXPECT_EQ(services()[2]->reg.protocol, 7u);
}

TEST_F(RegistrationTest, protocol_12_is_refused)
{
    EXPECT_EQ(registered(plain(AF_INET, 23, nullptr, 12)), -1);
    EXPECT_TRUE(logged("vc: reg parameter error, protocal 12.\n"));
    EXPECT_TRUE(services().empty());
}

TEST_F(RegistrationTest, a_huge_protocol_is_refused_and_printed_signed)
{
    EXPECT_EQ(registered(plain(AF_INET, 23, nullptr, 0xffffffffu)), -1);
    EXPECT_TRUE(logged("vc: reg parameter error, protocal -1.\n"));
}

TEST_F(RegistrationTest, a_null_record_is_refused_with_protocol_minus_one)
{
    ASSERT_EQ(registered(plain(AF_INET, 23, nullptr, 6)), 0);
    EXPECT_EQ(vc_service_reg(nullptr), -1);
    EXPECT_TRUE(logged("vc: reg parameter error, protocal -1.\n"));
}

TEST_F(RegistrationTest, each_required_callback_is_required)
{
    for (int missing = 0; missing < 6; missing++) {
        vc_reg reg = plain(AF_INET, 23, nullptr, 6);
        switch (missing) {
        case 0:
            reg.init_func = nullptr;
            break;
        case 1:
            reg.read_func = nullptr;
            break;
        case 2:
            reg.write_func = nullptr;
            break;
        case 3:
            reg.kill_func = nullptr;
            break;
        case 4:
            reg.alloc_func = nullptr;
            break;
        default:
            reg.shell_func = nullptr;
            break;
        }
        EXPECT_EQ(vc_service_reg(&reg), -1) << missing;
        EXPECT_TRUE(logged("vc: reg parameter error, protocal 6.\n"));
    }
    EXPECT_TRUE(services().empty());
}

TEST_F(RegistrationTest, the_optional_callbacks_may_be_null)
{
    const vc_reg reg = plain(AF_INET, 23, nullptr, 6);
    ASSERT_EQ(reg.exit_func, nullptr);
    ASSERT_EQ(reg.acl_func, nullptr);
    ASSERT_EQ(reg.tos_func, nullptr);
    EXPECT_EQ(vc_service_reg(&reg), 0);
}

TEST_F(RegistrationTest, inet_protocols_take_ipv4_and_ipv6_only)
{
    int port = 1000;
    for (const unsigned int protocol : {1u, 2u, 4u, 5u, 6u, 11u}) {
        EXPECT_EQ(registered(plain(AF_INET, ++port, nullptr, protocol)), 0);
        EXPECT_EQ(registered(plain(AF_INET6, port, nullptr, protocol)), 0);
        EXPECT_EQ(registered(plain(AF_UNIX, 0, "/tmp/x", protocol)), -1);
        EXPECT_TRUE(logged("vc: reg fail, protocol = " +
                           std::to_string(protocol) + ", socket_type = 1\n"));
        EXPECT_EQ(registered(plain(30, 0, nullptr, protocol)), -1);
        EXPECT_TRUE(logged("vc: reg fail, protocol = " +
                           std::to_string(protocol) + ", socket_type = 30\n"));
    }
}

TEST_F(RegistrationTest, tipc_protocols_take_tipc_only)
{
    for (const unsigned int protocol : {3u, 8u}) {
        EXPECT_EQ(registered(plain(30, 0, nullptr, protocol)), 0);
        EXPECT_EQ(registered(plain(AF_INET, 23, nullptr, protocol)), -1);
        EXPECT_TRUE(logged("vc: reg fail, protocol = " +
                           std::to_string(protocol) + ", socket_type = 2\n"));
    }
}

TEST_F(RegistrationTest, path_protocols_take_a_unix_path_without_port_only)
{
    for (const unsigned int protocol : {7u, 9u, 10u}) {
        const std::string name = "/tmp/p" + std::to_string(protocol);
        const std::string start =
            "vc: reg fail, protocol = " + std::to_string(protocol);
        EXPECT_EQ(registered(plain(AF_UNIX, 0, name.c_str(), protocol)), 0);
        EXPECT_EQ(registered(plain(AF_INET, 0, name.c_str(), protocol)), -1);
        EXPECT_TRUE(logged(start + ", socket_type = 2, listen_port = 0\n"));
        EXPECT_EQ(registered(plain(AF_UNIX, 0, nullptr, protocol)), -1);
        EXPECT_TRUE(logged(start + ", socket_type = 1, listen_port = 0\n"));
        EXPECT_EQ(registered(plain(AF_UNIX, 0, "", protocol)), -1);
        EXPECT_TRUE(logged(start + ", socket_type = 1, listen_port = 0\n"));
        EXPECT_EQ(registered(plain(AF_UNIX, 5, "/tmp/q", protocol)), -1);
        EXPECT_TRUE(logged(start + ", socket_type = 1, listen_port = 5\n"));
    }
}

TEST_F(RegistrationTest, protocol_0_takes_any_family)
{
    EXPECT_EQ(registered(plain(5, 0, nullptr, 0)), 0);
    EXPECT_EQ(registered(plain(AF_INET, 23, nullptr, 0)), 0);
    EXPECT_EQ(registered(plain(AF_UNIX, 0, "/tmp/x", 0)), 0);
    EXPECT_EQ(registered(plain(30, 0, nullptr, 0)), 0);
    EXPECT_EQ(services().size(), 4u);
}

TEST_F(RegistrationTest, one_port_of_one_family_is_registered_once)
{
    ASSERT_EQ(registered(plain(AF_INET, 23, nullptr, 6)), 0);
    EXPECT_EQ(registered(plain(AF_INET, 23, nullptr, 1)), -1);
    EXPECT_TRUE(logged("vc: reg fail, duplicate registration\n"));
    EXPECT_EQ(services().size(), 1u);
}

TEST_F(RegistrationTest, one_port_of_two_families_is_two_services)
{
    EXPECT_EQ(registered(plain(AF_INET, 23, nullptr, 6)), 0);
    EXPECT_EQ(registered(plain(AF_INET6, 23, nullptr, 6)), 0);
}

TEST_F(RegistrationTest, equal_paths_are_duplicates_of_the_same_family_only)
{
    ASSERT_EQ(registered(plain(AF_UNIX, 0, "/tmp/x", 7)), 0);
    EXPECT_EQ(registered(plain(AF_UNIX, 0, "/tmp/x", 9)), -1);
    EXPECT_TRUE(logged("vc: reg fail, duplicate registration\n"));
    EXPECT_EQ(registered(plain(AF_INET, 0, "/tmp/x", 0)), 0);
}

TEST_F(RegistrationTest, port_0_is_no_endpoint)
{
    EXPECT_EQ(registered(plain(AF_UNIX, 0, "/tmp/x", 7)), 0);
    EXPECT_EQ(registered(plain(AF_UNIX, 0, "/tmp/y", 7)), 0);
    EXPECT_EQ(registered(plain(30, 0, nullptr, 3)), 0);
    EXPECT_EQ(registered(plain(30, 0, nullptr, 8)), 0);
}

TEST_F(RegistrationTest, protocol_11_starts_closed)
{
    ASSERT_EQ(registered(plain(AF_INET, 23, nullptr, 11)), 0);
    EXPECT_EQ(services()[0]->flags, SRV_CLOSED);
}

TEST_F(RegistrationTest, a_refused_first_registration_still_initialises)
{
    EXPECT_EQ(registered(plain(AF_INET, 23, nullptr, 12)), -1);
    EXPECT_TRUE(g_vc_inited);
    EXPECT_EQ(vc_service_del(23), 0);
}

TEST_F(RegistrationTest, deletion_before_any_registration_fails)
{
    EXPECT_EQ(vc_service_del(23), -1);
    EXPECT_FALSE(g_vc_inited);
}

TEST_F(RegistrationTest, deletion_without_a_match_succeeds)
{
    ASSERT_EQ(registered(plain(AF_INET, 24, nullptr, 6)), 0);
    EXPECT_EQ(vc_service_del(23), 0);
    EXPECT_EQ(services().size(), 1u);
}

TEST_F(RegistrationTest, deletion_removes_the_first_match_only)
{
    ASSERT_EQ(registered(plain(AF_INET, 23, nullptr, 6)), 0);
    ASSERT_EQ(registered(plain(AF_INET6, 23, nullptr, 6)), 0);
    EXPECT_EQ(vc_service_del(23), 0);
    ASSERT_EQ(services().size(), 1u);
    EXPECT_EQ(services()[0]->reg.socket_type, AF_INET6);
}

TEST_F(RegistrationTest, deletion_of_port_0_takes_the_first_path)
{
    ASSERT_EQ(registered(plain(AF_INET, 23, nullptr, 6)), 0);
    ASSERT_EQ(registered(plain(AF_UNIX, 0, "/tmp/x", 7)), 0);
    ASSERT_EQ(registered(plain(AF_UNIX, 0, "/tmp/y", 7)), 0);
    // Sessions of the service share the path: it outlives the service.
    static const char *shared;
    shared = services()[1]->reg.listen_path;
    EXPECT_EQ(vc_service_del(0), 0);
    ASSERT_EQ(services().size(), 2u);
    EXPECT_STREQ(services()[1]->reg.listen_path, "/tmp/y");
    EXPECT_STREQ(shared, "/tmp/x");
}

TEST_F(RegistrationTest, deletion_closes_the_listener)
{
    ASSERT_EQ(registered(plain(AF_INET, 23, nullptr, 6)), 0);
    const int listener = dup(0);
    services()[0]->listen_fd = listener;
    EXPECT_EQ(vc_service_del(23), 0);
    EXPECT_EQ(fcntl(listener, F_GETFD), -1);
}

TEST_F(RegistrationTest, deletion_of_a_service_on_descriptor_0_closes_it)
{
    ASSERT_EQ(registered(plain(AF_INET, 23, nullptr, 6)), 0);
    const int kept = dup(0);
    services()[0]->listen_fd = 0;
    EXPECT_EQ(vc_service_del(23), 0);
    EXPECT_EQ(fcntl(0, F_GETFD), -1);
    dup2(kept, 0);
    close(kept);
}

TEST_F(RegistrationTest, nothing_is_sent_or_logged_on_deletion)
{
    ASSERT_EQ(registered(plain(AF_INET, 23, nullptr, 6)), 0);
    vc_tty_socket_set(inetd_fd_);
    EXPECT_EQ(vc_service_del(23), 0);
    EXPECT_TRUE(sent().empty());
    EXPECT_TRUE(messages().empty());
}

static volatile sig_atomic_t g_hangups;

static void count_hangup(int)
{
    g_hangups = g_hangups + 1;
}

TEST_F(RegistrationTest, a_started_loop_is_woken_by_registration_and_deletion)
{
    ASSERT_EQ(registered(plain(AF_INET, 23, nullptr, 6)), 0);
    signal(SIGHUP, count_hangup);
    ASSERT_EQ(registered(plain(AF_INET, 24, nullptr, 6)), 0);
    EXPECT_EQ(g_hangups, 0);
    g_vc_started = true;
    ASSERT_EQ(registered(plain(AF_INET, 25, nullptr, 6)), 0);
    EXPECT_EQ(g_hangups, 1);
    EXPECT_EQ(vc_service_del(99), 0);
    EXPECT_EQ(g_hangups, 1);
    EXPECT_EQ(vc_service_del(25), 0);
    EXPECT_EQ(g_hangups, 2);
    EXPECT_EQ(registered(plain(AF_INET, 24, nullptr, 6)), -1);
    EXPECT_EQ(g_hangups, 2);
}

TEST_F(RegistrationTest, initialisation_empties_the_table_and_the_list)
{
    vc_child child = {};
    vc_child_install(300, &child);
    EXPECT_EQ(vc_init(6), 0);
    EXPECT_EQ(vc_child_at(300), nullptr);
    EXPECT_TRUE(services().empty());
}

TEST_F(RegistrationTest, initialisation_runs_once)
{
    ASSERT_EQ(registered(plain(AF_INET, 23, nullptr, 6)), 0);
    signal(SIGHUP, SIG_DFL);
    ASSERT_EQ(registered(plain(AF_INET, 24, nullptr, 6)), 0);
    struct sigaction action;
    sigaction(SIGHUP, nullptr, &action);
    EXPECT_EQ(action.sa_handler, SIG_DFL);
    EXPECT_EQ(services().size(), 2u);
}

TEST_F(RegistrationTest, services_come_and_go_from_several_threads)
{
    ASSERT_EQ(registered(plain(AF_INET, 1, nullptr, 6)), 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([t] {
            for (int i = 0; i < 200; i++) {
                const int port = 1000 * (t + 1) + i;
                const vc_reg reg = plain(AF_INET, port, nullptr, 6);
                EXPECT_EQ(vc_service_reg(&reg), 0);
                EXPECT_EQ(vc_service_reg(&reg), -1);
                EXPECT_EQ(vc_service_del(port), 0);
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(services().size(), 1u);
}

TEST_F(RegistrationTest, no_memory_for_the_node_is_reported_and_nothing_kept)
{
    fault_row("vc_service_reg", "calloc", "ENOMEM", "-1",
              "vc: malloc fail, srv == NULL\n",
              "nothing registered, the lock free");
    ASSERT_EQ(registered(plain(AF_INET, 23, nullptr, 6)), 0);
    fault::fail("calloc", 1, ENOMEM);
    EXPECT_EQ(registered(plain(AF_INET, 24, nullptr, 6)), -1);
    fault::reset();
    EXPECT_TRUE(logged("vc: malloc fail, srv == NULL\n"));
    EXPECT_EQ(services().size(), 1u);
    // The lock is free again.
    EXPECT_EQ(registered(plain(AF_INET, 24, nullptr, 6)), 0);
}

TEST_F(RegistrationTest, no_memory_for_the_path_is_reported_and_nothing_kept)
{
    fault_row("vc_service_reg", "strdup", "ENOMEM", "-1",
              "vc: strdup fail, reg->listen_path == NULL\n",
              "nothing registered, the lock free");
    ASSERT_EQ(registered(plain(AF_INET, 23, nullptr, 6)), 0);
    fault::fail("strdup", 1, ENOMEM);
    EXPECT_EQ(registered(plain(AF_UNIX, 0, "/tmp/x", 7)), -1);
    fault::reset();
    EXPECT_TRUE(logged("vc: strdup fail, reg->listen_path == NULL\n"));
    EXPECT_EQ(services().size(), 1u);
    EXPECT_EQ(registered(plain(AF_UNIX, 0, "/tmp/x", 7)), 0);
}

TEST_F(RegistrationTest, a_lock_that_cannot_be_made_ends_the_process_with_0)
{
    fault_row("vc_service_reg", "pthread_rwlockattr_init", "ENOMEM",
              "the process ends with status 0", "", "");
    fault_row("vc_service_reg", "pthread_rwlock_init", "ENOMEM",
              "the process ends with status 0", "", "");
    for (const char *call :
         {"pthread_rwlockattr_init", "pthread_rwlock_init"}) {
        const pid_t pid = fork();
        if (pid == 0) {
            fault::fail(call, 1, ENOMEM);
            registered(plain(AF_INET, 23, nullptr, 6));
            _exit(9);
        }
        const int status = support::wait_child(pid);
        EXPECT_TRUE(WIFEXITED(status)) << call;
        EXPECT_EQ(WEXITSTATUS(status), 0) << call;
    }
}
