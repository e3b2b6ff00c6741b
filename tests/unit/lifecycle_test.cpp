// The log line and its gates, the two logging signals with the CSV capture,
// and the ways out: the signal handler, the clean-up, a log that cannot open.
#include "core/lifecycle.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <climits>
#include <fstream>
#include <sstream>
#include <thread>

#include "core/log.h"
#include "netlink/genl_family.h"
#include "netlink/nl_msg.h"
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
    EXPECT_EQ(seq_num.load(), 0u);  // the first request of a run carries 0
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
}

// The clock the log reads, when a test sets it.
struct timeval fake_now = {-1, 0};
extern "C" int gettimeofday(struct timeval *tv, void *) {
    if (fake_now.tv_sec < 0)
        return static_cast<int>(syscall(SYS_gettimeofday, tv, nullptr));
    *tv = fake_now;
    return 0;
}

// Every line is "%16s %40s():%3u (%s): " with a "%T.%06lu" stamp, then the
// message and a newline: whatever the second, the microseconds, the length of
// the name, of the line number or of the message.
TEST_F(Lifecycle, LinesKeepTheirColumnsAtEveryLength) {
    setenv("TZ", "UTC", 1);
    tzset();
    // 934 characters of path fill the 1024-byte line exactly; longer lines and
    // names are written in parts, to the same bytes.
    const std::string path(1500, 'p'), name(1000, 'f');
    const struct {
        time_t sec;
        long usec;
        const char *func, *stamp;
        unsigned line;
        std::string path;
    } cases[] = {
        {3600 + 1000, 7, "zebusr_init_cap_file", "01:16:40.000007", 7, "/a"},
        {3600 + 1000, 999999, "zebusr_init_cap_file", "01:16:40.999999", 42, path.substr(0, 934)},
        {3600 + 1001, 0, "zebusr_init_cap_file", "01:16:41.000000", 100, path.substr(0, 935)},
        {3600 + 1001, 0, "zebusr_init_cap_file", "01:16:41.000000", 1000, "/b"},
        {59, 5, "zebusr_genl_recv_pid_byte_info_from_kernel", "00:00:59.000005", 12345, path},
        {59, 5, name.c_str(), "00:00:59.000005", 1, "/c"},
    };
    // Arbitrary paths under any name: not the daemon's lines, so not its log.
    FILE *own = tmpfile(), *kept = log_fp.exchange(own);
    std::string want;
    for (const auto &c : cases) {
        fake_now = {c.sec, c.usec};
        zebusr_log_write(ZEBUSR_LOG_HIGH, c.func, c.line, "open pathname = %s", c.path.c_str());
        char prefix[1100];
        snprintf(prefix, sizeof prefix, "%16s %40s():%3u (HIGH): ", c.stamp, c.func, c.line);
        want += prefix + ("open pathname = " + c.path) + "\n";
    }
    fake_now = {-1, 0};
    log_fp = kept;
    std::string got(want.size() + 1, '\0');
    rewind(own);
    got.resize(fread(got.data(), 1, got.size(), own));
    zt::close_own_stream(own);
    EXPECT_EQ(got, want);
}

// Numbers and texts come out as printf writes them, at their extremes.
TEST_F(Lifecycle, MessagesReadAsPrintfWritesThem) {
    verbose_log_enabled = 1;
    std::string want;
    auto both = [&](zebusr_log_level level, const char *func, const char *fmt, auto... args) {
        zebusr_log_write(level, func, 1, fmt, args...);
        char text[256];
        snprintf(text, sizeof text, fmt, args...);
        want += std::string(text) + "\n";
    };
    const char *ret = "  kernel seq_num %d return code: %d";
    both(ZEBUSR_LOG_LOW, "zebusr_genl_recv_int_from_kernel", ret, INT_MIN, -1);
    both(ZEBUSR_LOG_LOW, "zebusr_genl_recv_int_from_kernel", ret, INT_MAX, 0);
    both(ZEBUSR_LOG_MED, "zebusr_genl_init_sock", "DULOX Family id = %u", UINT_MAX);
    both(ZEBUSR_LOG_LOW, "zebusr_read_ss_flows", "Flow w/ hash 0x%x is stable", 0xfedcba98u);
    both(ZEBUSR_LOG_LOW, "zebusr_read_ss_flows", "Flow w/ hash 0x%x is stable", 0u);
    both(ZEBUSR_LOG_LOW, "zebusr_read_capacities",
         "  ZEB_CAPS: > cpu[%d] with pps capacity = %lu | avg pps cap = %lu bps = %lu", -7,
         ULONG_MAX, 0UL, 1234567890123UL);
    both(ZEBUSR_LOG_ERR, "zebusr_read_ss_flows", "mmap: %s", "");
    EXPECT_EQ(log.messages(), want);
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

// A worker's lines wait for the streams' lock, then take turns with
// SIGUSR1/SIGUSR2 and the clean-up on the main thread: lines stay whole,
// none follows the clean-up, and ASan sees any use of a closed stream.
TEST_F(Lifecycle, StreamsCloseOnlyBetweenLines) {
    std::atomic<bool> done{false};
    sigset_t saved;
    zebusr_streams_lock(&saved);
    std::thread worker([&] {
        while (!done)
            zebusr_log_write(ZEBUSR_LOG_HIGH, "zebusr_sig_handler", 1, "Signal Handler Invoked!");
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(log.text(), "");  // the worker waits for the lock
    zebusr_streams_unlock(&saved);
    for (int i = 0; i < 200; i++) {
        zebusr_start_logging(SIGUSR1);
        zebusr_stop_logging(SIGUSR2);
    }
    cap_fd = gflow_fd = ssflow_fd = sk_fd = -1;
    zebusr_cleanup();
    const std::string closed = log.text();
    done = true;
    worker.join();
    EXPECT_EQ(log.text(), closed);
    EXPECT_EQ(zt::count(closed, "Cleanup Complete"), 1u);
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
    zt::real_sleeps = true;  // the workers retry quietly until the signal
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
