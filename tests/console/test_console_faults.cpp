// The console's link faults, its recording and its replay, seen through a real SDK client: a
// console on a private port, driven through its standard input.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "ScriptedConsole.h"
#include "console/Recording.h"

using namespace SDK_NV;
using namespace sdktest;
namespace fs = std::filesystem;

namespace {

// A fresh folder for one test's files.
fs::path tempFolder() {
    std::string pattern = (fs::temp_directory_path() / "console_faults_XXXXXX").string();
    return mkdtemp(pattern.data()) != nullptr ? fs::path(pattern) : fs::path();
}

std::vector<console::rec::Record> readRecording(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    console::rec::Reader reader(in);
    std::string error;
    std::vector<console::rec::Record> out;
    EXPECT_TRUE(reader.readHeader(error)) << error;
    console::rec::Record r;
    int rc;
    while ((rc = reader.next(r, error)) == 1) {
        out.push_back(r);
    }
    EXPECT_EQ(rc, 0) << error;
    return out;
}

uint32_t u32At(const std::string& frame, size_t at) {
    uint32_t v = 0;
    for (size_t i = at + 4; i-- > at;) {
        v = (v << 8) | static_cast<unsigned char>(frame[i]);
    }
    return v;
}

uint32_t envelopeBytes(const std::string& frame) {
    return u32At(frame, 8);
}

// The body of a whole frame: what follows its header and envelope.
std::string bodyOf(const std::string& frame) {
    return frame.substr(wire::kHeaderBytes + envelopeBytes(frame));
}

uint32_t typeOf(const std::string& frame) {
    sdk_link::Envelope env;
    env.ParseFromArray(frame.data() + wire::kHeaderBytes, static_cast<int>(envelopeBytes(frame)));
    return env.type();
}

class ConsoleFaults : public ScriptedConsole {
protected:
    void SetUp() override {
        ScriptedConsole::SetUp();
        // The consoles these tests start inherit the environment. Their delays, silences,
        // crash times and replay pacing are given in real milliseconds, whatever scale the
        // test run was given (the sanitizer runs give one).
        ::setenv(platform::kTimeScaleEnv, "1", 1);
    }
};

}  // namespace

// --- faults -------------------------------------------------------------------------------------

TEST_F(ConsoleFaults, DamagedFramesAreDroppedLoggedAndCountedWhileTheLinkStaysUp) {
    connect();
    const LinkCounters before = wrapper.getLinkCounters();
    testing::internal::CaptureStdout();
    const size_t from = barrier();
    // Each damaged message is followed by a good one of its kind: frame ids 1..9, the odd ones
    // damaged. (After 64 MiB the link may be too full for a frame, which the console would
    // then not make: a heartbeat follows the oversized frame.)
    for (const char* line :
         {"fault corrupt 1", "frames 2", "fault corrupt 1 what=lines", "frames 2",
          "fault corrupt 1 what=normals", "frames 2", "fault truncate 1", "frames 2",
          "fault truncate 1 on=receipt", "heartbeat", "heartbeat", "fault oversize 1", "frames 1",
          "heartbeat"}) {
        ASSERT_TRUE(console.control(line));
    }
    const size_t to = barrier();
    const std::string log = testing::internal::GetCapturedStdout();

    EXPECT_EQ(frameIds(between(from, to, isType(MSG_SCANDATA))), (std::vector<int>{2, 4, 6, 8}));
    EXPECT_EQ(between(from, to, isReceipt(RECEIPT_HEARTBEAT)).size(), 2u);
    const LinkCounters after = wrapper.getLinkCounters();
    EXPECT_EQ(after.droppedMalformed - before.droppedMalformed, 5u);  // 3 corrupt, 2 truncated
    EXPECT_EQ(after.droppedOversized - before.droppedOversized, 1u);
    EXPECT_EQ(after.streamErrors, before.streamErrors);
    EXPECT_EQ(after.disconnects, 0u);
    EXPECT_TRUE(wrapper.isConnected());
    // One log line per dropped frame.
    const auto count = [&](const std::string& what) {
        size_t n = 0;
        for (size_t at = log.find(what); at != std::string::npos; at = log.find(what, at + 1)) {
            ++n;
        }
        return n;
    };
    EXPECT_EQ(count("[sdk_nv] dropped malformed frame"), 5u) << log;
    EXPECT_EQ(count("[sdk_nv] dropped oversized frame"), 1u) << log;
}

TEST_F(ConsoleFaults, DropsThinTheStreamAndDelaysReorderIt) {
    connect();
    size_t from = barrier();
    ASSERT_TRUE(console.control("fault drop every=3"));
    ASSERT_TRUE(console.control("frames 9"));
    size_t to = barrier();
    EXPECT_EQ(frameIds(between(from, to, isType(MSG_SCANDATA))),
              (std::vector<int>{1, 2, 4, 5, 7, 8}));

    // A fraction: some but not all of 60 frames (ids 10..69) arrive, in order.
    ASSERT_TRUE(console.control("fault off"));
    ASSERT_TRUE(console.control("fault drop fraction=0.5"));
    ASSERT_TRUE(console.control("frames 60"));
    from = to;
    to = barrier();
    const std::vector<int> ids = frameIds(between(from, to, isType(MSG_SCANDATA)));
    EXPECT_GT(ids.size(), 10u);
    EXPECT_LT(ids.size(), 50u);
    EXPECT_TRUE(std::is_sorted(ids.begin(), ids.end()));
    EXPECT_GE(ids.front(), 10);
    EXPECT_LE(ids.back(), 69);
    EXPECT_EQ(std::adjacent_find(ids.begin(), ids.end()), ids.end());

    // A delayed frame arrives after the frames and answers sent behind it, and late.
    ASSERT_TRUE(console.control("fault off"));
    ASSERT_TRUE(console.control("fault delay 400 1"));
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(console.control("frames 2"));  // 70 is held, 71 goes
    from = to;
    to = barrier();
    EXPECT_EQ(frameIds(between(from, to, isType(MSG_SCANDATA))), (std::vector<int>{71}));
    const int late = recorder.waitIndex(to, [](const CMessage_Base& m) {
        return m.getType() == MSG_SCANDATA &&
               static_cast<const CMessage_ScanData&>(m).getFrameID() == 70;
    });
    ASSERT_GE(late, 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(380));
    EXPECT_EQ(wrapper.getLinkCounters().droppedMalformed, 0u);
}

TEST_F(ConsoleFaults, ASilentConsoleKeepsTheConnectionButNeitherReadsNorSends) {
    connect();
    ASSERT_TRUE(console.control("heartbeat period 20"));
    ASSERT_GE(recorder.waitIndex(0, isReceipt(RECEIPT_HEARTBEAT)), 0);
    ASSERT_TRUE(console.control("silent"));
    ASSERT_TRUE(console.saw("silent"));
    std::this_thread::sleep_for(100ms);  // what was under way arrives
    const size_t from = recorder.size();
    ASSERT_TRUE(wrapper.setResetCamera());
    ASSERT_TRUE(console.control("heartbeat 3"));  // lost: a silent console sends nothing
    std::this_thread::sleep_for(600ms);
    EXPECT_EQ(recorder.size(), from);
    EXPECT_TRUE(wrapper.isConnected());
    EXPECT_EQ(wrapper.getLinkCounters().disconnects, 0u);

    // Told to speak again, it reads the command that waited and answers it; heartbeats resume.
    ASSERT_TRUE(console.control("silent off"));
    const int answer = recorder.waitIndex(from, isResponse(12), 5s);
    ASSERT_GE(answer, 0);
    EXPECT_GE(recorder.waitIndex(from, isReceipt(RECEIPT_HEARTBEAT), 5s), 0);

    // A silence of a given length ends by itself.
    ASSERT_TRUE(console.control("heartbeat period 0"));
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(console.control("silent 500"));
    ASSERT_TRUE(console.saw("silent for 500 ms"));
    const size_t later = recorder.size();
    ASSERT_TRUE(wrapper.setSoundControl(true));
    ASSERT_GE(recorder.waitIndex(later, isResponse(13), 5s), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(490));
    EXPECT_EQ(wrapper.getLinkCounters().disconnects, 0u);
}

TEST_F(ConsoleFaults, ACrashEndsTheConsoleAtTheChosenTimeAndTheSdkLosesTheConnection) {
    const fs::path dir = tempFolder();
    const fs::path file = dir / "crash.lrec";
    connect({"--record", file.string()});
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(console.control("crash after 300"));
    ASSERT_GE(recorder.waitIndex(0, isConnect(false), 5s), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(280));
    EXPECT_EQ(console.waitExit(), 3);
    EXPECT_FALSE(wrapper.isConnected());
    // The recording is whole up to the crash, which ends its connection.
    const auto records = readRecording(file);
    ASSERT_GE(records.size(), 4u);
    EXPECT_EQ(records.front().kind, console::rec::Connected);
    EXPECT_EQ(records.back().kind, console::rec::Disconnected);
    fs::remove_all(dir);
}

// --- record and replay ---------------------------------------------------------------------------

TEST_F(ConsoleFaults, AReplayDeliversTheRecordedMessagesByteForByteInOrder) {
    const fs::path dir = tempFolder();
    const fs::path file = dir / "session.lrec";
    connect({"--record", file.string()});
    ASSERT_TRUE(wrapper.setStartScan(SCAN_LASER));
    ASSERT_TRUE(wrapper.setTrigger(true, {}));
    ASSERT_TRUE(recorder.waitFor([](const auto& v) { return countType(v, MSG_SCANDATA) >= 10; }));
    // Damaged frames are replayed as recorded: a corrupt one, and an oversized one whose
    // padding is not stored but sent again.
    ASSERT_TRUE(console.control("fault corrupt 1"));
    ASSERT_TRUE(console.control("fault oversize 1 on=receipt"));
    ASSERT_TRUE(console.control("heartbeat"));
    ASSERT_TRUE(recorder.waitFor([](const auto& v) { return countType(v, MSG_SCANDATA) >= 25; }));
    ASSERT_TRUE(wrapper.setTrigger(false, {}));
    barrier();
    ASSERT_TRUE(console.control("quit"));
    ASSERT_EQ(console.waitExit(), 0);
    wrapper.setCloseWrapper(true);
    const auto first = recorder.snapshot();
    const LinkCounters firstCounters = wrapper.getLinkCounters();
    ASSERT_EQ(firstCounters.droppedMalformed, 1u);
    ASSERT_EQ(firstCounters.droppedOversized, 1u);

    // The recording: the console's frames and the SDK's commands, in one connection.
    const auto records = readRecording(file);
    std::vector<std::string> sent;
    int padded = 0;
    std::vector<std::string> commands;
    int64_t firstScanUs = -1, lastScanUs = -1;
    for (const auto& r : records) {
        if (r.kind == console::rec::Sent) {
            sent.push_back(r.bytes);
            padded += (r.flags & console::rec::kFlagPadded) != 0;
            if (typeOf(r.bytes) == MSG_SCANDATA) {
                lastScanUs = r.timeUs;
                firstScanUs = firstScanUs < 0 ? r.timeUs : firstScanUs;
            }
        } else if (r.kind == console::rec::Received) {
            sdk_link::Command c;
            ASSERT_TRUE(c.ParseFromString(bodyOf(r.bytes)));
            commands.push_back(c.name());
        }
    }
    EXPECT_EQ(std::count_if(records.begin(), records.end(),
                            [](const auto& r) { return r.kind == console::rec::Connected; }),
              1);
    EXPECT_EQ(commands, (std::vector<std::string>{"setHeartBeatInterval", "setStartScan",
                                                  "setTrigger", "setTrigger"}));
    // Every delivered message of the session was recorded (the corrupt frame was not delivered).
    EXPECT_EQ(padded, 1);
    // Every delivered message was recorded, and the two the SDK dropped (less the two
    // connection messages).
    ASSERT_EQ(sent.size(), first.size() - 2 + 2);

    // Played back without pauses to a second SDK client that saves its scan frames.
    const fs::path frames = dir / "frames";
    CTPWrapper::setSaveFrameFolder(frames.string());
    CTPWrapper::setSaveFrame(true);
    ConsoleProcess replay;
    ASSERT_TRUE(replay.start({"--replay", file.string(), "--replay-speed", "0"}));
    Recorder second;
    CTPScanWrapper client;
    client.setEndpoint(replay.endpoint());
    client.setCallBackMessage(second.callback());
    ASSERT_TRUE(client.connectToLowPart());
    ASSERT_TRUE(replay.saw("replay finished"));
    ASSERT_TRUE(second.waitFor([&](const auto& v) { return v.size() >= first.size() - 1; }));
    std::this_thread::sleep_for(100ms);  // nothing more comes
    const auto replayed = second.snapshot();
    client.setCloseWrapper(true);
    CTPWrapper::setSaveFrame(false);

    // The same messages in the same order, each body exactly as recorded.
    std::vector<std::string> delivered;  // recorded frames the SDK accepted
    for (const std::string& f : sent) {
        std::unique_ptr<CMessage_Base> m = CreateMessage(static_cast<int>(typeOf(f)));
        const std::string body = bodyOf(f);
        const bool padded = u32At(f, 4) != f.size() - wire::kHeaderBytes;
        if (!padded && m && m->unpack(body.data(), static_cast<int>(body.size())) == 0) {
            delivered.push_back(f);
        }
    }
    ASSERT_EQ(delivered.size(), sent.size() - 2);
    ASSERT_EQ(replayed.size(), delivered.size() + 1);  // and the connection message
    EXPECT_TRUE(isConnect(true)(*replayed[0]));
    for (size_t i = 0; i < delivered.size(); ++i) {
        const CMessage_Base& m = *replayed[i + 1];
        ASSERT_EQ(static_cast<uint32_t>(m.getType()), typeOf(delivered[i])) << "message " << i;
        std::vector<char> packed;
        ASSERT_GE(cloneMessage(&m)->pack(&packed), 0);
        EXPECT_EQ(std::string(packed.begin(), packed.end()), bodyOf(delivered[i]))
            << "message " << i;
        EXPECT_EQ(m.getType(), first[i + 1]->getType());
    }
    EXPECT_EQ(client.getLinkCounters().droppedMalformed, 1u);
    EXPECT_EQ(client.getLinkCounters().droppedOversized, 1u);
    // The saved scan frames are the recorded ones, byte for byte.
    std::vector<fs::path> saved;
    for (const auto& e : fs::directory_iterator(frames)) {
        saved.push_back(e.path());
    }
    std::sort(saved.begin(), saved.end());
    std::vector<std::string> recordedScans;
    for (const std::string& f : delivered) {
        if (typeOf(f) == MSG_SCANDATA) {
            recordedScans.push_back(f);
        }
    }
    ASSERT_EQ(saved.size(), recordedScans.size());
    for (size_t i = 0; i < saved.size(); ++i) {
        EXPECT_EQ(readFile(saved[i]), recordedScans[i]) << saved[i];
    }

    // With the recorded timing the frames are as far apart as they were, and --replay-exit
    // ends the console once the recording is played.
    ConsoleProcess timed;
    ASSERT_TRUE(timed.start({"--replay", file.string(), "--replay-exit"}));
    Recorder third;
    CTPScanWrapper late;
    late.setEndpoint(timed.endpoint());
    std::vector<std::chrono::steady_clock::time_point> arrivals;
    std::mutex arrivalsMutex;
    late.setCallBackMessage([&](CMessage_Base* m) {
        if (m->getType() == MSG_SCANDATA) {
            std::lock_guard<std::mutex> lock(arrivalsMutex);
            arrivals.push_back(std::chrono::steady_clock::now());
        }
    });
    ASSERT_TRUE(late.connectToLowPart());
    EXPECT_EQ(timed.waitExit(), 0);
    late.setCloseWrapper(true);
    std::lock_guard<std::mutex> lock(arrivalsMutex);
    ASSERT_EQ(arrivals.size(), recordedScans.size());
    const auto span =
        std::chrono::duration_cast<std::chrono::microseconds>(arrivals.back() - arrivals.front());
    EXPECT_GE(span.count(), (lastScanUs - firstScanUs) * 9 / 10);
    EXPECT_LE(span.count(), (lastScanUs - firstScanUs) * 2 + 200000);
    fs::remove_all(dir);
}

TEST_F(ConsoleFaults, AReplayEndsTheClientsConnectionWhereTheRecordedOneEnded) {
    const fs::path dir = tempFolder();
    const fs::path file = dir / "two.lrec";
    connect({"--record", file.string()});
    ASSERT_TRUE(console.control("frames 2"));
    barrier();
    ASSERT_TRUE(console.control("drop"));  // the SDK comes back on its own
    ASSERT_GE(recorder.waitIndex(0, isConnect(false)), 0);
    const int first = recorder.waitIndex(0, isConnect(true));
    const int again = recorder.waitIndex(static_cast<size_t>(first) + 1, isConnect(true));
    ASSERT_GE(again, 0);
    // The reconnected client is served once its own heartbeat-interval answer came; control
    // lines before that could reach a console that has no client yet.
    ASSERT_GE(recorder.waitIndex(static_cast<size_t>(again) + 1, isResponse(17)), 0);
    ASSERT_TRUE(console.control("frames 2"));
    barrier();
    ASSERT_TRUE(console.control("quit"));
    ASSERT_EQ(console.waitExit(), 0);

    ConsoleProcess replay;
    ASSERT_TRUE(replay.start({"--replay", file.string(), "--replay-speed", "0"}));
    Recorder second;
    CTPScanWrapper client;
    client.setEndpoint(replay.endpoint());
    client.setCallBackMessage(second.callback());
    ASSERT_TRUE(client.connectToLowPart());
    ASSERT_TRUE(replay.saw("replay finished"));
    ASSERT_TRUE(second.waitFor([](const auto& v) { return countType(v, MSG_SCANDATA) >= 4; }));
    // Frames 1 and 2 in the first connection, 3 and 4 in the second, as recorded.
    std::vector<std::string> seen;
    for (const auto* m : second.snapshot()) {
        if (m->getType() == MSG_CONNECT) {
            seen.push_back(static_cast<const CMessage_Connect&>(*m).getConnect() ? "up" : "down");
        } else if (m->getType() == MSG_SCANDATA) {
            seen.push_back(std::to_string(static_cast<const CMessage_ScanData&>(*m).getFrameID()));
        }
    }
    EXPECT_EQ(seen, (std::vector<std::string>{"up", "1", "2", "down", "up", "3", "4"}));
    EXPECT_EQ(client.getLinkCounters().connects, 2u);
    client.setCloseWrapper(true);
    fs::remove_all(dir);
}

TEST_F(ConsoleFaults, ADamagedRecordingIsRefusedWithItsReasonAndExitCode2) {
    const fs::path dir = tempFolder();
    const fs::path good = dir / "good.lrec";
    connect({"--record", good.string()});
    ASSERT_TRUE(console.control("frames 3"));
    barrier();
    ASSERT_TRUE(console.control("quit"));
    ASSERT_EQ(console.waitExit(), 0);
    const std::string bytes = readFile(good);
    {
        std::istringstream in(bytes);
        console::rec::Summary summary;
        std::string error;
        ASSERT_TRUE(console::rec::checkRecording(in, summary, error)) << error;
        EXPECT_EQ(summary.connections, 1u);
        EXPECT_GE(summary.sent, 3u + 3u + 1u);  // announcements, frames, answers
        EXPECT_GE(summary.received, 1u);
    }

    const size_t firstRecord = console::rec::kFileHeaderBytes;
    const size_t secondRecord = firstRecord + console::rec::kRecordHeadBytes;  // after Connected
    const auto patched = [&](size_t at, std::initializer_list<unsigned char> with) {
        std::string b = bytes;
        for (unsigned char c : with) {
            b[at++] = static_cast<char>(c);
        }
        return b;
    };
    struct Case {
        const char* what;
        std::string bytes;
        const char* reason;
    };
    const std::vector<Case> cases = {
        {"empty", "", "empty"},
        {"cut header", bytes.substr(0, 10), "inside its header"},
        {"magic", patched(0, {'X'}), "magic"},
        {"version", patched(4, {2}), "version 2"},
        {"cut in a frame", bytes.substr(0, bytes.size() - 5), "ends inside the record"},
        {"kind", patched(firstRecord, {9}), "unknown kind 9"},
        {"length", patched(secondRecord + 12, {0xff, 0xff, 0xff, 0x7f}), "exceeds the frame"},
        {"length short", patched(secondRecord + 12, {20, 0, 0, 0}), "declares"},
        {"time back", patched(secondRecord + 4, {0, 0, 0, 0, 0, 0, 0, 0x80}), "goes back"},
        {"frame magic", patched(secondRecord + console::rec::kRecordHeadBytes, {'X'}), "magic"},
    };
    int spawned = 0;
    for (const Case& c : cases) {
        std::istringstream in(c.bytes);
        console::rec::Summary summary;
        std::string error;
        EXPECT_FALSE(console::rec::checkRecording(in, summary, error)) << c.what;
        EXPECT_NE(error.find(c.reason), std::string::npos) << c.what << ": " << error;
        // A few through the console itself: no listening line, exit code 2.
        if (spawned++ % 3 == 0) {
            const fs::path f = dir / "damaged.lrec";
            writeFile(f, c.bytes);
            ConsoleProcess bad;
            EXPECT_FALSE(bad.start({"--replay", f.string()})) << c.what;
            EXPECT_EQ(bad.waitExit(), 2) << c.what;
        }
    }
    fs::remove_all(dir);
}
