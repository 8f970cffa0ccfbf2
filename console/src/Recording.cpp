// Writing and reading recordings of the link (format in console/Recording.h and the README).
#include "console/Recording.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "sdk/Wire.h"
#include "sdk_link.pb.h"

namespace console {
namespace rec {

namespace {

// A frame record holds at most one whole frame (the padding of an oversized one is not stored).
constexpr uint64_t kMaxRecordBytes = SDK_NV::wire::kHeaderBytes + SDK_NV::wire::kMaxFrameBytes;
constexpr size_t kReadPiece = size_t{1} << 20;

void putU16(char* p, uint16_t v) {
    p[0] = static_cast<char>(v & 0xFF);
    p[1] = static_cast<char>(v >> 8);
}
void putU32(char* p, uint32_t v) {
    for (int i = 0; i < 4; ++i) {
        p[i] = static_cast<char>((v >> (8 * i)) & 0xFF);
    }
}
void putI64(char* p, int64_t v) {
    const auto u = static_cast<uint64_t>(v);
    for (int i = 0; i < 8; ++i) {
        p[i] = static_cast<char>((u >> (8 * i)) & 0xFF);
    }
}
uint32_t getU32(const char* p) {
    const auto* u = reinterpret_cast<const unsigned char*>(p);
    return static_cast<uint32_t>(u[0]) | (static_cast<uint32_t>(u[1]) << 8) |
           (static_cast<uint32_t>(u[2]) << 16) | (static_cast<uint32_t>(u[3]) << 24);
}
uint16_t getU16(const char* p) {
    const auto* u = reinterpret_cast<const unsigned char*>(p);
    return static_cast<uint16_t>(u[0] | (u[1] << 8));
}
int64_t getI64(const char* p) {
    uint64_t v = 0;
    for (int i = 7; i >= 0; --i) {
        v = (v << 8) | static_cast<unsigned char>(p[i]);
    }
    return static_cast<int64_t>(v);
}

int64_t steadyNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Empty when `bytes` is one whole frame as the console writes them; else what is wrong.
std::string checkFrame(const std::string& bytes, bool padded) {
    using namespace SDK_NV::wire;
    if (bytes.size() < kHeaderBytes) {
        return "a frame of " + std::to_string(bytes.size()) + " bytes is shorter than its header";
    }
    if (getU32(bytes.data()) != kFrameMagic) {
        return "the frame does not start with the link's magic";
    }
    const uint64_t declared = getU32(bytes.data() + 4);
    const uint64_t stored = bytes.size() - kHeaderBytes;
    if (padded ? declared < stored : declared != stored) {
        return "the frame declares " + std::to_string(declared) + " bytes but the record holds " +
               std::to_string(stored);
    }
    const uint32_t env = getU32(bytes.data() + 8);
    sdk_link::Envelope envelope;
    if (env > stored || env > kMaxEnvelopeBytes ||
        !envelope.ParseFromArray(bytes.data() + kHeaderBytes, static_cast<int>(env))) {
        return "the frame's envelope does not parse";
    }
    return std::string();
}

}  // namespace

const char* kindName(int kind) {
    switch (kind) {
        case Sent:
            return "sent";
        case Received:
            return "received";
        case Connected:
            return "connected";
        case Disconnected:
            return "disconnected";
        default:
            return "unknown";
    }
}

// ---------------------------------------------------------------------------------------------
// Writer
// ---------------------------------------------------------------------------------------------

Writer::~Writer() {
    if (m_file != nullptr) {
        std::fclose(m_file);
    }
}

bool Writer::open(const std::string& path, std::string& error) {
    m_file = std::fopen(path.c_str(), "wb");
    if (m_file == nullptr) {
        error = "cannot create " + path + ": " + std::strerror(errno);
        return false;
    }
    m_startNs = steadyNs();
    const int64_t unixUs = std::chrono::duration_cast<std::chrono::microseconds>(
                               std::chrono::system_clock::now().time_since_epoch())
                               .count();
    char head[kFileHeaderBytes];
    putU32(head, kMagic);
    putU32(head + 4, kVersion);
    putI64(head + 8, unixUs);
    if (std::fwrite(head, 1, sizeof(head), m_file) != sizeof(head) || std::fflush(m_file) != 0) {
        error = "cannot write " + path + ": " + std::strerror(errno);
        std::fclose(m_file);
        m_file = nullptr;
        return false;
    }
    return true;
}

int64_t Writer::elapsedUs() const {
    return (steadyNs() - m_startNs) / 1000;
}

bool Writer::write(Kind kind, uint8_t flags, const char* a, size_t na, const char* b, size_t nb) {
    if (m_file == nullptr) {
        return false;
    }
    m_lastUs = std::max(m_lastUs, elapsedUs());
    char head[kRecordHeadBytes];
    head[0] = static_cast<char>(kind);
    head[1] = static_cast<char>(flags);
    putU16(head + 2, 0);
    putI64(head + 4, m_lastUs);
    putU32(head + 12, static_cast<uint32_t>(na + nb));
    bool ok =
        na + nb <= kMaxRecordBytes && std::fwrite(head, 1, sizeof(head), m_file) == sizeof(head);
    ok = ok && (na == 0 || std::fwrite(a, 1, na, m_file) == na);
    ok = ok && (nb == 0 || std::fwrite(b, 1, nb, m_file) == nb);
    ok = ok && std::fflush(m_file) == 0;
    if (!ok) {
        std::fclose(m_file);
        m_file = nullptr;
        return false;
    }
    ++m_records;
    return true;
}

// ---------------------------------------------------------------------------------------------
// Reader
// ---------------------------------------------------------------------------------------------

bool Reader::readExactly(char* p, size_t n, size_t& got) {
    m_in.read(p, static_cast<std::streamsize>(n));
    got = static_cast<size_t>(std::max<std::streamsize>(0, m_in.gcount()));
    m_offset += got;
    return got == n;
}

bool Reader::readHeader(std::string& error) {
    char head[kFileHeaderBytes];
    size_t got = 0;
    if (!readExactly(head, sizeof(head), got)) {
        error = got == 0 ? "the file is empty"
                         : "the file ends inside its header (" + std::to_string(got) + " bytes)";
        return false;
    }
    if (getU32(head) != kMagic) {
        error = "not a console recording (no LMRC magic at the start)";
        return false;
    }
    m_version = getU32(head + 4);
    if (m_version != kVersion) {
        error = "recording version " + std::to_string(m_version) + " (this console reads " +
                std::to_string(kVersion) + ")";
        return false;
    }
    m_startUnixUs = getI64(head + 8);
    return true;
}

int Reader::next(Record& out, std::string& error) {
    const uint64_t at = m_offset;
    const auto damaged = [&](const std::string& what) {
        error = "record " + std::to_string(m_records + 1) + " at offset " + std::to_string(at) +
                ": " + what;
        return -1;
    };
    char head[kRecordHeadBytes];
    size_t got = 0;
    if (!readExactly(head, sizeof(head), got)) {
        if (got == 0) {
            return 0;
        }
        return damaged("the file ends inside the record's head");
    }
    const int kind = static_cast<unsigned char>(head[0]);
    const int flags = static_cast<unsigned char>(head[1]);
    const int64_t timeUs = getI64(head + 4);
    const uint32_t length = getU32(head + 12);
    if (kind < Sent || kind > Disconnected) {
        return damaged("unknown kind " + std::to_string(kind));
    }
    if ((flags & ~kFlagPadded) != 0 || (flags != 0 && kind != Sent) || getU16(head + 2) != 0) {
        return damaged("unknown flags or a nonzero reserved field");
    }
    if (timeUs < m_lastUs) {
        return damaged("time " + std::to_string(timeUs) + " us goes back from " +
                       std::to_string(m_lastUs) + " us");
    }
    const bool frame = kind == Sent || kind == Received;
    if (!frame && length != 0) {
        return damaged(std::string("a ") + kindName(kind) + " record with " +
                       std::to_string(length) + " bytes");
    }
    if (length > kMaxRecordBytes) {
        return damaged("length " + std::to_string(length) + " exceeds the frame limit");
    }
    out.kind = static_cast<Kind>(kind);
    out.flags = static_cast<uint8_t>(flags);
    out.timeUs = timeUs;
    out.offset = at;
    out.bytes.clear();
    // In pieces: the string grows with the bytes the file actually holds.
    while (out.bytes.size() < length) {
        const size_t piece = std::min<size_t>(kReadPiece, length - out.bytes.size());
        const size_t before = out.bytes.size();
        out.bytes.resize(before + piece);
        if (!readExactly(&out.bytes[before], piece, got)) {
            return damaged("the file ends inside the record's " + std::to_string(length) +
                           " bytes");
        }
    }
    if (frame) {
        const std::string problem = checkFrame(out.bytes, (flags & kFlagPadded) != 0);
        if (!problem.empty()) {
            return damaged(problem);
        }
    }
    m_lastUs = timeUs;
    ++m_records;
    return 1;
}

bool checkRecording(std::istream& in, Summary& summary, std::string& error) {
    Reader reader(in);
    summary = Summary();
    if (!reader.readHeader(error)) {
        return false;
    }
    Record r;
    int rc;
    while ((rc = reader.next(r, error)) == 1) {
        ++summary.records;
        summary.sent += r.kind == Sent;
        summary.received += r.kind == Received;
        summary.connections += r.kind == Connected;
        summary.lastUs = r.timeUs;
    }
    return rc == 0;
}

}  // namespace rec
}  // namespace console
