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

// A console replaying `file` with `args` and an SDK client connected to it.
struct Replay {
    ConsoleProcess console;
    Recorder recorder;
    CTPScanWrapper client;
    Replay(const fs::path& file, std::vector<std::string> args,
           CTPWrapper::MessageCallBack callback = nullptr) {
        args.insert(args.begin(), {"--replay", file.string()});
        EXPECT_TRUE(console.start(args));
        client.setEndpoint(console.endpoint());
        client.setCallBackMessage(callback ? callback : recorder.callback());
        EXPECT_TRUE(client.connectToLowPart());
    }
    ~Replay() { client.setCloseWrapper(true); }
};

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

// A silent console keeps the connection but neither reads nor sends: a command written during
// the silence is read and answered when it ends, a heartbeat asked for meanwhile is lost. (The
// module's keep-alive against a console that stays silent: tests/device/FaultTest.cpp; damaged
// frames too.)
TEST_F(ConsoleFaults, ASilentConsoleKeepsTheConnectionButNeitherReadsNorSends) {
    connect();
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(console.control("silent 500"));
    ASSERT_TRUE(console.saw("silent for 500 ms"));
    const size_t from = recorder.size();
    ASSERT_TRUE(wrapper.setSoundControl(true));
    ASSERT_TRUE(console.control("heartbeat 3"));
    const int answer = recorder.waitIndex(from, isResponse(13), 5s);
    ASSERT_GE(answer, 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(490));
    EXPECT_EQ(static_cast<size_t>(answer), from);  // nothing came before it
    std::this_thread::sleep_for(50ms);
    EXPECT_TRUE(between(from, recorder.size(), isReceipt(RECEIPT_HEARTBEAT)).empty());
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

// A session recorded (damaged frames included, an oversized one whose padding is not stored but
// sent again) and replayed without pauses to a client that saves its scan frames: the same
// messages in the same order, each body and each saved frame exactly as recorded; replayed with
// the recorded timing, the frames are as far apart as they were, and --replay-exit ends the
// console once the recording is played.
TEST_F(ConsoleFaults, AReplayDeliversTheRecordedMessagesByteForByteInOrder) {
    const fs::path dir = tempFolder();
    const fs::path file = dir / "session.lrec";
    connect({"--record", file.string()});
    tagTransformMatrix tm;  // a serialized argument, as the console received it
    tm.m_mapTransform["TRK0001"] = {1, 0, 0, 0, 1, 0, 0, 0, 1, 10, 20, 30};
    tm.m_mapTransform["TRK0002"] = {0, 1, 0, 1, 0, 0, 0, 0, -1, 4, 5, 6};
    ASSERT_TRUE(wrapper.setTransforRT(tm));
    ASSERT_TRUE(wrapper.setStartScan(SCAN_LASER));
    ASSERT_TRUE(wrapper.setTrigger(true, {}));
    ASSERT_TRUE(recorder.waitFor([](const auto& v) { return countType(v, MSG_SCANDATA) >= 10; }));
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
    ASSERT_EQ(wrapper.getLinkCounters().droppedMalformed, 1u);
    ASSERT_EQ(wrapper.getLinkCounters().droppedOversized, 1u);

    // The recording: one connection, the SDK's commands, and every message sent: the delivered
    // ones (less the two connection messages) and the two the SDK dropped.
    std::vector<std::string> sent, commands, delivered, scans;
    int padded = 0, connections = 0;
    int64_t firstScanUs = -1, lastScanUs = -1;
    for (const auto& r : readRecording(file)) {
        connections += r.kind == console::rec::Connected;
        if (r.kind == console::rec::Received) {
            sdk_link::Command c;
            ASSERT_TRUE(c.ParseFromString(bodyOf(r.bytes)));
            commands.push_back(c.name());
            sdk_link::TransformMatrix m;
            for (int i = 0; c.name() == "setTransforRT" && i < 2; ++i) {
                ASSERT_TRUE(m.ParseFromString(c.args(0).raw()) && m.transforms_size() == 2);
                const auto& t = m.transforms(i);
                EXPECT_EQ(std::vector<double>(t.values().begin(), t.values().end()),
                          tm.m_mapTransform[t.tracker_id()]);
            }
        } else if (r.kind == console::rec::Sent) {
            sent.push_back(r.bytes);
            padded += (r.flags & console::rec::kFlagPadded) != 0;
            std::unique_ptr<CMessage_Base> m = CreateMessage(static_cast<int>(typeOf(r.bytes)));
            const std::string body = bodyOf(r.bytes);
            const bool accepted = u32At(r.bytes, 4) == r.bytes.size() - wire::kHeaderBytes && m &&
                                  m->unpack(body.data(), static_cast<int>(body.size())) == 0;
            if (accepted) {
                delivered.push_back(r.bytes);
            }
            if (accepted && typeOf(r.bytes) == MSG_SCANDATA) {
                scans.push_back(r.bytes);
                lastScanUs = r.timeUs;
                firstScanUs = firstScanUs < 0 ? r.timeUs : firstScanUs;
            }
        }
    }
    EXPECT_EQ(connections, 1);
    EXPECT_EQ(commands, (std::vector<std::string>{"setHeartBeatInterval", "setTransforRT",
                                                  "setStartScan", "setTrigger", "setTrigger"}));
    EXPECT_EQ(padded, 1);
    ASSERT_EQ(sent.size(), first.size() - 2 + 2);
    ASSERT_EQ(delivered.size(), sent.size() - 2);

    const fs::path frames = dir / "frames";
    CTPWrapper::setSaveFrameFolder(frames.string());
    CTPWrapper::setSaveFrame(true);
    {
        Replay fast(file, {"--replay-speed", "0"});
        ASSERT_TRUE(fast.console.saw("replay finished"));
        ASSERT_TRUE(
            fast.recorder.waitFor([&](const auto& v) { return v.size() >= first.size() - 1; }));
        std::this_thread::sleep_for(100ms);  // nothing more comes
        const auto replayed = fast.recorder.snapshot();
        fast.client.setCloseWrapper(true);
        CTPWrapper::setSaveFrame(false);
        ASSERT_EQ(replayed.size(), delivered.size() + 1);  // and the connection message
        EXPECT_TRUE(isConnect(true)(*replayed[0]));
        for (size_t i = 0; i < delivered.size(); ++i) {
            const CMessage_Base& m = *replayed[i + 1];
            ASSERT_EQ(static_cast<uint32_t>(m.getType()), typeOf(delivered[i])) << i;
            std::vector<char> packed;
            ASSERT_GE(cloneMessage(&m)->pack(&packed), 0);
            EXPECT_EQ(std::string(packed.begin(), packed.end()), bodyOf(delivered[i])) << i;
            EXPECT_EQ(m.getType(), first[i + 1]->getType());
        }
        EXPECT_EQ(fast.client.getLinkCounters().droppedMalformed, 1u);
        EXPECT_EQ(fast.client.getLinkCounters().droppedOversized, 1u);
    }
    std::vector<fs::path> saved(fs::directory_iterator(frames), {});
    std::sort(saved.begin(), saved.end());
    ASSERT_EQ(saved.size(), scans.size());
    for (size_t i = 0; i < saved.size(); ++i) {
        EXPECT_EQ(readFile(saved[i]), scans[i]) << saved[i];
    }

    std::vector<std::chrono::steady_clock::time_point> arrivals;
    std::mutex arrivalsMutex;
    {
        Replay timed(file, {"--replay-exit"}, [&](CMessage_Base* m) {
            std::lock_guard<std::mutex> lock(arrivalsMutex);
            if (m->getType() == MSG_SCANDATA) {
                arrivals.push_back(std::chrono::steady_clock::now());
            }
        });
        EXPECT_EQ(timed.console.waitExit(), 0);
    }
    ASSERT_EQ(arrivals.size(), scans.size());
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

    Replay replay(file, {"--replay-speed", "0"});
    ASSERT_TRUE(replay.console.saw("replay finished"));
    ASSERT_TRUE(
        replay.recorder.waitFor([](const auto& v) { return countType(v, MSG_SCANDATA) >= 4; }));
    // Frames 1 and 2 in the first connection, 3 and 4 in the second, as recorded.
    std::vector<std::string> seen;
    for (const auto* m : replay.recorder.snapshot()) {
        if (m->getType() == MSG_CONNECT) {
            seen.push_back(static_cast<const CMessage_Connect&>(*m).getConnect() ? "up" : "down");
        } else if (m->getType() == MSG_SCANDATA) {
            seen.push_back(std::to_string(static_cast<const CMessage_ScanData&>(*m).getFrameID()));
        }
    }
    EXPECT_EQ(seen, (std::vector<std::string>{"up", "1", "2", "down", "up", "3", "4"}));
    EXPECT_EQ(replay.client.getLinkCounters().connects, 2u);
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
