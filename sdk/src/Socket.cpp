#include "sdk/Socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace SDK_NV {
namespace net {

namespace {

bool resolve(const wire::Endpoint& ep, sockaddr_in& addr) {
    std::memset(&addr, 0, sizeof(addr));
    addr.sin_family = AF_INET;
    addr.sin_port = htons(ep.port);
    if (inet_pton(AF_INET, ep.host.c_str(), &addr.sin_addr) == 1) {
        return true;
    }
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* res = nullptr;
    if (getaddrinfo(ep.host.c_str(), nullptr, &hints, &res) != 0 || res == nullptr) {
        return false;
    }
    addr.sin_addr = reinterpret_cast<sockaddr_in*>(res->ai_addr)->sin_addr;
    freeaddrinfo(res);
    return true;
}

void setNoDelay(socket_t s) {
    int one = 1;
    ::setsockopt(s, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
}

}  // namespace

socket_t connectTcp(const wire::Endpoint& endpoint, int timeoutMs) {
    sockaddr_in addr;
    if (!resolve(endpoint, addr)) {
        return kInvalidSocket;
    }
    socket_t s = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (s < 0) {
        return kInvalidSocket;
    }
    const int flags = ::fcntl(s, F_GETFL, 0);
    ::fcntl(s, F_SETFL, flags | O_NONBLOCK);
    int rc = ::connect(s, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    if (rc != 0 && errno == EINPROGRESS) {
        pollfd p{s, POLLOUT, 0};
        rc = ::poll(&p, 1, timeoutMs);
        if (rc == 1) {
            int err = 0;
            socklen_t len = sizeof(err);
            ::getsockopt(s, SOL_SOCKET, SO_ERROR, &err, &len);
            rc = err == 0 ? 0 : -1;
        } else {
            rc = -1;
        }
    }
    if (rc != 0) {
        ::close(s);
        return kInvalidSocket;
    }
    ::fcntl(s, F_SETFL, flags & ~O_NONBLOCK);
    setNoDelay(s);
    return s;
}

socket_t listenTcp(const wire::Endpoint& endpoint, int backlog, uint16_t* boundPort) {
    sockaddr_in addr;
    if (!resolve(endpoint, addr)) {
        return kInvalidSocket;
    }
    socket_t s = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (s < 0) {
        return kInvalidSocket;
    }
    int one = 1;
    ::setsockopt(s, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    if (::bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
        ::listen(s, backlog) != 0) {
        ::close(s);
        return kInvalidSocket;
    }
    if (boundPort != nullptr) {
        sockaddr_in actual{};
        socklen_t len = sizeof(actual);
        ::getsockname(s, reinterpret_cast<sockaddr*>(&actual), &len);
        *boundPort = ntohs(actual.sin_port);
    }
    return s;
}

socket_t acceptClient(socket_t listener) {
    socket_t c = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (c < 0) {
        return kInvalidSocket;
    }
    setNoDelay(c);
    return c;
}

void closeSocket(socket_t& s) {
    if (s != kInvalidSocket) {
        ::close(s);
        s = kInvalidSocket;
    }
}

void shutdownSocket(socket_t s) {
    if (s != kInvalidSocket) {
        ::shutdown(s, SHUT_RDWR);
    }
}

bool sendAll(socket_t s, const char* a, size_t na, const char* b, size_t nb) {
    if (s == kInvalidSocket) {
        return false;
    }
    iovec iov[2];
    iov[0].iov_base = const_cast<char*>(a);
    iov[0].iov_len = na;
    iov[1].iov_base = const_cast<char*>(b);
    iov[1].iov_len = nb;
    int first = 0;
    const int count = nb > 0 ? 2 : 1;
    while (first < count) {
        msghdr msg{};
        msg.msg_iov = iov + first;
        msg.msg_iovlen = static_cast<size_t>(count - first);
        const ssize_t n = ::sendmsg(s, &msg, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        size_t done = static_cast<size_t>(n);
        while (first < count && done >= iov[first].iov_len) {
            done -= iov[first].iov_len;
            ++first;
        }
        if (first < count) {
            iov[first].iov_base = static_cast<char*>(iov[first].iov_base) + done;
            iov[first].iov_len -= done;
        }
    }
    return true;
}

long recvSome(socket_t s, char* buf, size_t capacity) {
    for (;;) {
        const ssize_t n = ::recv(s, buf, capacity, 0);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            return -2;
        }
        return n < 0 ? -1 : static_cast<long>(n);
    }
}

int waitReadable(socket_t s, int timeoutMs) {
    pollfd p{s, POLLIN, 0};
    for (;;) {
        const int rc = ::poll(&p, 1, timeoutMs);
        if (rc < 0 && errno == EINTR) {
            continue;
        }
        if (rc < 0) {
            return -1;
        }
        return rc == 0 ? 0 : 1;
    }
}

bool setSendTimeout(socket_t s, int timeoutMs) {
    timeval tv{};
    tv.tv_sec = timeoutMs / 1000;
    tv.tv_usec = (timeoutMs % 1000) * 1000;
    return ::setsockopt(s, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv)) == 0;
}

bool setRecvTimeout(socket_t s, int timeoutMs) {
    timeval tv{};
    tv.tv_sec = timeoutMs / 1000;
    tv.tv_usec = (timeoutMs % 1000) * 1000;
    return ::setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv)) == 0;
}

bool setBufferSizes(socket_t s, int bytes) {
    return ::setsockopt(s, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof(bytes)) == 0 &&
           ::setsockopt(s, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof(bytes)) == 0;
}

}  // namespace net
}  // namespace SDK_NV
