// The log line and its gates, the two logging signals with the CSV capture,
// and the ways out: the signal handler, the clean-up, a log that cannot open.
#include "core/lifecycle.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <sstream>
#include <thread>

#include "core/log.h"
#include "netlink/genl_family.h"
#include "steering/tables.h"
#include "test_support.h"

namespace {

const std::string kCsv = "/data/vendor/zebusr/zebusr_caps.csv";

std::string read(const std::string &path) {
    std::ifstream in(zt::sandbox() + path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

class Lifecycle : public ::testing::Test {
   protected:
    zt::LogCapture log{false};
};

TEST_F(Lifecycle, LineHasItsPrefixAndOnlyMedAndLowWaitForVerbose) {
    struct Case {
        uint8_t enabled, verbose;
        bool stream;
        const char *written;
    } cases[] = {
        {0, 1, true, ""},
        {1, 1, false, ""},
        {1, 0, true, "Exiting main\nUnable to open csv logging file\n"},
        {1, 1, true,
         "Exiting main\nUnable to open csv logging file\nrecv error - len_recv < 0\n"
         "Sending sugg info to kernel\n"},
    };
    for (const auto &c : cases) {
        log.clear();
        log_enabled = c.enabled;
        verbose_log_enabled = c.verbose;
        FILE *fp = log_fp.exchange(c.stream ? log_fp.load() : nullptr);
        zebusr_log_write(ZEBUSR_LOG_HIGH, "main", 7, "Exiting main");
        zebusr_log_write(ZEBUSR_LOG_ERR, "zebusr_start_logging", 70, "Unable to open %s",
                         "csv logging file");
        zebusr_log_write(ZEBUSR_LOG_MED, "zebusr_netlink_msg_recv", 700,
                         "recv error - len_recv < 0");
        zebusr_log_write(ZEBUSR_LOG_LOW, "zebusr_try_to_move_flow", 7000,
                         "Sending sugg info to kernel");
        log_fp = fp;
        log_enabled = 1;
        EXPECT_EQ(log.messages(), c.written) << int(c.enabled) << int(c.verbose) << c.stream;
    }
    const std::string text = log.text();
    EXPECT_TRUE(std::regex_match(
        text.substr(0, text.find('\n')),
        std::regex(R"( \d\d:\d\d:\d\d\.\d{6} {37}main\(\):  7 \(HIGH\): Exiting main)")))
        << text;
}

// SIGUSR1 turns verbose logging and a fresh capture on (a second one starts
// the file over and leaves the first stream open); SIGUSR2 turns both off and
// closes the stream, as often as it comes.
TEST_F(Lifecycle, LoggingSignalsSwitchVerboseAndTheCapture) {
    const size_t fds = zt::open_fds();
    zebusr_start_logging(SIGUSR1);
    EXPECT_EQ(verbose_log_enabled, 1);
    EXPECT_EQ(csv_log_enabled, 1);
    fprintf(csv_fp.load(), "a row\n");
    zebusr_start_logging(SIGUSR1);
    EXPECT_EQ(read(kCsv), "time,seq_num,CPU0,CPU1,CPU2,CPU3,CPU4,CPU5,CPU6,CPU7\n");
    EXPECT_EQ(zt::open_fds(), fds + 2);
    zebusr_stop_logging(SIGUSR2);
    zebusr_stop_logging(SIGUSR2);
    EXPECT_EQ(zt::open_fds(), fds + 1);
    EXPECT_EQ(verbose_log_enabled, 0);
    EXPECT_EQ(csv_log_enabled, 0);
    // A capture that cannot open leaves verbose logging on.
    std::string dir = zt::sandbox() + "/data/vendor/zebusr";
    ASSERT_EQ(rename(dir.c_str(), (dir + ".away").c_str()), 0);
    zebusr_start_logging(SIGUSR1);
    ASSERT_EQ(rename((dir + ".away").c_str(), dir.c_str()), 0);
    EXPECT_EQ(verbose_log_enabled, 1);
    EXPECT_EQ(csv_log_enabled, 0);
    EXPECT_EQ(log.messages(), R"(Starting verbose logging
CSV File opened
Starting verbose logging
CSV File opened
Stopping verbose logging
Stopping verbose logging
Starting verbose logging
Unable to open csv logging file
)");
}

// Runs after zebusr_cleanup (handlers run in reverse): which descriptors the
// clean-up closed.
int watched[5];
void report_closed() {
    for (int fd : watched) fprintf(stderr, "%s", fcntl(fd, F_GETFD) == -1 ? "closed " : "open ");
}

// The exit path closes the three table files, then the steering socket
// (descriptor 0 when it never opened), then the log.
TEST_F(Lifecycle, SignalHandlerExitsZeroThroughTheCleanup) {
    if (fcntl(0, F_GETFD) == -1)
        ASSERT_EQ(open("/dev/null", O_RDONLY), 0);
    for (int i = 0; i < 3; i++) watched[i] = dup(2);
    cap_fd = watched[0], gflow_fd = watched[1], ssflow_fd = watched[2];
    watched[3] = sk_fd = 0;
    watched[4] = fileno(log_fp);
    EXPECT_EXIT((atexit(report_closed), atexit(zebusr_cleanup), zebusr_sig_handler(SIGTERM)),
                ::testing::ExitedWithCode(0), "^closed closed closed closed closed $");
    for (int i = 0; i < 3; i++) close(watched[i]);
    EXPECT_EQ(log.messages(),
              "Signal Handler Invoked!\nAttempting to clean up\nclosing cap file\n"
              "closing gflow file\nclosing ssflow file\nCleanup Complete\n");
}

// Without a log the daemon runs on: the reason on standard error, no line.
void run_without_log(const std::string &dir) {
    log_fp = nullptr;
    rename(dir.c_str(), (dir + ".away").c_str());
    std::thread([] {
        struct sigaction now = {};
        do {
            usleep(10000);
            sigaction(SIGTERM, nullptr, &now);
        } while (now.sa_handler == SIG_DFL);  // not before main installs its handler
        raise(SIGTERM);
    }).detach();
    char name[] = "zebusrd";
    char *argv[] = {name, nullptr};
    zebusr_run(1, argv);
}

TEST_F(Lifecycle, UnopenableLogLeavesLoggingOff) {
    std::string dir = zt::sandbox() + "/data/vendor/zebusr";
    EXPECT_EXIT(run_without_log(dir), ::testing::ExitedWithCode(0),
                "failed: No such file or directory");
    ASSERT_EQ(rename((dir + ".away").c_str(), dir.c_str()), 0);
    EXPECT_EQ(log.messages(), "");
}

}  // namespace
