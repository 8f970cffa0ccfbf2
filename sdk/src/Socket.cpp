#include "sdk/Socket.h"

#include <cerrno>

namespace SDK_NV {
namespace net {

socket_t connectTcp(const wire::Endpoint& endpoint, int timeoutMs) {
    return platform::tcpConnect(endpoint.host, endpoint.port, timeoutMs);
}

socket_t listenTcp(const wire::Endpoint& endpoint, int backlog, uint16_t* boundPort) {
    return platform::tcpListen(endpoint.host, endpoint.port, backlog, boundPort);
}

socket_t acceptClient(socket_t listener) {
    return platform::tcpAccept(listener);
}

void closeSocket(socket_t& s) {
    platform::closeSocket(s);
}

void shutdownSocket(socket_t s) {
    platform::shutdownSocket(s);
}

bool sendAll(socket_t s, const char* a, size_t na, const char* b, size_t nb) {
    return platform::sendAll(s, a, na, b, nb);
}

long recvSome(socket_t s, char* buf, size_t capacity) {
    return platform::recvSome(s, buf, capacity);
}

int waitReadable(socket_t s, int timeoutMs) {
    // A signal does not end this wait early: it is waited for again, whole.
    platform::SocketWait wait;
    wait.socket = s;
    for (;;) {
        errno = 0;
        const int rc = platform::waitSockets(&wait, 1, timeoutMs);
        if (rc >= 0 || errno != EINTR) {
            return rc < 0 ? -1 : (rc == 0 ? 0 : 1);
        }
    }
}

bool setSendTimeout(socket_t s, int timeoutMs) {
    return platform::setSendTimeout(s, timeoutMs);
}

bool setRecvTimeout(socket_t s, int timeoutMs) {
    return platform::setRecvTimeout(s, timeoutMs);
}

bool setBufferSizes(socket_t s, int bytes) {
    return platform::setBufferSizes(s, bytes);
}

}  // namespace net
}  // namespace SDK_NV
