// The console's command line and control lines, without a client.
#include <gtest/gtest.h>

#include "console/Console.h"

using console::Console;
using console::ConsoleOptions;

namespace {

bool parse(std::vector<const char*> args, ConsoleOptions& o, std::string& error) {
    args.insert(args.begin(), "lumora_console");
    bool help = false;
    return console::parseOptions(static_cast<int>(args.size()), args.data(), o, help, error);
}

}  // namespace

// The options in both spellings ("--option value" and "--option=value", whose value may hold
// '=' itself) and the scene keys, those that no other test's console is started with; every
// refused option gives an error.
TEST(ConsoleOptions, ValuesAreReadInBothSpellingsAndCheckedForRange) {
    ConsoleOptions o;
    std::string error;
    ASSERT_TRUE(parse({"--tracker-model", "3", "--no-stdin", "--setup", "device X on kind=tracker",
                       "--setup", "calib locations 2", "--laser-noise", "0.05", "--motion", "sway",
                       "--lines", "5", "--markers", "40", "--points", "20000"},
                      o, error))
        << error;
    EXPECT_EQ(o.trackerModel, 3);
    EXPECT_FALSE(o.readStdin);
    EXPECT_EQ(o.setupLines,
              (std::vector<std::string>{"device X on kind=tracker", "calib locations 2"}));
    EXPECT_DOUBLE_EQ(o.scene.laserNoise, 0.05);
    EXPECT_EQ(o.scene.motion, "sway");
    EXPECT_EQ(o.scene.lines, 5);
    EXPECT_EQ(o.scene.pointsPerLine, 4000);
    EXPECT_EQ(o.scene.markerCount, 40);
    EXPECT_EQ(o.record.replaySpeed, 1.0);
    ConsoleOptions e;
    ASSERT_TRUE(parse({"--setup=scene seed=4", "--laser-noise=0.05", "--replay=s.lrec",
                       "--replay-speed", "0", "--replay-exit", "--export-truth=truth dir"},
                      e, error))
        << error;
    EXPECT_EQ(e.setupLines, std::vector<std::string>{"scene seed=4"});
    EXPECT_DOUBLE_EQ(e.scene.laserNoise, 0.05);
    EXPECT_EQ(e.record.replayPath, "s.lrec");
    EXPECT_EQ(e.record.replaySpeed, 0.0);
    EXPECT_TRUE(e.record.replayExit);
    EXPECT_EQ(e.exportTruthDir, "truth dir");

    for (const std::vector<const char*>& bad :
         std::vector<std::vector<const char*>>{{"--fps", "-1"},
                                               {"--fps", "fast"},
                                               {"--points", "-5"},
                                               {"--endpoint", "nowhere"},
                                               {"--seed"},
                                               {"--bogus"},
                                               {"--lines", "0"},
                                               {"--fps="},
                                               {"--seed=x"},
                                               {"--no-stdin=1"},  // a switch takes no value
                                               {"--bogus=1"},
                                               {"--trackers=9"},
                                               {"--trackers", "4"},
                                               {"--laser-noise", "-1"},
                                               {"--motion", "spin"},
                                               {"--scene", "cave"},
                                               {"--points-per-line", "1.5"},
                                               {"--noise", "loud"},
                                               {"--replay-speed", "-1"},
                                               {"--replay-speed", "fast"},
                                               {"--record"},
                                               {"--record", "a.lrec", "--replay", "b.lrec"}}) {
        ConsoleOptions fresh;
        error.clear();
        EXPECT_FALSE(parse(bad, fresh, error)) << bad[0];
        EXPECT_FALSE(error.empty()) << bad[0];
    }

    const char* argv[] = {"lumora_console", "--help", "--bogus"};
    bool help = false;
    EXPECT_TRUE(console::parseOptions(3, argv, o, help, error));  // help stops parsing
    EXPECT_TRUE(help);
    EXPECT_NE(console::usageText().find("--endpoint"), std::string::npos);
}

// A setup line that is not understood, a recording that cannot be created or a mesh that cannot
// be read fails the start.
TEST(ConsoleOptions, WhatCannotBeSetUpFailsTheStart) {
    ConsoleOptions o;
    o.readStdin = false;
    o.setupLines = {"device TRK0002 on kind=tracker", "answer setTrigger 5"};
    EXPECT_TRUE(Console(o).setupOk());
    ConsoleOptions ghost = o;
    ghost.setupLines.push_back("device GHOST on");
    EXPECT_FALSE(Console(ghost).setupOk());
    ConsoleOptions unwritable = o;
    unwritable.record.recordPath = "/nonexistent-folder/x.lrec";
    EXPECT_FALSE(Console(unwritable).setupOk());
    ConsoleOptions badMesh = o;
    badMesh.scene.meshPath = "/nonexistent/part.obj";
    EXPECT_FALSE(Console(badMesh).setupOk());
}

// Each refused line fails a different check; nothing is changed or sent. The scene lines take
// the same keys as the options.
TEST(ConsoleControl, LinesAreCheckedBeforeAnythingIsDone) {
    ConsoleOptions o;
    o.readStdin = false;
    Console c(o);
    std::string error;
    for (const char* good :
         {"", "# a comment", "scene trackers=2 noise=off seed=3",
          // the second tracker is a device now
          "device TRK0002 off", "scene show", "answer setTrigger 4 2", "answer setTrigger default",
          "answer getCalibraResult value=nan 1",
          "answer getWIFIConnectInfo text=\"wpa_state=SCANNING \"", "answer setImageMode 0 delay=5",
          "device PEN on kind=lightpen", "device AIR on kind=3 version=2.0", "device * off",
          "temperature SCN0001 seq 30 31 32", "temperature SCN0001 30 31",
          "temperature SCN0001 none", "heartbeat period default", "drop 0", "fps 60", "trigger off",
          "fault drop every=3", "fault delay 50 2 on=receipt", "fault corrupt 2 what=lines",
          // replaces the corruption before it
          "fault corrupt fraction=0.5 what=normals", "fault truncate always on=any",
          "fault oversize 1 on=7", "fault list", "fault drop off", "fault off", "silent 10",
          "silent off", "crash after 100000", "crash off"}) {
        EXPECT_TRUE(c.control(good, error)) << good << ": " << error;
    }
    for (const char* bad :
         {// an unknown verb; a button needs a client, and two words
          "launch rockets", "button 51 2", "button 51",
          // answers: not a state, zero times, a query takes data, a setting takes a state, a key
          // the answer does not have, not a number, heartbeats take no fields, nothing to
          // delay, a negative delay, default takes nothing
          "answer setTrigger x", "answer setTrigger 5 0", "answer getCalibraResult 0",
          "answer setTrigger state=5", "answer getCalibraResult valu=1",
          "answer getCalibraResult value=abc", "answer getHeartBeat temp=3",
          "answer setImageMode none delay=5", "answer setImageMode 0 delay=-1",
          "answer setImageMode default 1",
          // devices: unknown without a kind, no such kind, errors not integers, off takes no
          // fields, an unknown device; temperatures without values or step; out of range
          "device NEW on model=3", "device NEW on kind=robot", "device TRK0001 on errors=3,x",
          "device TRK0001 off model=3", "device NOPE off", "temperature TRK0001 seq",
          "temperature TRK0001 ramp 25", "heartbeat period -1", "heartbeat 0", "calib locations 0",
          "calib run x", "calib 2 location", "receipt 24", "receipt 4 image", "drop 1 2", "fps -3",
          // faults: no kind, no such fault, nothing to strike, every 0th, not a probability, two
          // patterns, no such type, counts (only scan frames have them), no such corruption, a
          // what without a corruption, no time, a negative time; silence and crash times
          "fault", "fault explode", "fault drop 0", "fault drop every=0", "fault drop fraction=1.5",
          "fault drop 2 every=3", "fault drop on=laser", "fault corrupt on=receipt",
          "fault corrupt what=holes", "fault drop what=markers", "fault delay", "fault delay -5",
          "silent soon", "crash later 5", "crash after -1",
          // scene settings are checked before the scene changes
          "scene", "scene trackers", "scene trackers=0", "scene colour=red",
          "scene mesh=/nonexistent/part.ply", "scene seed=-2", "scene export /proc/no/such/dir"}) {
        error.clear();
        EXPECT_FALSE(c.control(bad, error)) << bad;
        EXPECT_FALSE(error.empty()) << bad;
    }
    EXPECT_TRUE(c.control("quit", error));
}

TEST(ControlWords, QuotesKeepBlanksAndFreeTextKeepsItsOwn) {
    std::vector<std::string> w;
    std::string error;
    ASSERT_TRUE(console::splitControlLine("receipt 23  text=\"wpa_state=SCANNING \" x=\"a\\\"b\"",
                                          w, error));
    EXPECT_EQ(w, (std::vector<std::string>{"receipt", "23", "text=wpa_state=SCANNING ", "x=a\"b"}));
    EXPECT_FALSE(console::splitControlLine("say \"open", w, error));
    EXPECT_FALSE(error.empty());

    EXPECT_EQ(console::restOfLine("response 3 112  two  words \r", 3), "two  words ");
    EXPECT_EQ(console::restOfLine("wifi", 1), "");
}

TEST(ControlWords, FieldsReportBadValuesAndUnknownKeys) {
    console::Fields f;
    std::string error;
    ASSERT_TRUE(
        console::Fields::parse({"x", "code=7", "ids=none", "list=1,2.5", "code=9"}, 1, f, error));
    int code = 0;
    std::vector<std::string> ids{"keep"};
    std::vector<double> list;
    EXPECT_TRUE(f.getInt("code", code, error));
    EXPECT_EQ(code, 9);  // the last one counts
    EXPECT_TRUE(f.getTexts("ids", ids));
    EXPECT_TRUE(ids.empty());
    EXPECT_TRUE(f.getDoubles("list", list, error));
    EXPECT_EQ(list, (std::vector<double>{1, 2.5}));
    EXPECT_TRUE(f.checkAllUsed(error));

    ASSERT_TRUE(console::Fields::parse({"n=seven", "typo=1"}, 0, f, error));
    int n = 3;
    EXPECT_FALSE(f.getInt("n", n, error));
    EXPECT_EQ(n, 3);
    EXPECT_NE(error.find("n=seven"), std::string::npos);
    EXPECT_FALSE(f.checkAllUsed(error));
    EXPECT_NE(error.find("typo"), std::string::npos);
    EXPECT_FALSE(console::Fields::parse({"novalue"}, 0, f, error));
    EXPECT_FALSE(console::Fields::parse({"=3"}, 0, f, error));
}
