// The steering connection, the table files and their mappings, the capacity
// and gold flow readers, and the evaluation loop, seen as one ordered list of
// events: sockets, requests sent, table opens and closes, mappings, pauses.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <functional>
#include <regex>
#include <string>

#include "core/log.h"
#include "netlink/genl_family.h"
#include "steering/eval_loop.h"
#include "steering/readers.h"
#include "steering/tables.h"
#include "steering_tables.h"
#include "test_support.h"

using zt::Bytes;
using zt::Lines;

namespace {

using zt::Flow;

std::string last_line(const std::string &text) {
    return text.substr(text.rfind('\n', text.size() - 2) + 1);
}
constexpr uint64_t I = 500000;  // an idle CPU

class Steering : public ::testing::Test {
   protected:
    void SetUp() override {
        page_size = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
        zeb_family_id = zt::kZebFamily;
        cap_fd = gflow_fd = ssflow_fd = -100;
        zt::fake_netlink = kernel.daemon_fd();
        zt::clear_faults();
        zt::events();
    }
    void TearDown() override {
        zt::fake_netlink = -1;
        cap_list = nullptr;
        gflow_list = nullptr;
        ssflow_list = nullptr;
    }
    // Opens the three table files with these contents.
    void tables(const Bytes &caps, const Bytes &flows, const Bytes &ss = Bytes(2, 0)) {
        zt::write_table("dulox_zeb_caps", caps);
        zt::write_table("dulox_zeb_flows", flows);
        zt::write_table("dulox_zeb_ss_flows", ss);
        zebusr_init_cap_file();
        zebusr_init_gflow_file();
        zebusr_init_ssflow_file();
        log.clear();
        zt::events();
    }
    zt::LogCapture log{true};
    zt::FakeKernel kernel{&sk_fd};
};

struct Table {
    const char *word;
    void (*set_mapping)(void *);
};
const Table kTables[] = {
    {"cap", [](void *p) { cap_list = static_cast<zebusr_cap_info *>(p); }},
    {"gflow", [](void *p) { gflow_list = static_cast<zebusr_flow_table *>(p); }},
    {"ssflow", [](void *p) { ssflow_list = static_cast<zebusr_flow_table *>(p); }},
};

// In the order caps, gold flows, slow-start flows; a failure ends the process
// at once with status 0, the rest left mapped and the file left open.
TEST_F(Steering, UnmapFailureExitsWithStatusZero) {
    for (const Table &t : kTables) {
        SCOPED_TRACE(t.word);
        for (const Table &m : kTables)
            m.set_mapping(mmap(nullptr, page_size, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        EXPECT_EXIT(
            {
                zt::fail({"munmap", std::string(t.word) + "s", EINVAL});
                zebusr_munmap_all();
            },
            ::testing::ExitedWithCode(0), "");
        Lines want = {"munmap caps", "munmap gflows", "munmap ssflows"};
        want.resize(&t - kTables + 1);
        EXPECT_EQ(zt::events(), want);
        EXPECT_EQ(log.messages(), "munmap " + std::string(t.word) + " file: Invalid argument\n");
        log.clear();
    }
    EXPECT_EQ(zebusr_munmap_all(), 0);
    EXPECT_EQ(zt::events(), (Lines{"munmap caps", "munmap gflows", "munmap ssflows"}));
}

// Logged in table order, captured by CPU number: CPU 3 twice (the later
// entry wins), CPU 2 never (its column reads 0).
TEST_F(Steering, CapacitiesAreLoggedInTableOrderAndCapturedByCpu) {
    std::vector<zt::Cap> caps;
    const uint16_t cpus[8] = {3, 1, 3, 4, 5, 6, 7, 0};
    for (uint16_t i = 0; i < 8; i++)
        caps.push_back({cpus[i], 100011u + 11 * i, 2u * i + 1, 2u * i + 2});
    tables(zt::cap_table(caps), zt::flow_table({}));
    zebusr_start_logging(SIGUSR1);
    seq_num = 77;

    EXPECT_EQ(zebusr_read_capacities(), -1);
    EXPECT_EQ(zt::events(), Lines{"mmap caps"});
    EXPECT_EQ(log.messages("zebusr_read_capacities"),
              R"(################## CAP FILE CONTENTS #################
  ZEB_CAPS: > cpu[3] with pps capacity = 100011 | avg pps cap = 1 bps = 2
  ZEB_CAPS: > cpu[1] with pps capacity = 100022 | avg pps cap = 3 bps = 4
  ZEB_CAPS: > cpu[3] with pps capacity = 100033 | avg pps cap = 5 bps = 6
  ZEB_CAPS: > cpu[4] with pps capacity = 100044 | avg pps cap = 7 bps = 8
  ZEB_CAPS: > cpu[5] with pps capacity = 100055 | avg pps cap = 9 bps = 10
  ZEB_CAPS: > cpu[6] with pps capacity = 100066 | avg pps cap = 11 bps = 12
  ZEB_CAPS: > cpu[7] with pps capacity = 100077 | avg pps cap = 13 bps = 14
  ZEB_CAPS: > cpu[0] with pps capacity = 100088 | avg pps cap = 15 bps = 16
  No Flows Move up to gold
)");
    std::ifstream csv(zt::sandbox() + "/data/vendor/zebusr/zebusr_caps.csv");
    std::string header, row, more;
    std::getline(csv, header);
    std::getline(csv, row);
    EXPECT_EQ(header, "time,seq_num,CPU0,CPU1,CPU2,CPU3,CPU4,CPU5,CPU6,CPU7");
    EXPECT_TRUE(std::regex_match(
        row, std::regex(
                 R"(\d\d:\d\d:\d\d\.\d{6},77,100088,100022,0,100033,100044,100055,100066,100077)")))
        << row;
    EXPECT_FALSE(std::getline(csv, more));
    zebusr_stop_logging(SIGUSR2);  // only now: the row is on file while the stream is open
}

// The result follows the policy. CPU 8 is checked only in verbose mode:
// there it ends the call before the policy and the CSV row; quiet, it
// reaches the policy, which reads `cpu` itself.
TEST_F(Steering, CapacityResultAndTheVerboseOnlyCpuCheck) {
    tables(zt::cap_table(zt::pps({I, 10, I, I, I, I, 1, I}, {0, 1, 2, 3, 4, 5, 8, 7})),
           zt::flow_table({}));
    csv_log_enabled = 1;
    EXPECT_EQ(zebusr_read_capacities(), -1);
    EXPECT_EQ(last_line(log.messages()), "invalid cpu number, check contents of shared memory\n");
    for (int32_t code : {0, 5, -1, -2, 1}) kernel.queue_code(code);
    verbose_log_enabled = 0;
    EXPECT_EQ(zebusr_read_capacities(), 0);
    verbose_log_enabled = 1;
    zt::write_table("dulox_zeb_caps", zt::cap_table(zt::pps({I, 10, I, I, I, I, I, I})));
    EXPECT_EQ(zebusr_read_capacities(), -1);
    csv_log_enabled = 0;
    EXPECT_EQ(zt::events(),
              (Lines{"mmap caps", "mmap caps", "send sugg 1 1>4", "mmap caps", "send sugg 1 1>4",
                     "send sugg 1 1>5", "send sugg 1 1>6", "send sugg 1 1>7"}));
    EXPECT_EQ(last_line(log.messages()), "  No Flows Move up to gold\n");
    EXPECT_EQ(zt::count(log.messages(), "dulox_zeb_wq_move_loaded_silver_cpu_to_gold done!"), 0u);
}

// Balancing runs only when nothing moved down: silver CPU 0 has room for
// 70000, gold CPU 5 for a balance.
TEST_F(Steering, GoldFlowsMoveDownBeforeTheyBalance) {
    tables(zt::cap_table(zt::avg({90000, 0, 0, 0, 0, 900000, 0, 0})),
           zt::flow_table({{0xa1, 4, 100}, {0xa2, 4, 100}}));
    cap_list = static_cast<zebusr_cap_info *>(zebusr_table_mmap(cap_fd));
    for (int32_t code : {0, 1, 1, 0}) kernel.queue_code(code);
    EXPECT_EQ(zebusr_read_gold_flows(), 0);
    EXPECT_EQ(zebusr_read_gold_flows(), 0);
    EXPECT_EQ(zt::events(), (Lines{"mmap caps", "mmap gflows", "send sugg 2 4>0", "mmap gflows",
                                   "send sugg 2 4>0", "send sugg 2 4>0", "send sugg 3 4>5"}));
    const std::string walk = log.messages("zebusr_read_gold_flows");
    EXPECT_EQ(walk.substr(walk.find("  ZEB_MMAP")),
              "  ZEB_MMAP: > flow 0xa1 on cpu[4] with rx_pps = 0 | avg pps = 100\n"
              "  ZEB_MMAP: > flow 0xa2 on cpu[4] with rx_pps = 0 | avg pps = 100\n"
              "dulox_zeb_wq_move_gold_flow_down_to_silver done!\n"
              "################## GOLD FLOW FILE CONTENTS #################\n"
              "  num gold flows = 2\n"
              "  ZEB_MMAP: > flow 0xa1 on cpu[4] with rx_pps = 0 | avg pps = 100\n"
              "  ZEB_MMAP: > flow 0xa2 on cpu[4] with rx_pps = 0 | avg pps = 100\n"
              "dulox_zeb_wq_balance_gold_flows done!\n");
}

// No retry: the reader logs, closes its file and ends the process with 0.
TEST_F(Steering, ReaderMappingFailureExitsWithStatusZero) {
    tables(zt::cap_table({}), zt::flow_table({}));
    verbose_log_enabled = 0;
    EXPECT_EXIT((zt::fail({"mmap", "", ENODEV}), zebusr_read_capacities()),
                ::testing::ExitedWithCode(0), "");
    EXPECT_EXIT((zt::fail({"mmap", "", ENODEV}), zebusr_read_gold_flows()),
                ::testing::ExitedWithCode(0), "");
    EXPECT_EQ(zt::events(), (Lines{"mmap caps", "close caps", "mmap gflows", "close gflows"}));
    EXPECT_EQ(log.messages(),
              "mmap failure: No such device\nclosing cap file\n"
              "mmap: No such device\nclosing gflow file\n");
}

// A table file may be descriptor 0 (a daemon may start with no stdin); a sync
// that cannot be sent is exactly -1, the value that makes the loop reconnect.
TEST_F(Steering, TableOnDescriptorZeroAndASyncThatCannotBeSent) {
    int stdin_copy = dup(0);
    close(0);
    zt::write_table("dulox_zeb_caps", {});
    EXPECT_EQ(zebusr_init_cap_file(), 0);
    EXPECT_EQ(cap_fd, 0);
    EXPECT_EQ(zebusr_deinit_cap_file(), 0);
    EXPECT_EQ(fcntl(0, F_GETFD), -1);
    dup2(stdin_copy, 0);
    close(stdin_copy);
    sk_fd = -1;
    EXPECT_EQ(zebusr_sync(), -1);
    EXPECT_EQ(log.messages("zebusr_sync|zebusr_(de)?init_cap_file"),
              "open pathname = /proc/zeb/dulox_zeb_caps\ncap_fd = 0 page size = " +
                  std::to_string(page_size) + "\nclosing cap file\nnetlink failed to send to fd\n");
}

// Every way a connection attempt fails, each undone as far as it got; then a
// cycle whose move up is accepted (no gold flows read), one that reads the
// gold flows, and one whose sync is answered -1, which reconnects on a fresh
// socket and fresh files; the next cycle's first mapping ends the process.
TEST_F(Steering, EvaluationLoopConnectsCyclesAndReconnects) {
    zt::write_table("dulox_zeb_caps", zt::cap_table(zt::pps({I, I, 10, I, I, I, I, I})));
    zt::write_table("dulox_zeb_flows", zt::flow_table({}));
    zt::write_table("dulox_zeb_ss_flows", zt::flow_table({}));
    Bytes error = zt::int_reply(0, 0);
    zt::put_u16(error, 4, 2);
    kernel.queue(error);
    for (int32_t code : {-1, 0, 0, 0, 0}) {
        kernel.queue(zt::family_reply(0, "DULOX_ZEB", zt::kZebFamily));
        kernel.queue_code(code);
    }
    for (int32_t code : {0, 0, 7, 1, 1, 1, 1, -1}) kernel.queue_code(code);
    kernel.queue(zt::family_reply(0, "DULOX_ZEB", zt::kZebFamily));
    kernel.queue_code(0);
    kernel.queue_code(0);

    EXPECT_EXIT(
        {
            close(0);  // the first socket made is descriptor 0, as good as any
            zt::fail({"socket", "", EMFILE});
            for (const char *file : {"caps", "zeb_flows", "ss_flows"})
                zt::fail({"open", file, ENOENT});
            zt::fail({"mmap", "", ENODEV, 5});
            zebusr_evaluate(nullptr);
        },
        ::testing::ExitedWithCode(0), "");
    const Lines attempt = {"socket", "send lookup", "send sync"};
    Lines want = {"sleep 3", "socket", "send lookup", "close socket", "sleep 3"};
    const Lines opened = {"open caps", "open gflows", "open ssflows"};
    for (Lines undo :
         {Lines{"close socket"},
          {"close socket", "sleep 3"},
          {"open caps", "close caps", "close socket", "sleep 3"},
          {"open caps", "open gflows", "close caps", "close gflows", "close socket", "sleep 3"},
          opened}) {
        want.insert(want.end(), attempt.begin(), attempt.end());
        want.insert(want.end(), undo.begin(), undo.end());
    }
    want.insert(want.end(),
                {"send sync",       "mmap ssflows",    "mmap caps",       "send sugg 1 2>4",
                 "munmap caps",     "munmap ssflows",  "send sync",       "mmap ssflows",
                 "mmap caps",       "send sugg 1 2>4", "send sugg 1 2>5", "send sugg 1 2>6",
                 "send sugg 1 2>7", "mmap gflows",     "munmap caps",     "munmap gflows",
                 "munmap ssflows",  "send sync",       "socket",          "send lookup",
                 "send sync",       "open caps",       "open gflows",     "open ssflows",
                 "send sync",       "mmap ssflows",    "close ssflows"});
    EXPECT_EQ(zt::events(), want);
    // Attempt k logs the steps before the one that fails it.
    const Lines steps = {"zebusr_genl_open_sock complete: sk_fd = N",
                         "zebusr_genl_init_sock complete for ZEBUSR_GENL_FAMILY_ZEB",
                         "zebusr_init_cap_file complete", "zebusr_init_gflow_file complete",
                         "zebusr_init_ssflow_file complete"};
    const Lines fails = {"zebusr_genl_open_sock failed", "zebusr_genl_init_sock failed",
                         "zebusr_sync failed",           "init cap file failed",
                         "init gflow file failed",       "init ssflow file failed"};
    const std::string connected = steps[0] + "\n" + steps[1] + "\n" + steps[2] + "\n" + steps[3] +
                                  "\n" + steps[4] + "\nCONNECTED to dulox_zeb.ko\n";
    std::string text = "ZEB Evaluation Thread Started\n";
    for (size_t k = 0; k < fails.size(); k++) {
        for (size_t i = 0; i < (k < 2 ? k : k - 1); i++) text += steps[i] + "\n";
        text += fails[k] + "\nzebusr_connect_to_dulox_zeb failed on attempt " + std::to_string(k) +
                "\n";
    }
    text += connected +
            "zebusr_connect_to_dulox_zeb COMPLETE on attempt 6\n"
            "sync failed, attempting to reconnect\n" +
            connected + "zebusr_connect_to_dulox_zeb COMPLETE on attempt 0\n";
    const std::string files = log.messages("zebusr_(de)?init_.*");
    EXPECT_EQ(zt::count(files, "open: No such file or directory\n"), 3u);
    EXPECT_EQ(zt::count(files, "closing cap file\n"), 2u);
    EXPECT_EQ(zt::count(files, "closing gflow file\n"), 1u);
    EXPECT_EQ(zt::count(files, "page size = " + std::to_string(page_size) + "\n"), 9u);
    EXPECT_EQ(std::regex_replace(log.messages("zebusr_connect.*|zebusr_evaluate"),
                                 std::regex("sk_fd = \\d+"), "sk_fd = N"),
              text);
}

}  // namespace
