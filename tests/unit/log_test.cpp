// The log line, its gates, the capture switches and the exit path.
#include "core/log.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <regex>

#include "core/lifecycle.h"
#include "netlink/genl_family.h"
#include "steering/tables.h"
#include "test_support.h"

namespace {

class LogTest : public ::testing::Test {
   protected:
    zt::LogCapture log{false};
};

void a_function_whose_name_is_longer_than_forty_characters(unsigned *line) {
    *line = __LINE__ + 1;
    ZLOG(ERR, "long %s", "name");
}

TEST_F(LogTest, PrefixHasStampFunctionLineAndLevelInFixedColumns) {
    unsigned line = __LINE__ + 1;
    ZLOG(HIGH, "value %d", 7);
    unsigned long_line = 0;
    a_function_whose_name_is_longer_than_forty_characters(&long_line);

    std::string text = log.text();
    std::string first = text.substr(0, text.find('\n'));
    // 15-character stamp right-aligned in 16, so every line opens with a blank.
    std::regex stamp(R"(^ \d\d:\d\d:\d\d\.\d{6} )");
    EXPECT_TRUE(std::regex_search(first, stamp)) << first;
    char expect[128];
    snprintf(expect, sizeof(expect), "%40s():%3u (HIGH): value 7", "TestBody", line);
    EXPECT_EQ(first.substr(17), expect);

    // A longer name is written whole, not cut to 40.
    std::string second = text.substr(text.find('\n') + 1);
    snprintf(expect, sizeof(expect),
             " a_function_whose_name_is_longer_than_forty_characters():%3u (ERR): long name\n",
             long_line);
    EXPECT_EQ(second.substr(16), expect);
}

TEST_F(LogTest, LineNumbersPadToThreeColumns) {
    zebusr_log_write(ZEBUSR_LOG_HIGH, "f", 7, "x");
    EXPECT_NE(log.text().find("f():  7 (HIGH): x\n"), std::string::npos);
}

TEST_F(LogTest, MessageWithItsOwnNewlineLeavesAnEmptyLine) {
    ZLOG(HIGH, "Failed to start zeb eval thread - rc = %d\n", 11);
    ZLOG(HIGH, "next");
    std::string text = log.text();
    EXPECT_NE(text.find("rc = 11\n\n"), std::string::npos);
    EXPECT_EQ(log.messages(),
              (std::vector<std::string>{"Failed to start zeb eval thread - rc = 11", "next"}));
}

TEST_F(LogTest, VerboseGateHoldsBackOnlyMedAndLow) {
    struct Case {
        uint8_t enabled, verbose;
        std::vector<std::string> written;
    } cases[] = {
        {1, 0, {"h", "e"}},
        {1, 1, {"h", "e", "m", "l"}},
        {0, 1, {}},
        {0, 0, {}},
    };
    for (const auto &c : cases) {
        log.clear();
        log_enabled = c.enabled;
        verbose_log_enabled = c.verbose;
        ZLOG(HIGH, "h");
        ZLOG(ERR, "e");
        ZLOG(MED, "m");
        ZLOG(LOW, "l");
        log_enabled = 1;
        EXPECT_EQ(log.messages(), c.written) << int(c.enabled) << int(c.verbose);
    }
}

TEST_F(LogTest, LevelWordsAreWrittenAsGiven) {
    verbose_log_enabled = 1;
    ZLOG(HIGH, "a");
    ZLOG(ERR, "b");
    ZLOG(MED, "c");
    ZLOG(LOW, "d");
    std::vector<std::string> levels;
    for (const auto &l : log.lines()) levels.push_back(l.level);
    EXPECT_EQ(levels, (std::vector<std::string>{"HIGH", "ERR", "MED", "LOW"}));
}

TEST_F(LogTest, StopLoggingSilencesVerboseAtOnceAndToleratesRepeats) {
    verbose_log_enabled = 1;
    csv_log_enabled = 1;
    zebusr_stop_logging(SIGUSR2);
    zebusr_stop_logging(SIGUSR2);  // no stream any more: must not crash
    ZLOG(LOW, "quiet");
    ZLOG(HIGH, "loud");
    EXPECT_EQ(verbose_log_enabled, 0);
    EXPECT_EQ(csv_log_enabled, 0);
    EXPECT_EQ(log.messages(), (std::vector<std::string>{"Stopping verbose logging",
                                                        "Stopping verbose logging", "loud"}));
}

// This machine has no /data/vendor/zebusr; the capture that does open is
// covered by the whole-process tests under the simulator.
TEST_F(LogTest, StartLoggingKeepsVerboseWhenTheCaptureCannotOpen) {
    zebusr_start_logging(SIGUSR1);
    EXPECT_EQ(verbose_log_enabled, 1);
    EXPECT_EQ(csv_log_enabled, 0);
    EXPECT_EQ(log.messages(), (std::vector<std::string>{"Starting verbose logging",
                                                        "Unable to open csv logging file"}));
    EXPECT_EQ(log.messages("ERR"), (std::vector<std::string>{"Unable to open csv logging file"}));
}

using LogDeathTest = LogTest;

TEST_F(LogDeathTest, SignalHandlerExitsZeroThroughTheCleanup) {
    EXPECT_EXIT(
        {
            atexit(zebusr_cleanup);
            zebusr_sig_handler(SIGTERM);
        },
        ::testing::ExitedWithCode(0), "");
    EXPECT_EQ(log.messages(), (std::vector<std::string>{
                                  "Signal Handler Invoked!",
                                  "Attempting to clean up",
                                  "closing cap file",
                                  "closing gflow file",
                                  "closing ssflow file",
                                  "Cleanup Complete",
                              }));
}

}  // namespace
