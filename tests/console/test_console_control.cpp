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

TEST(ConsoleOptions, ValuesAreReadAndCheckedForRange) {
    ConsoleOptions o;
    std::string error;
    ASSERT_TRUE(parse({"--endpoint", "127.0.0.1:0", "--fps", "120", "--seed", "9", "--points",
                       "20000", "--tracker-model", "3", "--no-stdin", "--script", "s.txt"},
                      o, error))
        << error;
    EXPECT_EQ(o.endpoint.port, 0);
    EXPECT_DOUBLE_EQ(o.fps, 120.0);
    EXPECT_EQ(o.seed, 9u);
    EXPECT_EQ(o.laserPoints, 20000);
    EXPECT_EQ(o.trackerModel, 3);
    EXPECT_FALSE(o.readStdin);
    EXPECT_EQ(o.scriptPath, "s.txt");

    for (std::vector<const char*> bad :
         std::vector<std::vector<const char*>>{{"--fps", "-1"},
                                               {"--fps", "fast"},
                                               {"--points", "-5"},
                                               {"--endpoint", "nowhere"},
                                               {"--seed"},
                                               {"--bogus"},
                                               {"--lines", "0"}}) {
        ConsoleOptions fresh;
        error.clear();
        EXPECT_FALSE(parse(bad, fresh, error)) << bad[0];
        EXPECT_FALSE(error.empty());
    }
}

TEST(ConsoleOptions, HelpStopsParsing) {
    ConsoleOptions o;
    const char* argv[] = {"lumora_console", "--help", "--bogus"};
    bool help = false;
    std::string error;
    EXPECT_TRUE(console::parseOptions(3, argv, o, help, error));
    EXPECT_TRUE(help);
    EXPECT_NE(console::usageText().find("--endpoint"), std::string::npos);
}

TEST(ConsoleControl, LinesAreCheckedBeforeAnythingIsSent) {
    ConsoleOptions o;
    o.readStdin = false;
    Console c(o);
    std::string error;
    EXPECT_TRUE(c.control("", error));
    EXPECT_TRUE(c.control("# a comment", error));
    EXPECT_TRUE(c.control("answer setTrigger 5", error));
    EXPECT_TRUE(c.control("answer setTrigger 4 2", error));
    EXPECT_TRUE(c.control("answer setTrigger default", error));
    EXPECT_TRUE(c.control("fps 60", error));
    EXPECT_TRUE(c.control("trigger off", error));
    EXPECT_TRUE(c.control("device TRK0001 off", error));

    const char* refused[] = {"button 51 2",  // no client to send to
                             "receipt 2",
                             "frames 3",
                             "answer setTrigger",
                             "answer setTrigger x",
                             "answer setTrigger 5 0",
                             "fps -3",
                             "device NOPE on",
                             "launch rockets",
                             "button 51"};
    for (const char* line : refused) {
        error.clear();
        EXPECT_FALSE(c.control(line, error)) << line;
        EXPECT_FALSE(error.empty()) << line;
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

TEST(ConsoleControl, ScriptedAnswersAreCheckedWhenGiven) {
    ConsoleOptions o;
    o.readStdin = false;
    Console c(o);
    std::string error;
    for (const char* good :
         {"answer setImageMode none", "answer setImageMode none 2", "answer setGrabOneFrame -1",
          "answer getCalibraResult value=-0.5", "answer getCalibraResult value=nan 1",
          "answer getCalibraResult none", "answer getCalibBoardSize rows=7 board=7,5,15,15,2",
          "answer getPripladDevices ids=none",
          "answer getWIFIConnectInfo text=\"wpa_state=SCANNING \""}) {
        EXPECT_TRUE(c.control(good, error)) << good << ": " << error;
    }
    for (const char* bad : {"answer getCalibraResult 0",          // a query takes data
                            "answer setTrigger state=5",          // a setting takes a state
                            "answer getCalibraResult valu=1",     // misspelt key
                            "answer getCalibraResult value=abc",  // not a number
                            "answer getCalibBoardSize rows=7 location=2",
                            "answer getHeartBeat temp=3",  // heartbeats take no fields
                            "answer setImageMode none 0", "answer setImageMode none 1 2",
                            "answer setImageMode default 1", "answer setImageMode none delay=5",
                            "answer setImageMode 0 delay=-1", "answer setImageMode 0 delay=x",
                            "answer setImageMode default delay=5"}) {
        error.clear();
        EXPECT_FALSE(c.control(bad, error)) << bad;
        EXPECT_FALSE(error.empty()) << bad;
    }
}

TEST(ConsoleControl, DevicesTemperaturesAndCalibrationSettingsAreChecked) {
    ConsoleOptions o;
    o.readStdin = false;
    Console c(o);
    std::string error;
    for (const char* good :
         {"device TRK0002 on kind=tracker model=3 errors=3,4", "device TRK0002 on errors=none",
          "device PEN on kind=lightpen", "device AIR on kind=3 version=2.0", "device * off",
          "device TRK0002 off", "temperature TRK0001 30 29 31", "temperature TRK0001 none",
          "temperature SCN0001 seq 30 31 32", "temperature SCN0001 ramp 25 0.5",
          "temperature SCN0001 default", "heartbeat period 0", "heartbeat period default",
          "calib locations 3", "drop", "drop 0"}) {
        EXPECT_TRUE(c.control(good, error)) << good << ": " << error;
    }
    for (const char* bad : {"device NEW on model=3",         // unknown without a kind
                            "device NEW on kind=robot",      // no such kind
                            "device TRK0001 on errors=3,x",  // not integers
                            "device TRK0001 on colour=red",  // unknown key
                            "device TRK0001 off model=3",    // off takes no fields
                            "device NOPE off",
                            "device TRK0001 up",
                            "temperature NOPE 30",
                            "temperature TRK0001 seq",
                            "temperature TRK0001 ramp 25",
                            "temperature TRK0001 hot",
                            "heartbeat period -1",
                            "heartbeat 0",
                            "heartbeat 2 NOPE",
                            "calib locations 0",
                            "calib run x",
                            "calib run value=1 bogus=2",
                            "drop -5",
                            "drop 1 2",
                            "receipt 24",
                            "receipt 4 image",
                            "calib 2 location"}) {
        error.clear();
        EXPECT_FALSE(c.control(bad, error)) << bad;
        EXPECT_FALSE(error.empty()) << bad;
    }
}

TEST(ConsoleOptions, SetupLinesAndTheCommandLogAreRead) {
    ConsoleOptions o;
    std::string error;
    ASSERT_TRUE(parse({"--setup", "device TRK0002 on kind=tracker", "--setup", "calib locations 2",
                       "--command-log", "cmd.log", "--heartbeat-ms", "0"},
                      o, error))
        << error;
    EXPECT_EQ(o.setupLines,
              (std::vector<std::string>{"device TRK0002 on kind=tracker", "calib locations 2"}));
    EXPECT_EQ(o.commandLogPath, "cmd.log");
    EXPECT_EQ(o.heartbeatMs, 0);

    o.readStdin = false;
    o.commandLogPath.clear();
    EXPECT_TRUE(Console(o).setupOk());
    o.setupLines.push_back("device GHOST on");
    EXPECT_FALSE(Console(o).setupOk());
}
