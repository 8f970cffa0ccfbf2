// libFuzzer target: the reader of the console's recordings, as --replay uses it.
//
// The input is read as a recording file: first the whole-file check, then record by record.
// Every frame record the reader accepts must be exactly one frame for the link's decoder (an
// oversized one, whose padding is not stored, only its head), so that a replay never sends a
// stream the reader did not vouch for.
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>

#include "console/Recording.h"
#include "sdk/Wire.h"

namespace {

struct Counter : SDK_NV::wire::FrameDecoder::Sink {
    int frames = 0;
    int drops = 0;
    void onFrame(const SDK_NV::wire::Frame&) override { ++frames; }
    void onDrop(SDK_NV::wire::DropReason, const std::string&) override { ++drops; }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    {
        std::istringstream in(bytes);
        console::rec::Summary summary;
        std::string error;
        const bool ok = console::rec::checkRecording(in, summary, error);
        if (!ok && error.empty()) {
            __builtin_trap();  // a refusal always says why
        }
    }
    std::istringstream in(bytes);
    console::rec::Reader reader(in);
    std::string error;
    if (!reader.readHeader(error)) {
        return 0;
    }
    console::rec::Record r;
    while (reader.next(r, error) == 1) {
        if (r.kind != console::rec::Sent && r.kind != console::rec::Received) {
            continue;
        }
        Counter sink;
        SDK_NV::wire::FrameDecoder decoder;
        decoder.feed(r.bytes.data(), r.bytes.size(), sink);
        const bool padded = (r.flags & console::rec::kFlagPadded) != 0;
        if (!padded && (sink.frames != 1 || sink.drops != 0 || decoder.bufferedBytes() != 0)) {
            __builtin_trap();
        }
    }
    return 0;
}
