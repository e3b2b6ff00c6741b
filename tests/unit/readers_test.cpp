// The capacity and gold flow readers: verbose-only logging, check and CSV
// row, which policies run after them, and where their walks stop.
#include "steering/readers.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <regex>
#include <string>

#include "core/log.h"
#include "netlink/genl_family.h"
#include "steering/tables.h"
#include "steering_tables.h"
#include "test_support.h"

namespace {

using zt::Cap;
using zt::Flow;
using zt::Sugg;

constexpr uint64_t I = 500000;  // an idle CPU

class Readers : public ::testing::Test {
   protected:
    void SetUp() override {
        page_size = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
        zeb_family_id = zt::kZebFamily;
        csv_fp = csv_;
        csv_log_enabled = 1;
    }
    void TearDown() override {
        csv_log_enabled = 0;
        csv_fp = nullptr;
        fclose(csv_);
        free(csv_buf_);
        cap_list = nullptr;
        gflow_list = nullptr;
        for (int fd : fds_) close(fd);
    }
    // A one-page file standing in for a procfs table.
    int table_file(const zt::Bytes &contents) {
        int fd = memfd_create("zebusr-table", 0);
        EXPECT_EQ(ftruncate(fd, static_cast<off_t>(page_size)), 0);
        EXPECT_EQ(pwrite(fd, contents.data(), contents.size(), 0), ssize_t(contents.size()));
        fds_.push_back(fd);
        return fd;
    }
    std::string csv_text() { return fflush(csv_) == 0 ? std::string(csv_buf_, csv_len_) : "?"; }
    char *csv_buf_ = nullptr;
    size_t csv_len_ = 0;
    FILE *csv_ = open_memstream(&csv_buf_, &csv_len_);
    std::vector<int> fds_;
    zt::FakeKernel kernel{&sk_fd};
};

TEST_F(Readers, VerboseCapacitiesAreLoggedInTableOrderAndCapturedByCpu) {
    zt::LogCapture log(true);
    // CPU 3 twice (the later entry wins), CPU 2 never: its column reads 0.
    std::vector<Cap> caps;
    for (uint16_t i = 0; i < 8; i++)
        caps.push_back({std::array<uint16_t, 8>{3, 1, 3, 4, 5, 6, 7, 0}[i], 100011u + 11 * i,
                        2u * i + 1, 2u * i + 2});
    cap_fd = table_file(zt::cap_table(caps));
    seq_num = 77;

    EXPECT_EQ(zebusr_read_capacities(), -1);
    EXPECT_TRUE(kernel.requests().empty());
    std::vector<std::string> lines = zt::log_lines(log);
    ASSERT_EQ(lines.size(), 11u);
    EXPECT_EQ(lines[0], "LOW ################## CAP FILE CONTENTS #################");
    EXPECT_EQ(lines[1],
              "LOW   ZEB_CAPS: > cpu[3] with pps capacity = 100011 | avg pps cap = 1 bps = 2");
    EXPECT_EQ(lines[8],
              "LOW   ZEB_CAPS: > cpu[0] with pps capacity = 100088 | avg pps cap = 15 bps = 16");
    EXPECT_EQ(lines[10], "MED   No Flows Move up to gold");
    EXPECT_TRUE(std::regex_match(
        csv_text(),
        std::regex(R"(\d\d:\d\d:\d\d\.\d{6},77,100088,100022,0,100033,100044,100055,100066,100077
)"))) << csv_text();
}

// CPU 8 is checked only in verbose mode; then it stops the row and the policy.
TEST_F(Readers, CapacityCpuEightIsNoticedOnlyWhenVerbose) {
    cap_fd =
        table_file(zt::cap_table(zt::pps({I, 10, I, I, I, I, I, I}, {0, 1, 2, 3, 4, 5, 8, 7})));
    for (bool verbose : {false, true}) {
        zt::LogCapture log(verbose);
        if (!verbose)
            kernel.queue_code(0);
        EXPECT_EQ(zebusr_read_capacities(), verbose ? -1 : 0);
        EXPECT_EQ(zt::decode_suggestions(kernel.requests()),
                  (verbose ? std::vector<Sugg>{} : std::vector<Sugg>{{0, 1, 1, 4}}));
        EXPECT_EQ(log.messages("ERR").size(), verbose ? 1u : 0u);
        EXPECT_EQ(log.messages("LOW").size(), verbose ? 9u : 0u);  // the table only
        EXPECT_TRUE(log.messages("MED").empty());
    }
    EXPECT_EQ(csv_text(), "");
}

TEST_F(Readers, CapacityResultFollowsThePolicy) {
    zt::LogCapture log(true);
    cap_fd = table_file(zt::cap_table(zt::pps({10, I, I, I, I, I, I, I})));
    csv_log_enabled = 0;  // the row needs both switches

    kernel.queue_code(0);
    EXPECT_EQ(zebusr_read_capacities(), 0);
    EXPECT_EQ(log.messages("MED").back(), "dulox_zeb_wq_move_loaded_silver_cpu_to_gold done!");
    for (int i = 0; i < 4; i++) kernel.queue_code(5);
    EXPECT_EQ(zebusr_read_capacities(), -1);
    EXPECT_EQ(log.messages("MED").back(), "  No Flows Move up to gold");
    EXPECT_EQ(kernel.requests().size(), 5u);
    EXPECT_EQ(csv_text(), "");
}

TEST_F(Readers, CapacityMappingFailureEndsTheProcessWithStatusZero) {
    zt::LogCapture log(false);
    cap_fd = -1;

    EXPECT_EXIT(zebusr_read_capacities(), ::testing::ExitedWithCode(0), "");
    EXPECT_EQ(zt::log_lines(log), (std::vector<std::string>{"ERR mmap failure: Bad file descriptor",
                                                            "HIGH closing cap file"}));
}

// Silver CPU 0 takes flows up to 69999 avg pps; gold CPU 5 has room to balance.
class GoldFlowReader : public Readers {
   protected:
    void SetUp() override {
        Readers::SetUp();
        int fd = table_file(zt::cap_table(zt::avg({90000, 0, 0, 0, 0, 900000, 0, 0})));
        cap_list = static_cast<zebusr_cap_info *>(
            mmap(nullptr, page_size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    }
};

TEST_F(GoldFlowReader, EmptyListStillRunsBothPolicies) {
    zt::LogCapture log(true);
    gflow_fd = table_file(zt::flow_table({{0xa1, 4, 100}}, 0));

    EXPECT_EQ(zebusr_read_gold_flows(), 0);
    EXPECT_TRUE(kernel.requests().empty());
    EXPECT_EQ(zt::log_lines(log),
              (std::vector<std::string>{
                  "LOW ################## GOLD FLOW FILE CONTENTS #################",
                  "LOW   num gold flows = 0",
                  "LOW ################## GOLD TO SILVER #################",
                  "MED   num gold flows = 0",
                  "LOW ################## GOLD BALANCE #################",
                  "LOW   num gold flows = 0",
                  "MED No gold flows were moved",
              }));
}

// The walk's stops are logged verbose or not; once by it, once by each policy.
TEST_F(GoldFlowReader, WalkLogsEntriesUpToAZeroHash) {
    std::vector<Flow> flows;
    for (uint32_t i = 0; i < 10; i++)
        flows.push_back({i == 5 ? 0 : 0xf0 + i, static_cast<uint16_t>(4 + i % 4), 0, 1000 + i});
    gflow_fd = table_file(zt::flow_table(flows));
    for (bool verbose : {true, false}) {
        zt::LogCapture log(verbose);
        EXPECT_EQ(zebusr_read_gold_flows(), 0);
        std::vector<std::string> low = log.messages("LOW");
        EXPECT_EQ(log.count("Invalid hash, breaking"), 3u);
        ASSERT_EQ(low.size(), verbose ? 10u : 0u);
        if (!verbose)
            continue;
        EXPECT_EQ(low[2], "  ZEB_MMAP: > flow 0xf0 on cpu[4] with rx_pps = 1000 | avg pps = 0");
        EXPECT_EQ(low[6], "  ZEB_MMAP: > flow 0xf4 on cpu[4] with rx_pps = 1004 | avg pps = 0");
        EXPECT_EQ(low[7], "################## GOLD TO SILVER #################");
    }
}

TEST_F(GoldFlowReader, LongListIsWalkedTo128ThenStopsOnce) {
    zt::LogCapture log(true);
    std::vector<Flow> flows;
    for (uint32_t i = 0; i < 128; i++) flows.push_back({0x100 + i, 4, 0});
    gflow_fd = table_file(zt::flow_table(flows, 200));

    EXPECT_EQ(zebusr_read_gold_flows(), 0);
    std::vector<std::string> lines = zt::log_lines(log);
    size_t stop =
        std::find(lines.begin(), lines.end(), "ERR Max user flows reached") - lines.begin();
    ASSERT_EQ(stop, 2u + 128u);
    EXPECT_EQ(lines[stop - 1],
              "LOW   ZEB_MMAP: > flow 0x17f on cpu[4] with rx_pps = 0 | avg pps = 0");
    EXPECT_EQ(lines[stop + 1], "LOW ################## GOLD TO SILVER #################");
}

// Balancing runs only when nothing moved down.
TEST_F(GoldFlowReader, MoveDownGoesFirst) {
    zt::LogCapture log(true);
    gflow_fd = table_file(zt::flow_table({{0xa1, 4, 100}, {0xa2, 4, 100}}));

    kernel.queue_code(0);
    EXPECT_EQ(zebusr_read_gold_flows(), 0);
    EXPECT_EQ(log.messages("MED").back(), "dulox_zeb_wq_move_gold_flow_down_to_silver done!");
    for (int32_t code : {1, 1, 0}) kernel.queue_code(code);
    EXPECT_EQ(zebusr_read_gold_flows(), 0);
    EXPECT_EQ(log.messages("MED").back(), "dulox_zeb_wq_balance_gold_flows done!");
    EXPECT_EQ(
        zt::decode_suggestions(kernel.requests()),
        (std::vector<Sugg>{{0xa1, 2, 4, 0}, {0xa1, 2, 4, 0}, {0xa2, 2, 4, 0}, {0xa2, 3, 4, 5}}));
    EXPECT_EQ(log.count("################## GOLD BALANCE #################"), 1u);
}

}  // namespace
