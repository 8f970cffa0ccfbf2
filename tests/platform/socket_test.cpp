// Sockets: the process-wide start-up and whether an endpoint answers.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "platform/Platform.h"

namespace {

TEST(PlatformSockets, StartupIgnoresBrokenPipes) {
    EXPECT_TRUE(platform::socketStartup());
    EXPECT_TRUE(platform::socketStartup());
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    ::close(fds[0]);
    EXPECT_LT(::write(fds[1], "x", 1), 0);  // would have ended the process without the startup
    ::close(fds[1]);
}

TEST(PlatformSockets, AnEndpointAnswersWhileSomethingListens) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(fd, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(a);
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&a), len), 0);
    ASSERT_EQ(::listen(fd, 4), 0);
    ASSERT_EQ(::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len), 0);
    const uint16_t port = ntohs(a.sin_port);
    EXPECT_TRUE(platform::endpointAnswers("127.0.0.1", port, 1000));
    EXPECT_TRUE(platform::endpointAnswers("localhost", port, 1000));
    ::close(fd);
    EXPECT_FALSE(platform::endpointAnswers("127.0.0.1", port, 300));
    EXPECT_FALSE(platform::endpointAnswers("127.0.0.1", 0, 300));
    EXPECT_FALSE(platform::endpointAnswers("no such host.invalid", port, 300));
}

}  // namespace
