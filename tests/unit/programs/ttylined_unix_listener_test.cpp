#include "programs/ttylined/unix_listener.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

class UnixListener : public testing::Test
{
  protected:
    void SetUp() override
    {
        char name[] = "/tmp/unix_listener_test.XXXXXX";

        ASSERT_NE(mkdtemp(name), nullptr);
        directory = name;
        path = directory + "/socket";
    }

    void TearDown() override
    {
        unix_listener_end(listener);
        std::filesystem::remove_all(directory);
    }

    bool exists() const
    {
        return access(path.c_str(), F_OK) == 0;
    }

    std::string directory;
    std::string path;
    unix_listener listener;
    std::string error;
};

TEST_F(UnixListener, is_closed_to_others_and_gone_at_the_end)
{
    struct stat status = {};
    ASSERT_TRUE(unix_listen(path, listener, error)) << error;
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_TRUE(S_ISSOCK(status.st_mode));
    EXPECT_EQ(status.st_mode & 07777, 0600U);
    unix_listener_end(listener);
    EXPECT_EQ(listener.fd, -1);
    EXPECT_FALSE(exists());
}

TEST_F(UnixListener, takes_the_place_of_a_socket_that_nobody_serves)
{
    ASSERT_TRUE(unix_listen(path, listener, error));
    close(listener.fd);
    ASSERT_TRUE(exists());
    EXPECT_TRUE(unix_listen(path, listener, error)) << error;
}

TEST_F(UnixListener, leaves_a_socket_alone_that_is_served)
{
    unix_listener second;
    ASSERT_TRUE(unix_listen(path, listener, error));
    EXPECT_FALSE(unix_listen(path, second, error));
    EXPECT_EQ(error, path + ": is in use");
    unix_listener_end(second);
    EXPECT_TRUE(exists());
}

TEST_F(UnixListener, leaves_a_file_alone_that_is_no_socket)
{
    std::ofstream(path) << "text";
    EXPECT_FALSE(unix_listen(path, listener, error));
    EXPECT_EQ(error, path + ": is there and is no socket");
    EXPECT_TRUE(exists());
}

TEST_F(UnixListener, leaves_the_file_of_its_successor)
{
    unix_listener successor;
    ASSERT_TRUE(unix_listen(path, listener, error));
    ASSERT_EQ(unlink(path.c_str()), 0);
    ASSERT_TRUE(unix_listen(path, successor, error));
    unix_listener_end(listener);
    EXPECT_TRUE(exists());
    unix_listener_end(successor);
    EXPECT_FALSE(exists());
}

TEST_F(UnixListener, refuses_a_path_that_no_address_holds)
{
    EXPECT_FALSE(unix_listen("", listener, error));
    EXPECT_NE(error.find("empty or too long"), std::string::npos);
    EXPECT_FALSE(
        unix_listen(directory + std::string(108, 'x'), listener, error));
    EXPECT_NE(error.find("empty or too long"), std::string::npos);
}

TEST_F(UnixListener, says_why_it_cannot_be)
{
    EXPECT_FALSE(unix_listen(directory + "/none/socket", listener, error));
    EXPECT_EQ(error, directory + "/none/socket: No such file or directory");
    EXPECT_EQ(listener.fd, -1);
}

TEST_F(UnixListener, does_not_wait_for_connections)
{
    ASSERT_TRUE(unix_listen(path, listener, error));
    EXPECT_EQ(accept4(listener.fd, nullptr, nullptr, SOCK_CLOEXEC), -1);
    EXPECT_EQ(errno, EAGAIN);
}
