// Framing: the incremental decoder and the endpoint text.
#include <gtest/gtest.h>

#include <cstdlib>
#include <random>

#include "SdkTestSupport.h"
#include "sdk/Wire.h"
#include "sdk_link.pb.h"

using namespace SDK_NV;
using namespace SDK_NV::wire;
using sdktest::frameHeader;

namespace {

struct Collect : FrameDecoder::Sink {
    std::vector<Frame> frames;
    std::vector<std::string> bodies;
    std::vector<DropReason> drops;
    void onFrame(const Frame& f) override {
        frames.push_back(f);
        bodies.emplace_back(f.body, f.bodySize);
    }
    void onDrop(DropReason r, const std::string&) override { drops.push_back(r); }
};

std::string frame(uint32_t type, const std::string& body, uint64_t seq = 1) {
    std::string out;
    std::vector<std::string> ids{"SCN0001"};
    EXPECT_TRUE(encodeFrame(type, 7, &ids, seq, body.data(), body.size(), out));
    return out;
}

}  // namespace

TEST(FrameDecoding, FramesSplitAtEveryByteBoundaryDecodeTheSame) {
    const std::string a = frame(1, "first body", 1);
    const std::string b = frame(5, std::string(1000, 'x'), 2);
    const std::string c = frame(2, "", 3);
    const std::string stream = a + b + c;
    std::mt19937 rng(7);
    for (int round = 0; round < 50; ++round) {
        FrameDecoder d;
        Collect sink;
        size_t pos = 0;
        while (pos < stream.size()) {
            const size_t k = std::min<size_t>(stream.size() - pos, 1 + rng() % 97);
            ASSERT_TRUE(d.feed(stream.data() + pos, k, sink));
            pos += k;
        }
        ASSERT_EQ(sink.frames.size(), 3u);
        EXPECT_EQ(sink.frames[0].type, 1u);
        EXPECT_EQ(sink.frames[0].id, 7);
        EXPECT_EQ(sink.frames[0].deviceIds, std::vector<std::string>{"SCN0001"});
        EXPECT_EQ(sink.bodies[0], "first body");
        EXPECT_EQ(sink.bodies[1], std::string(1000, 'x'));
        EXPECT_EQ(sink.frames[2].sequence, 3u);
        EXPECT_TRUE(sink.bodies[2].empty());
        EXPECT_TRUE(sink.drops.empty());
        EXPECT_EQ(d.bufferedBytes(), 0u);
    }
}

TEST(FrameDecoding, OversizedFrameIsSkippedWithoutStoringIt) {
    FrameDecoder d(1024);
    Collect sink;
    const std::string big = frameHeader(kFrameMagic, 5000, 0) + std::string(5000, 'z');
    const std::string good = frame(3, "after");
    // Fed in small pieces, the decoder never holds more than a chunk of the big frame.
    for (size_t pos = 0; pos < big.size(); pos += 100) {
        ASSERT_TRUE(d.feed(big.data() + pos, std::min<size_t>(100, big.size() - pos), sink));
        EXPECT_LE(d.bufferedBytes(), 100u);
    }
    ASSERT_TRUE(d.feed(good.data(), good.size(), sink));
    ASSERT_EQ(sink.drops.size(), 1u);
    EXPECT_EQ(sink.drops[0], DropReason::Oversized);
    ASSERT_EQ(sink.frames.size(), 1u);
    EXPECT_EQ(sink.bodies[0], "after");
}

TEST(FrameDecoding, DeclaredLengthDoesNotDriveAllocation) {
    // A header promising 60 MiB followed by nothing: the buffer grows only by what arrived.
    FrameDecoder d;
    Collect sink;
    const std::string h = frameHeader(kFrameMagic, 60u << 20, 10);
    ASSERT_TRUE(d.feed(h.data(), h.size(), sink));
    size_t cap = 0;
    d.writable(&cap);
    EXPECT_LT(d.bufferCapacity(), size_t{1} << 20);
    EXPECT_TRUE(sink.frames.empty());
    EXPECT_TRUE(sink.drops.empty());
}

TEST(FrameDecoding, MalformedEnvelopesAreDroppedAndTheStreamContinues) {
    FrameDecoder d;
    Collect sink;
    // Envelope length above the frame length.
    std::string bad1 = frameHeader(kFrameMagic, 4, 10) + "abcd";
    // An envelope that does not parse (a truncated varint).
    std::string bad2 = frameHeader(kFrameMagic, 3, 3) + "\x08\xff\xff";
    const std::string good = frame(1, "ok");
    const std::string all = bad1 + bad2 + good;
    ASSERT_TRUE(d.feed(all.data(), all.size(), sink));
    ASSERT_EQ(sink.drops.size(), 2u);
    EXPECT_EQ(sink.drops[0], DropReason::Malformed);
    EXPECT_EQ(sink.drops[1], DropReason::Malformed);
    ASSERT_EQ(sink.frames.size(), 1u);
    EXPECT_EQ(sink.bodies[0], "ok");
}

TEST(FrameDecoding, BadMagicBreaksTheStreamUntilReset) {
    FrameDecoder d;
    Collect sink;
    const std::string junk = frameHeader(0x12345678u, 0, 0);
    EXPECT_FALSE(d.feed(junk.data(), junk.size(), sink));
    EXPECT_TRUE(d.broken());
    ASSERT_EQ(sink.drops.size(), 1u);
    EXPECT_EQ(sink.drops[0], DropReason::StreamError);
    const std::string good = frame(1, "x");
    EXPECT_FALSE(d.feed(good.data(), good.size(), sink));
    d.reset();
    EXPECT_TRUE(d.feed(good.data(), good.size(), sink));
    EXPECT_EQ(sink.frames.size(), 1u);
}

TEST(FrameEncoding, LimitsAreEnforced) {
    std::string out;
    EXPECT_FALSE(encodeFrameHead(1, 0, nullptr, 1, 0, kMaxFrameBytes, out));
    EXPECT_TRUE(encodeFrameHead(1, 0, nullptr, 1, 0, kMaxBodyBytes, out));
    std::vector<std::string> hugeIds(1, std::string(kMaxEnvelopeBytes, 'i'));
    EXPECT_FALSE(encodeFrameHead(1, 0, &hugeIds, 1, 0, 0, out));
}

TEST(Endpoints, TextFormsAndEnvironment) {
    Endpoint ep;
    ASSERT_TRUE(parseEndpoint("10.1.2.3:4000", ep));
    EXPECT_EQ(ep.host, "10.1.2.3");
    EXPECT_EQ(ep.port, 4000);
    ASSERT_TRUE(parseEndpoint(":5000", ep));
    EXPECT_EQ(ep.host, "127.0.0.1");
    EXPECT_EQ(ep.port, 5000);
    ASSERT_TRUE(parseEndpoint("0", ep));
    EXPECT_EQ(ep.port, 0);
    Endpoint before = ep;
    EXPECT_FALSE(parseEndpoint("host:", ep));
    EXPECT_FALSE(parseEndpoint("host:70000", ep));
    EXPECT_FALSE(parseEndpoint("host:12a", ep));
    EXPECT_FALSE(parseEndpoint("", ep));
    EXPECT_EQ(ep.port, before.port);

    ::setenv(kEndpointEnv, "127.0.0.1:41234", 1);
    EXPECT_EQ(endpointFromEnvironment().port, 41234);
    ::setenv(kEndpointEnv, "nonsense:port", 1);
    EXPECT_EQ(endpointFromEnvironment().port, kDefaultPort);
    ::unsetenv(kEndpointEnv);
    EXPECT_EQ(endpointFromEnvironment().text(), "127.0.0.1:47310");
}
