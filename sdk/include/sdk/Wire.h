// Framing of the SDK's link (sdk/PROTOCOL.md), shared by the SDK, the console and the tests.
//
// A frame is a 12-byte header followed by an envelope and a body:
//
//   offset 0   uint32 LE  magic 0x31524D4C (the bytes "LMR1")
//   offset 4   uint32 LE  N = envelope bytes + body bytes (at most kMaxFrameBytes)
//   offset 8   uint32 LE  E = envelope bytes (at most kMaxEnvelopeBytes, at most N)
//   offset 12  E bytes    sdk_link.Envelope (type, id, device ids, sequence, send time)
//   then       N-E bytes  body: the pack() output of the message class named by the type,
//                         or an sdk_link.Command for type 100
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "sdk/Records.h"

namespace SDK_NV {
namespace wire {

constexpr uint32_t kFrameMagic = 0x31524D4Cu;
constexpr size_t kHeaderBytes = 12;
constexpr size_t kMaxFrameBytes = size_t{64} << 20;     // 64 MiB: envelope + body
constexpr size_t kMaxEnvelopeBytes = size_t{64} << 10;  // 64 KiB
constexpr size_t kMaxBodyBytes = kMaxFrameBytes - kMaxEnvelopeBytes;
constexpr int kCommandType = 100;  // SDK to device: sdk_link.Command
// Both ways: a keep-alive probe (SDK to device, empty body) and its answer (the same frame
// sent back). Neither is a message: the SDK consumes the answers itself.
constexpr int kKeepAliveType = 101;

constexpr uint16_t kDefaultPort = 47310;
constexpr const char* kDefaultHost = "127.0.0.1";
constexpr const char* kEndpointEnv = "LUMORA_ENDPOINT";   // "host:port"
constexpr const char* kFrameDirEnv = "LUMORA_FRAME_DIR";  // folder of saved scan frames

struct Endpoint {
    std::string host = kDefaultHost;
    uint16_t port = kDefaultPort;
    std::string text() const;  // "host:port"
};

// Accepts "host:port", ":port" (loopback) and "port". Port 0 is allowed (a listener then
// picks a free one). False and `out` unchanged when the text does not parse.
bool parseEndpoint(const std::string& text, Endpoint& out);
// LUMORA_ENDPOINT when set and valid, else the default (a bad value is logged once).
Endpoint endpointFromEnvironment();

// Monotonic clock in nanoseconds (the envelope's send time).
int64_t monotonicNs();

// One decoded frame; the pointers are valid during the sink call only.
struct Frame {
    uint32_t type = 0;
    int32_t id = 0;
    std::vector<std::string> deviceIds;
    uint64_t sequence = 0;
    int64_t sentNs = 0;
    const char* body = nullptr;
    size_t bodySize = 0;
    const char* raw = nullptr;  // the whole frame, header included
    size_t rawSize = 0;
};

// Header and envelope of a frame whose body has `bodySize` bytes; the body is sent after it.
// False when the frame would exceed the limits.
bool encodeFrameHead(uint32_t type, int32_t id, const std::vector<std::string>* deviceIds,
                     uint64_t sequence, int64_t sentNs, size_t bodySize, std::string& out);
// A whole frame in one buffer.
bool encodeFrame(uint32_t type, int32_t id, const std::vector<std::string>* deviceIds,
                 uint64_t sequence, const char* body, size_t bodySize, std::string& out);

enum class DropReason {
    Oversized,    // N above the limit: the frame's bytes are skipped
    Malformed,    // E above N or the limit, or the envelope does not parse: skipped
    StreamError,  // bad magic: the frame boundary is lost, the stream cannot continue
};

const char* dropReasonText(DropReason reason);

// Incremental decoder of a byte stream into frames. It never allocates from a declared
// length: its buffer grows with the bytes that actually arrived (at most twice those plus one
// chunk), and an oversized frame is skipped without being stored.
class FrameDecoder {
public:
    class Sink {
    public:
        virtual ~Sink() = default;
        virtual void onFrame(const Frame& frame) = 0;
        virtual void onDrop(DropReason reason, const std::string& detail) = 0;
    };

    explicit FrameDecoder(size_t maxFrameBytes = kMaxFrameBytes);
    ~FrameDecoder();
    FrameDecoder(const FrameDecoder&) = delete;
    FrameDecoder& operator=(const FrameDecoder&) = delete;

    // Space to receive into (at least one byte); then commit() the bytes written there.
    char* writable(size_t* capacity);
    // Decodes every complete frame. False once the stream is broken (StreamError); reset()
    // before reusing the decoder.
    bool commit(size_t n, Sink& sink);
    // Convenience: copies `data` in and commits it.
    bool feed(const char* data, size_t n, Sink& sink);
    void reset();
    bool broken() const { return m_broken; }
    size_t bufferedBytes() const { return m_have; }
    size_t bufferCapacity() const { return m_capacity; }

private:
    void process(Sink& sink);
    bool ensureCapacity(size_t size);

    size_t m_maxFrame;
    std::unique_ptr<char[]> m_buf;
    size_t m_capacity = 0;
    size_t m_have = 0;    // bytes in m_buf
    uint64_t m_skip = 0;  // bytes of a dropped frame still to discard
    bool m_broken = false;
};

// The low-part configuration in its wire form (lumora::LowPartCfg; the air-device ids travel
// in PripladIP).
void encodeLowPartConfig(const tagLowPartConfig& config, lumora::LowPartCfg* out);
void decodeLowPartConfig(const lumora::LowPartCfg& in, tagLowPartConfig& config);

// True when the vectors of a scan frame have the counts that tagScanData documents.
bool scanDataConsistent(const tagScanData& frame);

}  // namespace wire
}  // namespace SDK_NV
