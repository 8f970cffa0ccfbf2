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
