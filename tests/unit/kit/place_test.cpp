// Where somebody else serves already, nothing is offered.
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "kit/place.h"
#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/support/runtime.h"
#include "tests/support/wait.h"

class KitPlace : public support::runtime_test
{
  protected:
    int listener_on(const std::string &name)
    {
        const int fd = bound_on(name, SOCK_STREAM);
        EXPECT_EQ(listen(fd, 1), 0);
        return fd;
    }

    int bound_on(const std::string &name, int type)
    {
        sockaddr_un address = {};
        const int fd = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
        address.sun_family = AF_UNIX;
        name.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(
            bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address),
            0);
        return fd;
    }

    // On a port that the kernel gives, which is then the service's.
    int listener_on_port(int family)
    {
        sockaddr_in6 address = {};
        socklen_t length =
            family == AF_INET ? sizeof(sockaddr_in) : sizeof address;
        const int fd = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        address.sin6_family = static_cast<sa_family_t>(family);
        EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&address), length), 0);
        EXPECT_EQ(listen(fd, 1), 0);
        getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length);
        service.port = ntohs(address.sin6_port);
        return fd;
    }

    kit_service service = {};
};

TEST_F(KitPlace, path_of_a_running_program_is_in_use)
{
    const std::string name = path("/console");
    service.path = name.c_str();
    const int fd = listener_on(name);
    EXPECT_EQ(kit_place_free(&service), -1);
    EXPECT_EQ(kit_error(), name + " is in use");
    // Its program has heard nothing.
    fcntl(fd, F_SETFL, O_NONBLOCK);
    EXPECT_EQ(accept(fd, nullptr, nullptr), -1);
    close(fd);
}

TEST_F(KitPlace, path_that_a_dead_program_has_left_is_free)
{
    const std::string name = path("/console");
    service.path = name.c_str();
    EXPECT_EQ(kit_place_free(&service), 0);
    close(listener_on(name));
    EXPECT_EQ(access(name.c_str(), F_OK), 0);
    EXPECT_EQ(kit_place_free(&service), 0);
}

TEST_F(KitPlace, port_of_a_running_program_is_in_use)
{
    for (const int family : {AF_INET, AF_INET6}) {
        const int fd = listener_on_port(family);
        EXPECT_EQ(kit_place_free(&service), -1) << family;
        EXPECT_EQ(kit_error(),
                  "port " + std::to_string(service.port) + " is in use");
        close(fd);
        EXPECT_EQ(kit_place_free(&service), 0) << family;
    }
}

TEST_F(KitPlace, port_of_the_other_family_only_is_free)
{
    const int fd = listener_on_port(AF_INET);
    service.families = KIT_IPV6;
    EXPECT_EQ(kit_place_free(&service), 0);
    close(fd);
}

// The registration goes on, and says what is wrong if that lasts.
TEST_F(KitPlace, place_that_cannot_be_looked_at_counts_as_free)
{
    fault_row("kit_place_free", "socket", "EMFILE", "0", "",
              "the place counts as free");
    const int fd = listener_on_port(AF_INET);
    service.families = KIT_IPV4;
    fault::fail("socket", 1, EMFILE);
    EXPECT_EQ(kit_place_free(&service), 0);
    const std::string name = path("/console");
    service.path = name.c_str();
    fault::fail("socket", 1, EMFILE);
    EXPECT_EQ(kit_place_free(&service), 0);
    close(fd);
}

TEST_F(KitPlace, program_that_is_ending_has_time_to_let_go)
{
    const std::string name = path("/console");
    service.path = name.c_str();
    const int fd = listener_on(name);
    std::thread other([fd] {
        usleep(200000);
        close(fd);
    });
    EXPECT_EQ(kit_place_free(&service), 0);
    other.join();
}

// Whoever waits for datagrams there has it too.
TEST_F(KitPlace, path_is_in_use_whatever_kind_of_socket_has_it)
{
    const std::string name = path("/log");
    for (const int type : {SOCK_DGRAM, SOCK_SEQPACKET}) {
        const int fd = bound_on(name, type);
        EXPECT_TRUE(kit_place_path_taken(name.c_str())) << type;
        // It has heard nothing.
        char byte;
        EXPECT_EQ(recv(fd, &byte, 1, MSG_DONTWAIT), -1);
        close(fd);
        EXPECT_FALSE(kit_place_path_taken(name.c_str())) << type;
        EXPECT_EQ(unlink(name.c_str()), 0);
    }
}

TEST_F(KitPlace, path_that_must_not_be_written_to_may_be_in_use)
{
    fault_row("kit_place_free", "connect", "EACCES", "-1", "", "");
    fault_row("kit_place_free", "connect", "ENOBUFS", "0", "",
              "the place counts as free");
    const std::string name = path("/console");
    service.path = name.c_str();
    const int fd = listener_on(name);
    fault::fail("connect", 1, EACCES, fault::ALWAYS);
    EXPECT_EQ(kit_place_free(&service), -1);
    EXPECT_EQ(kit_error(), name + " is in use");
    fault::reset();
    fault::fail("connect", 1, ENOBUFS);
    EXPECT_EQ(kit_place_free(&service), 0);
    close(fd);
}

// The registration says what is wrong.
TEST_F(KitPlace, port_that_may_not_be_bound_counts_as_free)
{
    fault_row("kit_place_free", "bind", "EACCES", "0", "",
              "the place counts as free");
    fault_row("kit_place_free", "setsockopt", "ENOMEM", "0", "",
              "the place counts as free");
    service.port = 4000;
    fault::fail("bind", 1, EACCES, 2);
    EXPECT_EQ(kit_place_free(&service), 0);
    fault::reset();
    fault::fail("setsockopt", 1, ENOMEM, fault::ALWAYS);
    EXPECT_EQ(kit_place_free(&service), 0);
}
