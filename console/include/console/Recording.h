// Recordings of the console's link: every frame it sent and received, with its time, and the
// connections coming and going (console/README.md, "Record and replay", describes the file).
//
//   file header, 16 bytes:
//     offset 0   uint32 LE  magic 0x43524D4C (the bytes "LMRC")
//     offset 4   uint32 LE  version (1)
//     offset 8   int64 LE   wall-clock time of the start, microseconds since 1970 (information)
//   then records, each a 16-byte head and its bytes:
//     offset 0   uint8      kind: 1 sent, 2 received, 3 client connected, 4 client dropped
//     offset 1   uint8      flags: bit 0 (sent frames only) the frame was followed on the link by
//                           zero bytes up to its declared length, which are not stored
//     offset 2   uint16 LE  0
//     offset 4   int64 LE   microseconds since the start (monotonic; never decreasing)
//     offset 12  uint32 LE  L: bytes that follow (0 for connections)
//     offset 16  L bytes    the frame as it crossed the link: header, envelope, body
#pragma once

#include <cstdint>
#include <cstdio>
#include <istream>
#include <string>

namespace console {

// Options of the recording and the replay (--record, --replay, --replay-speed, --replay-exit).
struct RecordOptions {
    std::string recordPath;    // write a recording of the session here
    std::string replayPath;    // play this recording to clients instead of simulating
    double replaySpeed = 1.0;  // 1: the recorded timing; 2: twice as fast; 0: without pauses
    bool replayExit = false;   // end once the recording is played (else stay up)
};

namespace rec {

constexpr uint32_t kMagic = 0x43524D4Cu;  // "LMRC"
constexpr uint32_t kVersion = 1;
constexpr size_t kFileHeaderBytes = 16;
constexpr size_t kRecordHeadBytes = 16;
constexpr uint8_t kFlagPadded = 1;

enum Kind : uint8_t { Sent = 1, Received = 2, Connected = 3, Disconnected = 4 };

const char* kindName(int kind);

struct Record {
    Kind kind = Sent;
    uint8_t flags = 0;
    int64_t timeUs = 0;
    std::string bytes;    // the frame (empty for connections)
    uint64_t offset = 0;  // of the record's head in the file
};

// Writes a recording. Each record is flushed as a whole, so a console that ends abruptly
// leaves a readable file.
class Writer {
public:
    Writer() = default;
    ~Writer();
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;

    // Creates (truncates) the file and writes its header; the clock starts now.
    bool open(const std::string& path, std::string& error);
    bool isOpen() const { return m_file != nullptr; }
    // One record of the bytes a then b. False (and the recording stops) when the write fails.
    bool write(Kind kind, uint8_t flags, const char* a, size_t na, const char* b = nullptr,
               size_t nb = 0);
    int64_t elapsedUs() const;
    uint64_t records() const { return m_records; }

private:
    std::FILE* m_file = nullptr;
    int64_t m_startNs = 0;
    int64_t m_lastUs = 0;
    uint64_t m_records = 0;
};

// Reads a recording record by record, checking each: the header's magic and version; a known
// kind, no unknown flag, the reserved field 0, times that never go back; a frame record holds
// one whole frame (its magic, a frame length that matches the bytes unless the frame was
// padded, an envelope that parses). A record's bytes are read in pieces as they come, so a
// damaged length never causes an allocation beyond what the file holds.
class Reader {
public:
    explicit Reader(std::istream& in) : m_in(in) {}

    bool readHeader(std::string& error);
    // 1: a record was read; 0: the recording ended cleanly; -1: damaged (error says where).
    int next(Record& out, std::string& error);

    uint32_t version() const { return m_version; }
    int64_t startUnixUs() const { return m_startUnixUs; }
    uint64_t offset() const { return m_offset; }
    uint64_t records() const { return m_records; }

private:
    bool readExactly(char* p, size_t n, size_t& got);

    std::istream& m_in;
    uint64_t m_offset = 0;
    uint64_t m_records = 0;
    int64_t m_lastUs = 0;
    uint32_t m_version = 0;
    int64_t m_startUnixUs = 0;
};

struct Summary {
    uint64_t records = 0;
    uint64_t sent = 0;
    uint64_t received = 0;
    uint64_t connections = 0;
    int64_t lastUs = 0;
};

// Reads a whole recording through; false with a message naming the offset of the damage.
bool checkRecording(std::istream& in, Summary& summary, std::string& error);

}  // namespace rec
}  // namespace console
