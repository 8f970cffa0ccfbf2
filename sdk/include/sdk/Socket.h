// TCP helpers of the link, shared by the SDK, the console, tests and benchmarks: the platform
// layer's sockets (platform/Platform.h) addressed by link endpoints. Blocking sockets with
// explicit waits; nothing here throws.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/Platform.h"
#include "sdk/Wire.h"

namespace SDK_NV {
namespace net {

using socket_t = platform::Socket;
constexpr socket_t kInvalidSocket = platform::kInvalidSocket;

// Connects within `timeoutMs` (unscaled); kInvalidSocket on failure. TCP_NODELAY is set.
socket_t connectTcp(const wire::Endpoint& endpoint, int timeoutMs);
// Listens on the endpoint (address reuse on, so a restarted server gets its port back).
// `boundPort`, if given, receives the port actually bound (useful with port 0).
socket_t listenTcp(const wire::Endpoint& endpoint, int backlog, uint16_t* boundPort);
// Accepts one client; kInvalidSocket when none is pending or on error.
socket_t acceptClient(socket_t listener);

void closeSocket(socket_t& s);
// Wakes a thread blocked on the socket without closing the descriptor.
void shutdownSocket(socket_t s);

// Writes a and then b completely (b may be empty). False on error or when the peer stalls
// longer than the send timeout.
bool sendAll(socket_t s, const char* a, size_t na, const char* b = nullptr, size_t nb = 0);
// > 0 bytes read, 0 orderly close, -1 error, -2 the receive timeout passed without data.
long recvSome(socket_t s, char* buf, size_t capacity);
// 1 readable (or closed), 0 timeout, -1 error.
int waitReadable(socket_t s, int timeoutMs);

bool setSendTimeout(socket_t s, int timeoutMs);
bool setRecvTimeout(socket_t s, int timeoutMs);
bool setBufferSizes(socket_t s, int bytes);

}  // namespace net
}  // namespace SDK_NV
