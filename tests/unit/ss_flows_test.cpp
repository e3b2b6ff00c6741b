// Slow-start flows through several cycles: the table lives in a real
// one-page file, a fake kernel answers the segmentation requests.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "core/log.h"
#include "netlink/genl_family.h"
#include "netlink/nl_msg.h"
#include "segmentation/flow_history.h"
#include "segmentation/segmentation.h"
#include "steering/tables.h"
#include "test_support.h"

namespace {

using zt::Bytes;

constexpr uint16_t kZebId = 0x1d;
constexpr size_t kPage = 4096;
constexpr uint64_t kFast = 400000000;
constexpr uint64_t kSteady = 100000000;

struct Flow {
    uint32_t hash;
    uint64_t rx_bps;
};

// Entry i at 2 + 30 * i: rx_pps, avg_pps, rx_bps, hash, cpu.
void put_flow(Bytes &t, size_t i, const Flow &f) {
    size_t off = 2 + 30 * i;
    zt::put_u64(t, off + 0, f.rx_bps / 12000);
    zt::put_u64(t, off + 8, f.rx_bps / 12000);
    zt::put_u64(t, off + 16, f.rx_bps);
    zt::put_u32(t, off + 24, f.hash);
    zt::put_u16(t, off + 28, 2);
}

class SsFlowsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        zebusr_ht_reset_for_test();
        seq_num = 0;
        zeb_family_id = kZebId;
        char path[] = "/tmp/zebusr-ssflows-XXXXXX";
        fd_ = mkstemp(path);
        ASSERT_GE(fd_, 0);
        unlink(path);
        ASSERT_EQ(ftruncate(fd_, kPage), 0);
        ssflow_fd = fd_;
        page_size = kPage;
    }
    void TearDown() override {
        zebusr_ht_reset_for_test();
        close(fd_);
    }

    zt::LogCapture log{true};
    zt::FakeKernel kernel{&sk_fd};

    void publish(const Bytes &table) {
        Bytes page = table;
        page.resize(kPage);
        ASSERT_EQ(pwrite(fd_, page.data(), page.size(), 0), static_cast<ssize_t>(kPage));
    }

    void publish(const std::vector<Flow> &flows) {
        Bytes t;
        zt::put_u16(t, 0, static_cast<uint16_t>(flows.size()));
        for (size_t i = 0; i < flows.size(); i++)
            put_flow(t, i, flows[i]);
        publish(t);
    }

    // One cycle as the evaluation loop runs it; `codes` are the kernel's
    // answers to the requests it is expected to make. Returns their hashes.
    std::vector<uint32_t> cycle(const std::vector<Flow> &flows,
                                const std::vector<int32_t> &codes = {}) {
        publish(flows);
        for (int32_t c : codes)
            kernel.queue_code(c);
        EXPECT_EQ(zebusr_read_ss_flows(), 0);
        zebusr_munmap_ssflows();
        return requested_hashes();
    }

    std::vector<uint32_t> requested_hashes() {
        std::vector<uint32_t> out;
        for (const Bytes &r : kernel.requests()) {
            EXPECT_EQ(r.size(), 32u);
            EXPECT_EQ(r[16], 3) << "segmentation command";
            EXPECT_EQ(zt::get_u32(r, 28), 0u) << "only ever turned off";
            out.push_back(zt::get_u32(r, 24));
        }
        return out;
    }

    int fd_ = -1;
};

using Hashes = std::vector<uint32_t>;

TEST_F(SsFlowsTest, SegmentationRequestHasItsDocumentedBytes) {
    seq_num = 41;
    kernel.queue_code(0);
    EXPECT_EQ(zebusr_set_flow_segmentation(0xabcdef01, 0), 0);

    Bytes want;
    zt::put_u32(want, 0, 32);
    zt::put_u16(want, 4, kZebId);
    zt::put_u16(want, 6, 1);
    zt::put_u32(want, 8, 41);
    zt::put_u32(want, 12, static_cast<uint32_t>(getpid()));
    zt::put_u8(want, 16, 3);
    zt::put_u8(want, 17, 1);
    zt::put_u16(want, 18, 0);
    zt::put_u16(want, 20, 12);
    zt::put_u16(want, 22, 4);
    zt::put_u32(want, 24, 0xabcdef01);
    zt::put_u32(want, 28, 0);
    std::vector<Bytes> sent = kernel.requests();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0], want);
    EXPECT_TRUE(log.contains("Sent segmentation setting req with seq_num 41"));
}

TEST_F(SsFlowsTest, SegmentationRequestHandsBackTheKernelsCode) {
    for (int32_t code : {0, 5, -1, -2}) {
        kernel.queue_code(code);
        EXPECT_EQ(zebusr_set_flow_segmentation(0x10, 0), code);
    }
    sk_fd = -1;
    EXPECT_EQ(zebusr_set_flow_segmentation(0x10, 0), -1);
    EXPECT_TRUE(log.contains("netlink failed to send to fd"));
    sk_fd = kernel.daemon_fd();
}

TEST_F(SsFlowsTest, FastFlowIsAskedInItsSecondCycleAndNeverAgainOnceAccepted) {
    const uint32_t h = 0x1001;
    const Flow edge = {0x21, 300000000}, below = {0x22, 300000000 - 1};
    EXPECT_EQ(cycle({{h, kFast}, edge, below}), Hashes{}) << "first sight only records";
    ASSERT_NE(zebusr_ht_find_node(h), nullptr);
    EXPECT_EQ(zebusr_ht_find_node(h)->len, 1);

    EXPECT_EQ(cycle({{h, kFast}, edge, below}, {0, 0}), (Hashes{h, 0x21}));
    EXPECT_EQ(zebusr_ht_find_node(h)->is_segmentation_enabled, 0);
    EXPECT_EQ(cycle({{h, kFast}}), Hashes{});

    EXPECT_EQ(cycle({{h, 300000000 - 1}}), Hashes{});
    EXPECT_TRUE(log.contains("NOT DETECTING DIPS: Enabling segmentation for hash 0x1001"));
    EXPECT_EQ(zebusr_ht_find_node(h)->is_segmentation_enabled, 0) << "never asked back on";
}

TEST_F(SsFlowsTest, RefusedRequestIsRepeatedUntilAccepted) {
    for (int32_t refusal : {5, -1, -2}) {
        SCOPED_TRACE(refusal);
        zebusr_ht_reset_for_test();
        const uint32_t h = 0x2002;
        EXPECT_EQ(cycle({{h, kFast}}), Hashes{});
        EXPECT_EQ(cycle({{h, kFast}}, {refusal}), Hashes{h});
        EXPECT_EQ(zebusr_ht_find_node(h)->is_segmentation_enabled, 1);
        EXPECT_EQ(cycle({{h, kFast}}, {refusal}), Hashes{h});
        EXPECT_EQ(cycle({{h, kFast}}, {0}), Hashes{h});
        EXPECT_EQ(cycle({{h, kFast}}), Hashes{});
    }
}

TEST_F(SsFlowsTest, SteadyFlowIsJudgedStableOnItsTenthSampleAndAskedThen) {
    const uint32_t h = 0x3003;
    for (int c = 1; c <= 9; c++) {
        EXPECT_EQ(cycle({{h, kSteady}}), Hashes{}) << "cycle " << c;
        EXPECT_EQ(zebusr_ht_find_node(h)->is_stable, 0);
    }
    EXPECT_EQ(log.count("Flow w/ hash 0x3003 is stable"), 0u);

    EXPECT_EQ(cycle({{h, kSteady}}, {0}), Hashes{h});
    EXPECT_EQ(zebusr_ht_find_node(h)->is_stable, 1);
    EXPECT_EQ(log.count("Flow w/ hash 0x3003 is stable"), 1u);
    EXPECT_EQ(cycle({{h, kSteady}}), Hashes{});
    EXPECT_FALSE(log.contains("NOT DETECTING DIPS: Enabling segmentation for hash 0x3003"))
        << "a stable flow is no dip";

    EXPECT_EQ(cycle({{h, kSteady * 2}}), Hashes{});
    EXPECT_EQ(zebusr_ht_find_node(h)->is_stable, 0) << "judged again on every full history";
    EXPECT_TRUE(log.contains("NOT DETECTING DIPS: Enabling segmentation for hash 0x3003"));
}

// Nine samples at `prev`, then the tenth is judged against their average.
TEST_F(SsFlowsTest, StabilityBandIsAnInclusiveQuarterOfThePreviousAverage) {
    struct {
        uint64_t prev;
        uint64_t sample;
        bool stable;
    } cases[] = {
        {1000, 750, true}, {1000, 1250, true}, {1000, 749, false}, {1000, 1251, false},
        {3, 3, true},      {3, 2, false},      {3, 4, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::to_string(c.prev) + " -> " + std::to_string(c.sample));
        zebusr_ht_reset_for_test();
        const uint32_t h = 0x5005;
        for (int i = 0; i < 9; i++)
            cycle({{h, c.prev}});
        Hashes want = c.stable ? Hashes{h} : Hashes{};
        std::vector<int32_t> codes = c.stable ? std::vector<int32_t>{0} : std::vector<int32_t>{};
        EXPECT_EQ(cycle({{h, c.sample}}, codes), want);
        EXPECT_EQ(zebusr_ht_find_node(h)->is_stable, c.stable ? 1 : 0);
    }
}

TEST_F(SsFlowsTest, FlowListedAtRateZeroLosesItsHistoryAndStartsOver) {
    const uint32_t h = 0x6006;
    cycle({{h, kFast}});
    EXPECT_EQ(cycle({{h, kFast}}, {0}), Hashes{h});

    EXPECT_EQ(cycle({{h, 0}}), Hashes{});
    EXPECT_EQ(zebusr_ht_find_node(h), nullptr);
    EXPECT_TRUE(log.contains("zebusr_ht_remove_node: removing node for ht bkt 6: hash 0x6006"));

    EXPECT_EQ(cycle({{h, kFast}}), Hashes{});
    zebusr_ht_node *fresh = zebusr_ht_find_node(h);
    ASSERT_NE(fresh, nullptr);
    EXPECT_EQ(fresh->len, 1);
    EXPECT_EQ(fresh->is_segmentation_enabled, 1);
    EXPECT_EQ(cycle({{h, kFast}}, {0}), Hashes{h}) << "asked again after starting over";

    EXPECT_EQ(cycle({{0x7007, 0}}), Hashes{});
    EXPECT_EQ(zebusr_ht_find_node(0x7007), nullptr) << "a zero rate never creates";
}

TEST_F(SsFlowsTest, WalkReadsAtMost128EntriesAndLogsTheLimitOnce) {
    verbose_log_enabled = 0;  // both lines are errors, written without verbose
    Bytes t;
    zt::put_u16(t, 0, 200);
    for (size_t i = 0; i < 128; i++)
        put_flow(t, i, {static_cast<uint32_t>(0x100 + i), 1000});
    put_flow(t, 128, {0xdead, 1000});  // still inside the page, never to be read
    publish(t);

    EXPECT_EQ(zebusr_read_ss_flows(), 0);
    zebusr_munmap_ssflows();
    EXPECT_EQ(log.count("Max user flows reached"), 1u);
    for (uint32_t i = 0; i < 128; i++)
        EXPECT_NE(zebusr_ht_find_node(0x100 + i), nullptr) << i;
    EXPECT_EQ(zebusr_ht_find_node(0xdead), nullptr);
    EXPECT_EQ(requested_hashes(), Hashes{});
}

TEST_F(SsFlowsTest, WalkGoesOnPastAZeroHashAndSamplesARepeatedHashTwice) {
    EXPECT_EQ(cycle({{0x11, 1000}, {0, kFast}, {0x12, 1000}, {0x12, 3000}}), Hashes{});
    EXPECT_EQ(log.messages("ERR"), std::vector<std::string>{"Invalid hash, breaking"});
    ASSERT_NE(zebusr_ht_find_node(0x11), nullptr);
    ASSERT_NE(zebusr_ht_find_node(0x12), nullptr);
    EXPECT_EQ(zebusr_ht_find_node(0x12)->len, 2);
    EXPECT_EQ(zebusr_ht_find_node(0x12)->avg, 2000u);
    EXPECT_EQ(zebusr_ht_find_node(0), nullptr);
}

}  // namespace
