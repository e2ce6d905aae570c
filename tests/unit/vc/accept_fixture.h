// A service with a listener on the loopback, and its clients.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "tests/unit/vc/vc_fixture.h"
#include "vc/list.h"
#include "vc/pending.h"

// A service with a listener on the loopback, and its client.
class AcceptTest : public VcTest
{
  protected:
    void TearDown() override
    {
        for (const int fd : opened_) {
            close(fd);
        }
        while (g_vc_accept_list.next != &g_vc_accept_list) {
            auto *entry =
                reinterpret_cast<vc_accept_entry *>(g_vc_accept_list.next);
            close(entry->fd);
            vc_pending_drop(entry);
        }
        VcTest::TearDown();
    }

    void listen_on(int family, uint32_t protocol)
    {
        sockaddr_storage address = {};
        socklen_t length = sizeof address;

        srv_.reg = plain(family, 0, nullptr, protocol);
        srv_.listen_fd = keep(socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
        address.ss_family = static_cast<sa_family_t>(family);
        if (family == AF_UNIX) {
            name_ = path("/s");
            unlink(name_.c_str());
            srv_.reg.listen_path = name_.c_str();
            strcpy(reinterpret_cast<sockaddr_un *>(&address)->sun_path,
                   name_.c_str());
            length = sizeof(sockaddr_un);
        } else {
            srv_.reg.listen_port = 2323;
            length =
                family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
        }
        ASSERT_EQ(bind(srv_.listen_fd, reinterpret_cast<sockaddr *>(&address),
                       length),
                  0);
        ASSERT_EQ(listen(srv_.listen_fd, 5), 0);
    }

    // A client of the listener, connected from the loopback.
    int client()
    {
        sockaddr_storage address = {};
        socklen_t length = sizeof address;

        getsockname(srv_.listen_fd, reinterpret_cast<sockaddr *>(&address),
                    &length);
        const int fd =
            keep(socket(address.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (address.ss_family == AF_INET) {
            // From another address than the listener's, to tell them apart.
            sockaddr_in from = {};
            from.sin_family = AF_INET;
            from.sin_addr.s_addr = htonl(INADDR_LOOPBACK + 1);
            EXPECT_EQ(
                bind(fd, reinterpret_cast<sockaddr *>(&from), sizeof from), 0);
            reinterpret_cast<sockaddr_in *>(&address)->sin_addr.s_addr =
                htonl(INADDR_LOOPBACK);
        } else if (address.ss_family == AF_INET6) {
            reinterpret_cast<sockaddr_in6 *>(&address)->sin6_addr =
                in6addr_loopback;
        }
        EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&address), length),
                  0);
        return fd;
    }

    int keep(int fd)
    {
        opened_.push_back(fd);
        return fd;
    }

    static int port_of(int fd, bool peer)
    {
        sockaddr_storage address = {};
        socklen_t length = sizeof address;
        auto *generic = reinterpret_cast<sockaddr *>(&address);

        EXPECT_EQ(peer ? getpeername(fd, generic, &length)
                       : getsockname(fd, generic, &length),
                  0);
        return ntohs(reinterpret_cast<sockaddr_in *>(&address)->sin_port);
    }

    static vc_accept_entry *entry(int index)
    {
        vc_list *link = g_vc_accept_list.next;
        while (index-- > 0) {
            link = link->next;
        }
        return reinterpret_cast<vc_accept_entry *>(link);
    }

    static bool list_is_empty()
    {
        return g_vc_accept_list.next == &g_vc_accept_list;
    }

    vc_srv srv_ = {};
    std::string name_;
    std::vector<int> opened_;
};
