// libFuzzer target: the SDK's frame decoder and every message class's unpack.
//
// The first input byte chooses how the rest is cut into reads, so frames straddle read
// boundaries the way they do on a socket. Each decoded frame is unpacked into the class its
// type names; the whole input is also unpacked directly as the body of every class.
#include <cstddef>
#include <cstdint>

#include "sdk/Messages.h"
#include "sdk/Wire.h"

namespace {

struct Sink : SDK_NV::wire::FrameDecoder::Sink {
    void onFrame(const SDK_NV::wire::Frame& f) override {
        auto m = SDK_NV::CreateMessage(static_cast<int>(f.type));
        if (m && f.bodySize <= SDK_NV::wire::kMaxBodyBytes) {
            m->unpack(f.body, static_cast<int>(f.bodySize));
        }
    }
    void onDrop(SDK_NV::wire::DropReason, const std::string&) override {}
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    const size_t step = 1 + data[0] % 64;
    const char* p = reinterpret_cast<const char*>(data + 1);
    size_t left = size - 1;

    SDK_NV::wire::FrameDecoder decoder(1 << 16);
    Sink sink;
    while (left > 0 && !decoder.broken()) {
        const size_t k = left < step ? left : step;
        decoder.feed(p, k, sink);
        p += k;
        left -= k;
    }

    for (int type = SDK_NV::MSG_CONNECT; type <= SDK_NV::MSG_OPTIMIZATION; ++type) {
        auto m = SDK_NV::CreateMessage(type);
        m->unpack(reinterpret_cast<const char*>(data + 1), static_cast<int>(size - 1));
    }
    return 0;
}
