// Frame encoding and the incremental frame decoder.
#include "sdk/Wire.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

#include "Log.h"
#include "sdk_link.pb.h"

namespace SDK_NV {
namespace wire {

namespace {

constexpr size_t kChunk = 64 * 1024;

void putU32(char* p, uint32_t v) {
    p[0] = static_cast<char>(v & 0xFF);
    p[1] = static_cast<char>((v >> 8) & 0xFF);
    p[2] = static_cast<char>((v >> 16) & 0xFF);
    p[3] = static_cast<char>((v >> 24) & 0xFF);
}

uint32_t getU32(const char* p) {
    const auto* u = reinterpret_cast<const unsigned char*>(p);
    return static_cast<uint32_t>(u[0]) | (static_cast<uint32_t>(u[1]) << 8) |
           (static_cast<uint32_t>(u[2]) << 16) | (static_cast<uint32_t>(u[3]) << 24);
}

}  // namespace

std::string Endpoint::text() const {
    return host + ":" + std::to_string(port);
}

bool parseEndpoint(const std::string& text, Endpoint& out) {
    std::string host = kDefaultHost;
    std::string port = text;
    const size_t colon = text.rfind(':');
    if (colon != std::string::npos) {
        if (colon > 0) {
            host = text.substr(0, colon);
        }
        port = text.substr(colon + 1);
    }
    if (port.empty() || port.size() > 5 ||
        !std::all_of(port.begin(), port.end(), [](char c) { return c >= '0' && c <= '9'; })) {
        return false;
    }
    const unsigned long value = std::strtoul(port.c_str(), nullptr, 10);
    if (value > 65535 || host.empty()) {
        return false;
    }
    out.host = host;
    out.port = static_cast<uint16_t>(value);
    return true;
}

Endpoint endpointFromEnvironment() {
    Endpoint ep;
    const char* env = std::getenv(kEndpointEnv);
    if (env != nullptr && *env != '\0' && !parseEndpoint(env, ep)) {
        logLine(std::string("ignoring ") + kEndpointEnv + "=\"" + env +
                "\" (expected host:port); using " + ep.text());
    }
    return ep;
}

int64_t monotonicNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

bool encodeFrameHead(uint32_t type, int32_t id, const std::vector<std::string>* deviceIds,
                     uint64_t sequence, int64_t sentNs, size_t bodySize, std::string& out) {
    sdk_link::Envelope env;
    env.set_type(type);
    env.set_id(id);
    if (deviceIds != nullptr) {
        for (const std::string& d : *deviceIds) {
            env.add_device_ids(d);
        }
    }
    env.set_sequence(sequence);
    env.set_sent_ns(sentNs);
    const size_t envBytes = env.ByteSizeLong();
    if (envBytes > kMaxEnvelopeBytes || bodySize > kMaxFrameBytes - envBytes) {
        return false;
    }
    out.resize(kHeaderBytes + envBytes);
    putU32(&out[0], kFrameMagic);
    putU32(&out[4], static_cast<uint32_t>(envBytes + bodySize));
    putU32(&out[8], static_cast<uint32_t>(envBytes));
    return envBytes == 0 || env.SerializeToArray(&out[kHeaderBytes], static_cast<int>(envBytes));
}

bool encodeFrame(uint32_t type, int32_t id, const std::vector<std::string>* deviceIds,
                 uint64_t sequence, const char* body, size_t bodySize, std::string& out) {
    if (!encodeFrameHead(type, id, deviceIds, sequence, monotonicNs(), bodySize, out)) {
        return false;
    }
    if (bodySize > 0) {
        out.append(body, bodySize);
    }
    return true;
}

const char* dropReasonText(DropReason reason) {
    switch (reason) {
        case DropReason::Oversized:
            return "oversized";
        case DropReason::Malformed:
            return "malformed";
        case DropReason::StreamError:
            return "stream error";
    }
    return "unknown";
}

// ---------------------------------------------------------------------------------------------
// FrameDecoder
// ---------------------------------------------------------------------------------------------

FrameDecoder::FrameDecoder(size_t maxFrameBytes)
    : m_maxFrame(std::min(maxFrameBytes, kMaxFrameBytes)) {}

FrameDecoder::~FrameDecoder() = default;

void FrameDecoder::reset() {
    m_have = 0;
    m_skip = 0;
    m_broken = false;
}

bool FrameDecoder::ensureCapacity(size_t size) {
    if (size <= m_capacity) {
        return true;
    }
    std::unique_ptr<char[]> bigger(new (std::nothrow) char[size]);
    if (!bigger) {
        return false;
    }
    if (m_have > 0) {
        std::memcpy(bigger.get(), m_buf.get(), m_have);
    }
    m_buf = std::move(bigger);
    m_capacity = size;
    return true;
}

char* FrameDecoder::writable(size_t* capacity) {
    // While a large frame is arriving, offer exactly its missing bytes: the frame then ends at
    // the end of the data and nothing has to be moved to the front afterwards. The buffer
    // grows with what is already stored (doubling), never by what the header promises.
    if (m_skip == 0 && m_have >= kHeaderBytes) {
        const uint64_t total = kHeaderBytes + static_cast<uint64_t>(getU32(m_buf.get() + 4));
        if (total > m_have) {
            const size_t missing =
                static_cast<size_t>(std::min<uint64_t>(total - m_have, SIZE_MAX));
            const size_t grow = std::max(kChunk, std::min(missing, m_have));
            if (m_capacity - m_have < std::min(missing, grow) && !ensureCapacity(m_have + grow) &&
                m_capacity == m_have) {
                *capacity = 0;
                return nullptr;
            }
            *capacity = std::min(missing, m_capacity - m_have);
            return m_buf.get() + m_have;
        }
    }
    if (m_capacity - m_have < kChunk && !ensureCapacity(m_have + kChunk) && m_capacity == m_have) {
        *capacity = 0;
        return nullptr;
    }
    *capacity = m_capacity - m_have;
    return m_buf.get() + m_have;
}

bool FrameDecoder::commit(size_t n, Sink& sink) {
    if (m_broken) {
        return false;
    }
    m_have += std::min(n, m_capacity - m_have);
    process(sink);
    return !m_broken;
}

bool FrameDecoder::feed(const char* data, size_t n, Sink& sink) {
    while (n > 0) {
        if (m_broken) {
            return false;
        }
        size_t cap = 0;
        char* p = writable(&cap);
        if (p == nullptr || cap == 0) {
            return false;
        }
        const size_t k = std::min(cap, n);
        std::memcpy(p, data, k);
        data += k;
        n -= k;
        if (!commit(k, sink)) {
            return false;
        }
    }
    return !m_broken;
}

void FrameDecoder::process(Sink& sink) {
    size_t pos = 0;
    while (!m_broken) {
        const size_t avail = m_have - pos;
        if (m_skip > 0) {
            const size_t k = static_cast<size_t>(std::min<uint64_t>(m_skip, avail));
            pos += k;
            m_skip -= k;
            if (m_skip > 0) {
                break;
            }
            continue;
        }
        if (avail < kHeaderBytes) {
            break;
        }
        const char* head = m_buf.get() + pos;
        if (getU32(head) != kFrameMagic) {
            m_broken = true;
            sink.onDrop(DropReason::StreamError, "bad frame magic");
            break;
        }
        const uint32_t frameLen = getU32(head + 4);
        const uint32_t envLen = getU32(head + 8);
        if (frameLen > m_maxFrame) {
            sink.onDrop(DropReason::Oversized, "frame of " + std::to_string(frameLen) +
                                                   " bytes exceeds the limit of " +
                                                   std::to_string(m_maxFrame));
            pos += kHeaderBytes;
            m_skip = frameLen;
            continue;
        }
        if (envLen > frameLen || envLen > kMaxEnvelopeBytes) {
            sink.onDrop(DropReason::Malformed, "envelope length " + std::to_string(envLen) +
                                                   " in a frame of " + std::to_string(frameLen) +
                                                   " bytes");
            pos += kHeaderBytes;
            m_skip = frameLen;
            continue;
        }
        if (avail < kHeaderBytes + frameLen) {
            break;
        }
        sdk_link::Envelope env;
        bool parsed = false;
        try {
            parsed = env.ParseFromArray(head + kHeaderBytes, static_cast<int>(envLen));
        } catch (...) {
            parsed = false;
        }
        if (!parsed) {
            sink.onDrop(DropReason::Malformed, "envelope does not parse");
        } else {
            Frame f;
            f.type = env.type();
            f.id = env.id();
            f.deviceIds.assign(env.device_ids().begin(), env.device_ids().end());
            f.sequence = env.sequence();
            f.sentNs = env.sent_ns();
            f.body = head + kHeaderBytes + envLen;
            f.bodySize = frameLen - envLen;
            f.raw = head;
            f.rawSize = kHeaderBytes + frameLen;
            sink.onFrame(f);
        }
        pos += kHeaderBytes + frameLen;
    }
    if (pos > 0) {
        m_have -= pos;
        if (m_have > 0) {
            std::memmove(m_buf.get(), m_buf.get() + pos, m_have);
        }
    }
    // An unusually large buffer (a big image) is given back once it is no longer needed;
    // buffers of the size of ordinary scan frames are kept for the next frame.
    if (m_have == 0 && m_capacity > (size_t{16} << 20)) {
        m_buf.reset();
        m_capacity = 0;
    }
}

}  // namespace wire
}  // namespace SDK_NV
