// What kit_run() knows when it begins. Each test is a process of its own: what
// was offered stays.
#include <errno.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include <ttyline/kit.h>

#include "kit/audit.h"
#include "kit/moments.h"
#include "kit/paths.h"
#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/support/runtime.h"
#include "tests/support/wait.h"
#include "vc/service.h"

static int nothing(const kit_session *, void *)
{
    return 0;
}

static kit_service service_of(const char *path)
{
    kit_service service = {};
    service.size = sizeof service;
    service.protocol = 7;
    service.path = path;
    service.function = nothing;
    return service;
}

static const kit_service FIRST = service_of("/nowhere/first");
static const kit_service SECOND = service_of("/nowhere/second");

static bool registered(const char *path)
{
    vc_srv *srv;
    bool found = false;

    vc_rlock();
    VC_FOR_EACH_SERVICE(srv)
    {
        found = found || vc_srv_has_path(srv, path);
    }
    vc_unlock();
    return found;
}

class KitRun : public support::runtime_test
{
  protected:
    void SetUp() override
    {
        // Kept for the life of the process.
        ASSERT_TRUE(kit_moments_prepare());
        kit_audit_open("test");
        kit_paths_begin(0600);
        runtime_test::SetUp();
        control = path("/control");
        daemon.size = sizeof daemon;
        daemon.control = control.c_str();
    }

    std::string control;
    kit_daemon daemon = {};
};

TEST_F(KitRun, service_that_is_offered_meanwhile_is_registered)
{
    fault_row("kit_run", "listen", "EADDRINUSE", "-1", "",
              "the services are registered");
    ASSERT_EQ(kit_offer(&FIRST), 0);
    // As another thread does while the control socket is opened.
    fault::run("bind", 1, [] {
        kit_offer(&SECOND);
    });
    fault::fail("listen", 1, EADDRINUSE);
    EXPECT_EQ(kit_run(&daemon), -1);
    EXPECT_EQ(kit_error(), control + ": Address already in use");
    EXPECT_FALSE(support::exists(control));
    EXPECT_TRUE(registered(FIRST.path));
    EXPECT_TRUE(registered(SECOND.path));
}

TEST_F(KitRun, nothing_begins_without_a_service_or_with_another_record)
{
    EXPECT_EQ(kit_run(&daemon), -1);
    EXPECT_STREQ(kit_error(), "no service was offered");
    daemon.size--;
    EXPECT_EQ(kit_run(&daemon), -1);
    EXPECT_NE(std::string(kit_error()).find("another version"),
              std::string::npos);
}

TEST_F(KitRun, control_socket_that_cannot_be_had_is_said)
{
    fault_row("kit_run", "socket", "EMFILE", "-1", "",
              "the services are registered");
    ASSERT_EQ(kit_offer(&FIRST), 0);
    // The first one looks whether the place is free.
    fault::fail("socket", 2, EMFILE);
    EXPECT_EQ(kit_run(&daemon), -1);
    EXPECT_STREQ(kit_error(), "no socket: Too many open files");
}

// The session service would take it away from the other daemon.
TEST_F(KitRun, path_that_another_daemon_serves_is_refused)
{
    const std::string name = path("/console");
    const kit_service service = service_of(name.c_str());
    sockaddr_un address = {};
    const int other = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(
        bind(other, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    ASSERT_EQ(listen(other, 1), 0);
    ASSERT_EQ(kit_offer(&service), 0);
    EXPECT_EQ(kit_run(&daemon), -1);
    EXPECT_EQ(kit_error(), name + " is in use");
    EXPECT_FALSE(registered(name.c_str()));
    close(other);
}

// What the session service does not know is not offered, and may be later.
TEST_F(KitRun, service_that_cannot_be_registered_is_not_listed)
{
    fault_row("kit_offer", "calloc", "ENOMEM", "-1",
              "vc: malloc fail, srv == NULL\n", "the service is not listed");
    ASSERT_EQ(kit_offer(&FIRST), 0);
    daemon.control = "";
    ASSERT_EQ(kit_run(&daemon), -1);
    fault::fail("calloc", 2, ENOMEM);
    EXPECT_EQ(kit_offer(&SECOND), -1);
    EXPECT_STREQ(kit_error(), "path /nowhere/second cannot be registered");
    EXPECT_EQ(kit_admit(&SECOND, nullptr), -1);
    EXPECT_EQ(kit_admit(&FIRST, nullptr), 0);
    EXPECT_EQ(kit_offer(&SECOND), 0) << kit_error();
    EXPECT_EQ(kit_admit(&SECOND, nullptr), 0);
    // Nor does a second offer take the first one away.
    EXPECT_EQ(kit_offer(&FIRST), -1);
    EXPECT_EQ(kit_admit(&FIRST, nullptr), 0);
}

// Both families or none: what was registered of it is taken back.
TEST_F(KitRun, service_of_which_one_family_cannot_be_registered_is_not_offered)
{
    fault_row("kit_offer", "calloc", "ENOMEM", "-1",
              "vc: malloc fail, srv == NULL\n", "the service is not listed");
    static kit_service port;
    port = service_of(nullptr);
    port.protocol = 6;
    port.port = 4000;
    ASSERT_EQ(kit_offer(&FIRST), 0);
    daemon.control = "";
    ASSERT_EQ(kit_run(&daemon), -1);
    fault::fail("calloc", 3, ENOMEM);
    EXPECT_EQ(kit_offer(&port), -1);
    EXPECT_EQ(kit_offer(&port), 0) << kit_error();
}

TEST_F(KitRun, file_of_somebodys_is_no_control_socket)
{
    ASSERT_EQ(kit_offer(&FIRST), 0);
    support::spill(control, "somebody's");
    EXPECT_EQ(kit_run(&daemon), -1);
    EXPECT_EQ(kit_error(), control + " is there and is no socket");
    EXPECT_EQ(support::slurp(control), "somebody's");
}

TEST_F(KitRun, service_that_cannot_be_understood_is_not_offered)
{
    kit_service wrong = FIRST;
    wrong.size--;
    EXPECT_EQ(kit_offer(&wrong), -1);
    wrong = FIRST;
    wrong.protocol = 12;
    EXPECT_EQ(kit_offer(&wrong), -1);
    EXPECT_STREQ(kit_error(), "12 is no protocol");
    wrong = FIRST;
    wrong.function = nullptr;
    EXPECT_EQ(kit_offer(&wrong), -1);
    EXPECT_STREQ(kit_error(), "a service runs a program or a function");
    wrong = FIRST;
    wrong.port = 4000;
    EXPECT_EQ(kit_offer(&wrong), -1);
    wrong.path = nullptr;
    wrong.port = 65536;
    EXPECT_EQ(kit_offer(&wrong), -1);
    EXPECT_STREQ(kit_error(), "65536 is no port");
    wrong.port = 0;
    EXPECT_EQ(kit_offer(&wrong), -1);
    EXPECT_STREQ(kit_error(), "0 is no port");
    const std::string name(64, 'p');
    for (const char *path : {name.c_str(), ""}) {
        wrong = service_of(path);
        EXPECT_EQ(kit_offer(&wrong), -1);
        EXPECT_EQ(kit_error(), "'" + std::string(path) +
                                   "' is no path of 1 to 63 characters, or has "
                                   "a port besides");
    }
    wrong = FIRST;
    wrong.function = nullptr;
    const char *const no_program[] = {nullptr};
    wrong.program = no_program;
    EXPECT_EQ(kit_offer(&wrong), -1);
    EXPECT_STREQ(kit_error(), "the program has no name");
    wrong = FIRST;
    kit_codec codec = {};
    codec.size = sizeof codec - 1;
    wrong.codec = &codec;
    EXPECT_EQ(kit_offer(&wrong), -1);
    EXPECT_EQ(kit_error(), "a codec of " + std::to_string(codec.size) +
                               " bytes is of another version");
    codec.size++;
    EXPECT_EQ(kit_offer(&wrong), 0) << kit_error();
}

TEST_F(KitRun, service_without_memory_is_not_offered)
{
    fault_row("kit_offer", "calloc", "ENOMEM", "-1", "", "nothing");
    fault_row("kit_admit", "calloc", "ENOMEM", "-1", "", "the former rules");
    fault::fail("calloc", 1, ENOMEM);
    EXPECT_EQ(kit_offer(&FIRST), -1);
    EXPECT_STREQ(kit_error(), "out of memory");
    EXPECT_EQ(kit_admit(&FIRST, nullptr), -1);
    EXPECT_STREQ(kit_error(), "the service was not offered");
    fault::reset();
    ASSERT_EQ(kit_offer(&FIRST), 0);
    kit_admission admission = {};
    admission.size = sizeof admission;
    fault::fail("calloc", 1, ENOMEM);
    EXPECT_EQ(kit_admit(&FIRST, &admission), -1);
    EXPECT_STREQ(kit_error(), "out of memory");
    EXPECT_EQ(kit_admit(&FIRST, &admission), 0);
}

// Whichever family it is; the other one is not tried, or taken back.
TEST_F(KitRun, port_that_cannot_be_registered_is_named)
{
    fault_row("kit_offer", "calloc", "ENOMEM", "-1",
              "vc: malloc fail, srv == NULL\n", "the service is not listed");
    fault_row("kit_offer", "vc_service_reg", "result -1", "-1",
              "vc: malloc fail, srv == NULL\n", "the service is not listed");
    static kit_service port;
    ASSERT_EQ(kit_offer(&FIRST), 0);
    daemon.control = "";
    ASSERT_EQ(kit_run(&daemon), -1);
    for (const uint32_t families : {0u, KIT_IPV4, KIT_IPV6}) {
        port = service_of(nullptr);
        port.protocol = 6;
        port.port = 4000;
        port.families = families;
        fault::reset();
        fault::fail("calloc", 2, ENOMEM);
        EXPECT_EQ(kit_offer(&port), -1) << families;
        EXPECT_STREQ(kit_error(), "port 4000 cannot be registered");
    }
    fault::reset();
    EXPECT_EQ(kit_offer(&port), 0) << kit_error();
}

TEST_F(KitRun, runtime_directory_that_is_not_trusted_is_refused)
{
    ASSERT_EQ(kit_offer(&FIRST), 0);
    ASSERT_EQ(chmod(runtime_dir.c_str(), 0777), 0);
    EXPECT_EQ(kit_run(&daemon), -1);
    EXPECT_EQ(kit_error(),
              runtime_dir + " can be written by others (mode 0777)");
    EXPECT_FALSE(registered(FIRST.path));
}

TEST_F(KitRun, standard_stream_that_cannot_be_filled_is_said)
{
    fault_row("kit_run", "open", "EMFILE", "-1", "", "nothing is registered");
    ASSERT_EQ(kit_offer(&FIRST), 0);
    fault::fail("open", 1, EMFILE, 1, fault::only_path("/dev/null"));
    EXPECT_EQ(kit_run(&daemon), -1);
    EXPECT_STREQ(kit_error(), "no descriptor: Too many open files");
    EXPECT_FALSE(registered(FIRST.path));
}

// What it opens next would be one of them.
TEST_F(KitRun, streams_that_are_closed_are_filled)
{
    ASSERT_EQ(kit_offer(&FIRST), 0);
    daemon.control = "";
    EXPECT_EQ(support::in_child([this] {
                  close(0);
                  close(2);
                  return kit_run(&daemon) == -1 && fcntl(0, F_GETFD) >= 0 &&
                         fcntl(2, F_GETFD) >= 0;
              }),
              0);
}

TEST_F(KitRun, descriptor_limit_is_raised_as_far_as_it_may_be)
{
    ASSERT_EQ(kit_offer(&FIRST), 0);
    daemon.control = "";
    static rlim_t most;
    for (const rlim_t hard : {rlim_t{1000}, rlim_t{20000}}) {
        most = hard;
        EXPECT_EQ(support::in_child([this] {
                      rlimit limit = {500, most};
                      if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
                          // Only root sets it higher than it is.
                          return getuid() != 0;
                      }
                      return kit_run(&daemon) == -1 &&
                             getrlimit(RLIMIT_NOFILE, &limit) == 0 &&
                             limit.rlim_cur == (most < 16384 ? most : 16384);
                  }),
                  0)
            << hard;
    }
}

TEST_F(KitRun, what_is_said_to_no_session_is_refused)
{
    EXPECT_EQ(kit_post(258, "m", 1), -1);
    EXPECT_EQ(errno, ESRCH);
    EXPECT_STREQ(kit_error(), "there is no session on line 258");
    EXPECT_EQ(kit_end(258, "why"), -1);
    EXPECT_STREQ(kit_error(), "there is no session on line 258");
}

class KitRunFirst : public support::runtime_test
{
};

TEST_F(KitRunFirst, daemon_without_a_pair_or_a_set_of_events_does_not_begin)
{
    fault_row("kit_run", "socketpair", "EMFILE", "-1", "",
              "nothing is registered");
    fault_row("kit_run", "epoll_create1", "EMFILE", "-1", "",
              "nothing is registered");
    kit_daemon daemon = {};
    daemon.size = sizeof daemon;
    ASSERT_EQ(kit_offer(&FIRST), 0);
    for (const char *call : {"socketpair", "epoll_create1"}) {
        EXPECT_EQ(support::in_child([&] {
                      fault::fail(call, 1, EMFILE);
                      return kit_run(&daemon) == -1 &&
                             std::string(kit_error()) ==
                                 "no descriptor: Too many open files" &&
                             !registered(FIRST.path);
                  }),
                  0)
            << call;
    }
}
