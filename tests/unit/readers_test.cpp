// The capacity and gold flow readers: mapping, verbose-only logging, the
// CSV row, the order of the policies and the exits on a failed mapping.
#include "steering/readers.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <regex>
#include <string>

#include "core/log.h"
#include "netlink/genl_family.h"
#include "netlink/nl_msg.h"
#include "steering/tables.h"
#include "steering_tables.h"
#include "test_support.h"

namespace {

using zt::Cap;
using zt::Flow;
using zt::Sugg;

// A one-page file standing in for a procfs table.
int table_file(const zt::Bytes &contents) {
    int fd = memfd_create("zebusr-table", 0);
    if (fd < 0 || ftruncate(fd, static_cast<off_t>(page_size)) != 0 ||
        pwrite(fd, contents.data(), contents.size(), 0) != static_cast<ssize_t>(contents.size()))
        return -1;
    return fd;
}

std::vector<Cap> idle_caps() {
    std::vector<Cap> caps;
    for (uint16_t i = 0; i < 8; i++) caps.push_back({i, 500000, 500000});
    return caps;
}

std::vector<std::string> lines_of(const zt::LogCapture &log) {
    std::vector<std::string> out;
    for (const auto &l : log.lines()) out.push_back(l.level + " " + l.message);
    return out;
}

class Readers : public ::testing::Test {
   protected:
    void SetUp() override {
        page_size = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
        zeb_family_id = zt::kZebFamily;
        csv_ = tmpfile();
        csv_fp = csv_;
        csv_log_enabled = 1;
    }
    void TearDown() override {
        csv_log_enabled = 0;
        csv_fp = nullptr;
        fclose(csv_);
        unmap(cap_list);
        unmap(gflow_list);
        cap_list = nullptr;
        gflow_list = nullptr;
        for (int fd : fds_) close(fd);
    }
    static void unmap(void *p) {
        if (p && p != MAP_FAILED)
            munmap(p, page_size);
    }
    void caps_file(const std::vector<Cap> &caps) {
        cap_fd = table_file(zt::cap_table(caps));
        ASSERT_GE(cap_fd, 0);
        fds_.push_back(cap_fd);
    }
    void flows_file(const std::vector<Flow> &flows, int list_len = -1) {
        gflow_fd = table_file(zt::flow_table(flows, list_len));
        ASSERT_GE(gflow_fd, 0);
        fds_.push_back(gflow_fd);
    }
    std::string csv_text() {
        fflush(csv_);
        rewind(csv_);
        std::string s;
        for (int c; (c = fgetc(csv_)) != EOF;) s.push_back(static_cast<char>(c));
        return s;
    }
    FILE *csv_ = nullptr;
    std::vector<int> fds_;
};

TEST_F(Readers, VerboseCapacitiesAreLoggedInTableOrderAndCapturedByCpu) {
    zt::LogCapture log(true);
    zt::FakeKernel kernel(&sk_fd);
    // CPU 3 twice (the later entry wins), CPU 2 never: its column reads 0.
    caps_file({{3, 100011, 1, 2},
               {1, 100022, 3, 4},
               {3, 100033, 5, 6},
               {4, 100044, 7, 8},
               {5, 100055, 9, 10},
               {6, 100066, 11, 12},
               {7, 100077, 13, 14},
               {0, 100088, 15, 16}});
    seq_num = 77;

    EXPECT_EQ(zebusr_read_capacities(), -1);
    EXPECT_TRUE(kernel.requests().empty());
    std::vector<std::string> expected = {
        "LOW ################## CAP FILE CONTENTS #################",
        "LOW   ZEB_CAPS: > cpu[3] with pps capacity = 100011 | avg pps cap = 1 bps = 2",
        "LOW   ZEB_CAPS: > cpu[1] with pps capacity = 100022 | avg pps cap = 3 bps = 4",
        "LOW   ZEB_CAPS: > cpu[3] with pps capacity = 100033 | avg pps cap = 5 bps = 6",
        "LOW   ZEB_CAPS: > cpu[4] with pps capacity = 100044 | avg pps cap = 7 bps = 8",
        "LOW   ZEB_CAPS: > cpu[5] with pps capacity = 100055 | avg pps cap = 9 bps = 10",
        "LOW   ZEB_CAPS: > cpu[6] with pps capacity = 100066 | avg pps cap = 11 bps = 12",
        "LOW   ZEB_CAPS: > cpu[7] with pps capacity = 100077 | avg pps cap = 13 bps = 14",
        "LOW   ZEB_CAPS: > cpu[0] with pps capacity = 100088 | avg pps cap = 15 bps = 16",
        "LOW ################## SILVER TO GOLD ##################",
        "MED   No Flows Move up to gold",
    };
    EXPECT_EQ(lines_of(log), expected);
    std::regex row(
        R"(\d\d:\d\d:\d\d\.\d{6},77,100088,100022,0,100033,100044,100055,100066,100077
)");
    EXPECT_TRUE(std::regex_match(csv_text(), row)) << csv_text();
}

TEST_F(Readers, QuietCapacitiesSkipTheCheckAndTheRowAndRunThePolicy) {
    zt::LogCapture log(false);
    zt::FakeKernel kernel(&sk_fd);
    kernel.queue_code(0);
    std::vector<Cap> caps = idle_caps();
    caps[1].pps = 10;  // loaded silver CPU 1
    caps[6].cpu = 8;   // unnoticed here
    caps_file(caps);

    EXPECT_EQ(zebusr_read_capacities(), 0);
    EXPECT_EQ(zt::decode_suggestions(kernel.requests()), (std::vector<Sugg>{{0, 1, 1, 4}}));
    EXPECT_EQ(csv_text(), "");
    EXPECT_EQ(log.messages("LOW").size() + log.messages("MED").size(), 0u);
}

TEST_F(Readers, VerboseCpuEightStopsBeforeTheRowAndThePolicy) {
    zt::LogCapture log(true);
    zt::FakeKernel kernel(&sk_fd);
    std::vector<Cap> caps = idle_caps();
    caps[1].pps = 10;
    caps[6].cpu = 8;
    caps_file(caps);

    EXPECT_EQ(zebusr_read_capacities(), -1);
    EXPECT_TRUE(kernel.requests().empty());
    EXPECT_EQ(csv_text(), "");
    EXPECT_EQ(log.messages("ERR"),
              std::vector<std::string>{"invalid cpu number, check contents of shared memory"});
    EXPECT_FALSE(log.contains("  No Flows Move up to gold"));
}

TEST_F(Readers, CapacityResultFollowsThePolicy) {
    zt::LogCapture log(true);
    zt::FakeKernel kernel(&sk_fd);
    std::vector<Cap> caps = idle_caps();
    caps[0].pps = 10;
    caps_file(caps);
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
    EXPECT_EQ(lines_of(log), (std::vector<std::string>{"ERR mmap failure: Bad file descriptor",
                                                       "HIGH closing cap file"}));
}

class GoldFlowReader : public Readers {
   protected:
    void SetUp() override {
        Readers::SetUp();
        caps_ = zt::cap_table(silver_and_gold());
        cap_list = reinterpret_cast<zebusr_cap_info *>(caps_.data());
    }
    void TearDown() override {
        cap_list = nullptr;
        Readers::TearDown();
    }
    // Silver CPU 0 takes flows up to 69999 avg pps; gold CPU 5 has room to balance.
    static std::vector<Cap> silver_and_gold() {
        return {{0, 0, 90000}, {1, 0, 0},      {2, 0, 0}, {3, 0, 0},
                {4, 0, 0},     {5, 0, 900000}, {6, 0, 0}, {7, 0, 0}};
    }
    zt::Bytes caps_;
};

TEST_F(GoldFlowReader, EmptyListStillRunsBothPolicies) {
    zt::LogCapture log(true);
    zt::FakeKernel kernel(&sk_fd);
    flows_file({{0xa1, 4, 100}}, 0);

    EXPECT_EQ(zebusr_read_gold_flows(), 0);
    EXPECT_TRUE(kernel.requests().empty());
    std::vector<std::string> expected = {
        "LOW ################## GOLD FLOW FILE CONTENTS #################",
        "LOW   num gold flows = 0",
        "LOW ################## GOLD TO SILVER #################",
        "MED   num gold flows = 0",
        "LOW ################## GOLD BALANCE #################",
        "LOW   num gold flows = 0",
        "MED No gold flows were moved",
    };
    EXPECT_EQ(lines_of(log), expected);
}

TEST_F(GoldFlowReader, WalkLogsUpToTheZeroHash) {
    zt::LogCapture log(true);
    zt::FakeKernel kernel(&sk_fd);
    std::vector<Flow> flows;
    for (uint32_t i = 0; i < 10; i++)
        flows.push_back({i == 5 ? 0 : 0xf0 + i, static_cast<uint16_t>(4 + i % 4), 0, 1000 + i});
    flows_file(flows);

    EXPECT_EQ(zebusr_read_gold_flows(), 0);
    std::vector<std::string> lines = lines_of(log);
    std::vector<std::string> walk(lines.begin() + 2, lines.begin() + 8);
    std::vector<std::string> expected = {
        "LOW   ZEB_MMAP: > flow 0xf0 on cpu[4] with rx_pps = 1000 | avg pps = 0",
        "LOW   ZEB_MMAP: > flow 0xf1 on cpu[5] with rx_pps = 1001 | avg pps = 0",
        "LOW   ZEB_MMAP: > flow 0xf2 on cpu[6] with rx_pps = 1002 | avg pps = 0",
        "LOW   ZEB_MMAP: > flow 0xf3 on cpu[7] with rx_pps = 1003 | avg pps = 0",
        "LOW   ZEB_MMAP: > flow 0xf4 on cpu[4] with rx_pps = 1004 | avg pps = 0",
        "ERR Invalid hash, breaking",
    };
    EXPECT_EQ(walk, expected);
    EXPECT_EQ(lines[8], "LOW ################## GOLD TO SILVER #################");
}

TEST_F(GoldFlowReader, LongListIsWalkedTo128ThenStopsOnce) {
    zt::LogCapture log(true);
    zt::FakeKernel kernel(&sk_fd);
    std::vector<Flow> flows;
    for (uint32_t i = 0; i < 128; i++) flows.push_back({0x100 + i, 4, 0});
    flows_file(flows, 200);

    EXPECT_EQ(zebusr_read_gold_flows(), 0);
    std::vector<std::string> lines = lines_of(log);
    size_t limit =
        std::find(lines.begin(), lines.end(), "ERR Max user flows reached") - lines.begin();
    ASSERT_EQ(limit, 2u + 128u);
    EXPECT_EQ(lines[limit - 1],
              "LOW   ZEB_MMAP: > flow 0x17f on cpu[4] with rx_pps = 0 | avg pps = 0");
    EXPECT_EQ(lines[limit + 1], "LOW ################## GOLD TO SILVER #################");
}

TEST_F(GoldFlowReader, MoveDownTakesPrecedenceOverBalance) {
    zt::LogCapture log(true);
    zt::FakeKernel kernel(&sk_fd);
    kernel.queue_code(0);
    flows_file({{0xa1, 4, 100}, {0xa2, 4, 100}});

    EXPECT_EQ(zebusr_read_gold_flows(), 0);
    EXPECT_EQ(zt::decode_suggestions(kernel.requests()), (std::vector<Sugg>{{0xa1, 2, 4, 0}}));
    EXPECT_FALSE(log.contains("################## GOLD BALANCE #################"));
    EXPECT_EQ(log.messages("MED").back(), "dulox_zeb_wq_move_gold_flow_down_to_silver done!");
}

TEST_F(GoldFlowReader, BalanceRunsWhenNothingMovedDown) {
    zt::LogCapture log(true);
    zt::FakeKernel kernel(&sk_fd);
    for (int32_t code : {1, 1, 0}) kernel.queue_code(code);
    flows_file({{0xa1, 4, 100}, {0xa2, 4, 100}});

    EXPECT_EQ(zebusr_read_gold_flows(), 0);
    EXPECT_EQ(zt::decode_suggestions(kernel.requests()),
              (std::vector<Sugg>{{0xa1, 2, 4, 0}, {0xa2, 2, 4, 0}, {0xa2, 3, 4, 5}}));
    EXPECT_EQ(log.messages("MED").back(), "dulox_zeb_wq_balance_gold_flows done!");
}

TEST_F(GoldFlowReader, QuietModeKeepsOnlyTheErrors) {
    zt::LogCapture log(false);
    zt::FakeKernel kernel(&sk_fd);
    flows_file({{0xa1, 4, 0}, {0, 4, 0}});

    EXPECT_EQ(zebusr_read_gold_flows(), 0);
    // Once from the walk, once from each policy.
    EXPECT_EQ(lines_of(log), std::vector<std::string>(3, "ERR Invalid hash, breaking"));
}

TEST_F(GoldFlowReader, MappingFailureEndsTheProcessWithStatusZero) {
    zt::LogCapture log(false);
    gflow_fd = -1;

    EXPECT_EXIT(zebusr_read_gold_flows(), ::testing::ExitedWithCode(0), "");
    EXPECT_EQ(lines_of(log), (std::vector<std::string>{"ERR mmap: Bad file descriptor",
                                                       "HIGH closing gflow file"}));
}

}  // namespace
