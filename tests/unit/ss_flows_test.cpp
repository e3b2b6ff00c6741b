// Slow-start flows through cycles: the table lives in a real one-page file,
// a fake kernel answers the segmentation requests.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "core/log.h"
#include "genl_request.h"
#include "netlink/genl_family.h"
#include "netlink/nl_msg.h"
#include "segmentation/flow_history.h"
#include "segmentation/segmentation.h"
#include "steering/tables.h"
#include "test_support.h"

namespace {

using zt::Bytes;
using Hashes = std::vector<uint32_t>;
using Codes = std::vector<int32_t>;

constexpr uint16_t kZebId = 0x1d;
constexpr size_t kPage = 4096;
constexpr uint64_t kFast = 300000000;  // the lowest fast rate
constexpr uint64_t kSteady = 100000000;

struct Flow {
    uint32_t hash;
    uint64_t rx_bps;
};

// One cycle of a timeline: flows published, kernel answers queued, hashes asked for.
struct Cycle {
    std::vector<Flow> flows;
    Codes codes;
    Hashes asked;
};

class SsFlowsTest : public ::testing::Test {
   protected:
    void SetUp() override {
        zeb_family_id = kZebId;
        char path[] = "/tmp/zebusr-ssflows-XXXXXX";
        ASSERT_GE(fd_ = mkstemp(path), 0);
        unlink(path);
        ssflow_fd = fd_;
        page_size = kPage;
    }
    void TearDown() override {
        zebusr_ht_reset_for_test();
        close(fd_);
    }
    zt::LogCapture log{true};
    zt::FakeKernel kernel{&sk_fd};
    int fd_ = -1;

    // One read of the table as the evaluation loop runs it; `listed` overrides the count.
    Hashes cycle(const std::vector<Flow> &flows, const Codes &codes = {}, int listed = -1) {
        Bytes t(kPage, 0);
        zt::put_u16(t, 0, static_cast<uint16_t>(listed < 0 ? flows.size() : listed));
        for (size_t i = 0; i < flows.size(); i++) {  // rx_pps, avg_pps, rx_bps, hash, cpu
            zt::put_u64(t, 2 + 30 * i, flows[i].rx_bps / 12000);
            zt::put_u64(t, 2 + 30 * i + 8, flows[i].rx_bps / 12000);
            zt::put_u64(t, 2 + 30 * i + 16, flows[i].rx_bps);
            zt::put_u32(t, 2 + 30 * i + 24, flows[i].hash);
            zt::put_u16(t, 2 + 30 * i + 28, 2);
        }
        EXPECT_EQ(pwrite(fd_, t.data(), kPage, 0), static_cast<ssize_t>(kPage));
        for (int32_t c : codes) kernel.queue_code(c);
        EXPECT_EQ(zebusr_read_ss_flows(), 0);
        zebusr_munmap_ssflows();
        Hashes asked;
        for (const Bytes &r : kernel.requests()) {
            EXPECT_EQ(r.size(), 32u);
            EXPECT_EQ(r[16], 3) << "segmentation command";
            EXPECT_EQ(zt::get_u32(r, 28), 0u) << "only ever turned off";
            asked.push_back(zt::get_u32(r, 24));
        }
        return asked;
    }
    void play(const std::vector<Cycle> &cycles) {
        for (size_t i = 0; i < cycles.size(); i++)
            EXPECT_EQ(cycle(cycles[i].flows, cycles[i].codes), cycles[i].asked) << "cycle " << i;
    }
};

TEST_F(SsFlowsTest, SegmentationRequestHandsBackTheKernelsCode) {
    for (int32_t code : {0, 5, -1, -2}) {
        seq_num = 41;
        kernel.queue_code(code);
        EXPECT_EQ(zebusr_set_flow_segmentation(0xabcdef01, 0), code);
        Bytes want = zt::request_image(32, kZebId, 41, 3, 12, 4);
        zt::put_u32(want, 24, 0xabcdef01);
        EXPECT_EQ(kernel.requests(), std::vector<Bytes>{want});
    }
    EXPECT_TRUE(log.contains("Sent segmentation setting req with seq_num 41"));
    sk_fd = -1;
    verbose_log_enabled = 0;  // a local failure is logged regardless
    EXPECT_EQ(zebusr_set_flow_segmentation(0x10, 0), -1);
    EXPECT_TRUE(log.contains("netlink failed to send to fd"));
}

TEST_F(SsFlowsTest, FastFlowIsAskedFromItsSecondCycleUntilAcceptedAndAgainAfterRateZero) {
    const Flow fast = {0x1001, kFast}, slower = {0x22, kFast - 1};
    play({
        {{fast, slower}, {}, {}},  // first sight only records
        {{fast, slower}, {5}, {0x1001}},
        {{fast, slower}, {-1}, {0x1001}},
        {{fast, slower}, {-2}, {0x1001}},
        {{fast, slower}, {0}, {0x1001}},
        {{fast, slower}, {}, {}},
        {{{0x1001, kFast - 1}}, {}, {}},       // a dip is only announced
        {{{0x1001, 0}, {0x7007, 0}}, {}, {}},  // rate zero drops the history
        {{fast}, {}, {}},
        {{fast}, {0}, {0x1001}},
    });
    EXPECT_EQ(log.count("NOT DETECTING DIPS: Enabling segmentation for hash 0x1001"), 1u);
    EXPECT_TRUE(log.contains("zebusr_ht_remove_node: removing node for ht bkt 1: hash 0x1001"));
    EXPECT_EQ(zebusr_ht_find_node(0x7007), nullptr) << "a zero rate never creates";
}

TEST_F(SsFlowsTest, SteadyFlowIsJudgedOnEveryFullHistoryFromItsTenthSample) {
    std::vector<Cycle> cycles(9, Cycle{{{0x3003, kSteady}}, {}, {}});
    cycles.push_back({{{0x3003, kSteady}}, {0}, {0x3003}});
    cycles.push_back({{{0x3003, kSteady}}, {}, {}});  // stable: no dip
    cycles.push_back({{{0x3003, kSteady * 2}}, {}, {}});
    play(cycles);
    EXPECT_EQ(log.count("Flow w/ hash 0x3003 is stable"), 2u);
    EXPECT_EQ(log.count("Flow w/ hash 0x3003 is NOT stable"), 1u);
    EXPECT_EQ(log.count("NOT DETECTING DIPS: Enabling segmentation for hash 0x3003"), 1u);
}

// Nine samples at `prev`, then the tenth is judged against their average.
TEST_F(SsFlowsTest, StabilityBandIsAnInclusiveQuarterOfThePreviousAverage) {
    const struct {
        uint64_t prev, sample;
        bool stable;
    } cases[] = {{1000, 750, true}, {1000, 1250, true}, {1000, 749, false}, {1000, 1251, false},
                 {3, 3, true},      {3, 2, false},      {3, 4, false}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.sample);
        zebusr_ht_reset_for_test();
        for (int i = 0; i < 9; i++) cycle({{0x5005, c.prev}});
        EXPECT_EQ(cycle({{0x5005, c.sample}}, Codes(c.stable, 0)), Hashes(c.stable, 0x5005));
    }
}

TEST_F(SsFlowsTest, WalkReadsAtMost128EntriesAndLogsTheLimitOnce) {
    verbose_log_enabled = 0;  // the limit is an error, written without verbose
    std::vector<Flow> flows;
    for (uint32_t i = 0; i < 128; i++) flows.push_back({0x100 + i, 1000});
    flows.push_back({0xdead, 1000});  // still inside the page, never to be read
    EXPECT_EQ(cycle(flows, {}, 200), Hashes{});
    EXPECT_EQ(log.messages(), std::vector<std::string>{"Max user flows reached"});
    for (uint32_t i = 0; i < 128; i++) EXPECT_NE(zebusr_ht_find_node(0x100 + i), nullptr) << i;
    EXPECT_EQ(zebusr_ht_find_node(0xdead), nullptr);
}

TEST_F(SsFlowsTest, WalkGoesOnPastAZeroHashAndSamplesARepeatedHashTwice) {
    EXPECT_EQ(cycle({{0x11, 1000}, {0, kFast}, {0x12, 1000}, {0x12, 3000}}), Hashes{});
    EXPECT_EQ(log.messages("ERR"), std::vector<std::string>{"Invalid hash, breaking"});
    ASSERT_NE(zebusr_ht_find_node(0x12), nullptr);
    EXPECT_EQ(zebusr_ht_find_node(0x12)->avg, 2000u);
    EXPECT_EQ(zebusr_ht_find_node(0), nullptr);
}

}  // namespace
