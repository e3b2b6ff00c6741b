// The flow history table and the slow-start flows through cycles: the table
// lives in a real one-page file, a fake kernel answers the segmentation
// requests.
#include "segmentation/segmentation.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <numeric>
#include <string>
#include <vector>

#include "core/log.h"
#include "netlink/genl_family.h"
#include "segmentation/flow_history.h"
#include "steering/tables.h"
#include "steering_tables.h"
#include "test_support.h"

namespace {

using zt::Bytes;
using Hashes = std::vector<uint32_t>;
using Codes = std::vector<int32_t>;

constexpr uint64_t kFast = 300000000;  // the lowest fast rate
constexpr uint64_t kSteady = 100000000;

struct Flow {
    uint32_t hash;
    uint64_t rx_bps;
};

struct Cycle {
    std::vector<Flow> flows;
    Codes codes;   // the kernel's answers
    Hashes asked;  // segmentation turned off for
};

class Segmentation : public ::testing::Test {
   protected:
    void SetUp() override {
        zeb_family_id = zt::kZebFamily;
        page_size = 4096;
        zt::write_table("dulox_zeb_ss_flows", {});
        zebusr_init_ssflow_file();
        log.clear();
    }
    void TearDown() override { zebusr_ht_reset_for_test(); }
    zt::LogCapture log{true};
    zt::FakeKernel kernel{&sk_fd};

    // One read of the table as the evaluation loop runs it; `listed` overrides the count.
    Hashes cycle(const std::vector<Flow> &flows, const Codes &codes = {}, int listed = -1) {
        std::vector<zt::Flow> table;
        for (const Flow &f : flows) table.push_back({f.hash, 2, f.rx_bps / 12000, 7, f.rx_bps});
        zt::write_table("dulox_zeb_ss_flows", zt::flow_table(table, listed));
        for (int32_t c : codes) kernel.queue_code(c);
        EXPECT_EQ(zebusr_read_ss_flows(), 0);
        zebusr_munmap_ssflows();
        Hashes asked;
        for (const Bytes &r : kernel.requests()) {
            Bytes want = zt::request_image(32, zt::kZebFamily, zt::get_u32(r, 8), 3, 12, 4);
            zt::put_u32(want, 24, zt::get_u32(r, 24));
            EXPECT_EQ(r, want) << "only ever turned off";
            asked.push_back(zt::get_u32(r, 24));
        }
        return asked;
    }
    void play(const std::vector<Cycle> &cycles) {
        for (size_t i = 0; i < cycles.size(); i++)
            EXPECT_EQ(cycle(cycles[i].flows, cycles[i].codes), cycles[i].asked) << "cycle " << i;
    }
    static void push(zebusr_ht_node *node, uint64_t rx_bps) {
        zebusr_ssflow_info e = {};
        e.hash = node->entry.hash;
        e.rx_bps = rx_bps;
        zebusr_update_ht_node(node, &e);
    }
};

TEST_F(Segmentation, HistoryKeepsTheLastTenSamplesAndPrintsThemInStorageOrder) {
    zebusr_ht_node *node = zebusr_ht_create_node(0x0);  // hash 0 is an ordinary key
    ASSERT_NE(node, nullptr);
    zebusr_ssflow_info e = {11, 22, 7, 0x0, 6};
    zebusr_update_ht_node(node, &e);
    zebusr_update_ht_node(nullptr, &e);
    zebusr_update_ht_node(node, nullptr);
    EXPECT_EQ(memcmp(&node->entry, &e, sizeof e), 0);
    EXPECT_EQ(zt::count(log.messages(), "Invalid params\n"), 2u);
    std::vector<uint64_t> seen = {7};
    // The sum passes 2^32 and wraps nothing.
    for (uint64_t s :
         {8ull, 30ull, 40ull, 50ull, 60ull, 70ull, 80ull, 90ull, 1ull << 33, 110ull, 120ull}) {
        push(node, s);
        seen.push_back(s);
        size_t n = std::min<size_t>(seen.size(), 10);
        uint64_t sum = std::accumulate(seen.end() - n, seen.end(), uint64_t{0});
        EXPECT_EQ(node->len, n) << s;
        EXPECT_EQ(node->sum, sum) << s;
        EXPECT_EQ(node->avg, sum / n) << s;  // 15 / 2 is 7
    }
    log.clear();
    zebusr_ht_debug_print();
    const std::string printed = log.messages();
    EXPECT_EQ(printed.substr(0, printed.find("bkt 1 of 7")),
              "zebusr_ht_debug_print: =========== HASH TABLE CONTENTS ==============\n"
              "zebusr_ht_debug_print: bkt 0 of 7\nzebusr_ht_debug_print: \tbkt[0]: hash = 0x0 | "
              "rx_bps = 120 | is_stable = 0 | is_segmentation_enabled = 1 \n\t\trx_bps_history: "
              "hash 0x0 | len = 10 | avg = 858993524: [110] [120] [30] [40] [50] [60] [70] [80] "
              "[90] [8589934592]\nzebusr_ht_debug_print: ");
    EXPECT_EQ(printed.substr(printed.find("bkt 7 of 7")),
              "bkt 7 of 7\nzebusr_ht_debug_print: \tbkt[7]: empty\n"
              "zebusr_ht_debug_print: ================== END ==================\n");
    verbose_log_enabled = 0;
    zebusr_ht_debug_print();
    EXPECT_EQ(log.messages(), printed);
}

// Chain 0x1 -> 0x9 -> 0x11 in bucket 1, one of them removed; the head last,
// which drops the whole chain.
TEST_F(Segmentation, RemovalRelinksTheChainUnlessItTakesTheHead) {
    const uint32_t hashes[] = {0x1, 0x9, 0x11};
    const struct {
        uint32_t removed;
        std::vector<uint32_t> kept;
    } cases[] = {{0x9, {0x1, 0x11}}, {0x11, {0x1, 0x9}}, {0x1, {}}};
    zebusr_ht_node *chain[3];
    for (const auto &c : cases) {
        SCOPED_TRACE(c.removed);
        zebusr_ht_reset_for_test();
        for (int i = 0; i < 3; i++) ASSERT_NE(chain[i] = zebusr_ht_create_node(hashes[i]), nullptr);
        zebusr_ht_remove_node(c.removed);
        for (int i = 0; i < 3; i++) {
            bool kept = std::count(c.kept.begin(), c.kept.end(), hashes[i]) > 0;
            EXPECT_EQ(zebusr_ht_find_node(hashes[i]), kept ? chain[i] : nullptr) << hashes[i];
        }
    }
    zebusr_ht_node *fresh = zebusr_ht_create_node(0x9);  // the orphan is not found again
    EXPECT_NE(fresh, chain[1]);
    EXPECT_EQ(zebusr_ht_find_node(0x9), fresh);
    free(chain[1]);
    free(chain[2]);
    // A duplicate chains behind the older node, which removal takes first.
    zebusr_ht_node *older = zebusr_ht_create_node(0x11);
    zebusr_ht_node *newer = zebusr_ht_create_node(0x11);
    EXPECT_EQ(zebusr_ht_find_node(0x11), older);
    log.clear();
    zebusr_ht_remove_node(0x11);
    zebusr_ht_remove_node(0x4);  // empty bucket: silent
    zebusr_ht_remove_node(0x19);
    EXPECT_EQ(zebusr_ht_find_node(0x11), newer);
    EXPECT_EQ(fresh->next, newer);
    EXPECT_EQ(log.messages(), R"(zebusr_ht_remove_node: removing node for ht bkt 1: hash 0x11
zebusr_ht_remove_node: did not find node to remove in ht bkt 1: hash 0x19
zebusr_ht_find_node: searching for hash 0x11 in bkt 1
zebusr_ht_find_node: match found in ht bkt 1: hash 0x11
)");
}

TEST_F(Segmentation, FastFlowIsAskedFromItsSecondCycleUntilAccepted) {
    const Flow fast = {0x1001, kFast}, slower = {0x22, kFast - 1};
    play({
        {{fast, slower}, {}, {}},  // first sight only records
        {{fast, slower}, {5}, {0x1001}},
        {{fast, slower}, {-1}, {0x1001}},
        {{fast, slower}, {0}, {0x1001}},
        {{fast, slower}, {}, {}},
        {{{0x1001, kFast - 1}}, {}, {}},       // a dip is only announced
        {{{0x1001, 0}, {0x7007, 0}}, {}, {}},  // rate zero drops the history
        {{fast}, {}, {}},
        {{fast}, {0}, {0x1001}},
    });
    EXPECT_EQ(zebusr_ht_find_node(0x7007), nullptr) << "a zero rate never creates";
    const std::string m = log.messages("zebusr_read_ss_flows");
    EXPECT_EQ(zt::count(m,
                        "  ZEB_SLOW: > ss flow 0x1001 on cpu[2] with rx_pps = 7 | avg pps = "
                        "25000 | rx_bps = 300000000\n"),
              7u);
    EXPECT_EQ(zt::count(m, "Disabling segmentation for hash 0x1001\n"), 4u);
    EXPECT_EQ(zt::count(m, "NOT DETECTING DIPS: Enabling segmentation for hash 0x1001\n"), 1u);
    EXPECT_EQ(zt::count(m, "Disabling segmentation for hash 0x22"), 0u);
    log.clear();
    sk_fd = -1;  // a request that cannot be sent is an error, verbose or not
    verbose_log_enabled = 0;
    EXPECT_EQ(zebusr_set_flow_segmentation(0x10, 0), -1);
    EXPECT_EQ(log.messages(), "error 9 on sendto\nnetlink failed to send to fd\n");
}

// Nine samples at `prev`, then the tenth is judged against their average.
TEST_F(Segmentation, StabilityBandIsAnInclusiveQuarterOfThePreviousAverage) {
    const uint64_t big = 1ull << 34;
    const struct {
        uint64_t prev, sample;
        bool stable;
    } cases[] = {{1000, 750, true},
                 {1000, 1250, true},
                 {1000, 749, false},
                 {1000, 1251, false},
                 {3, 3, true},
                 {3, 2, false},
                 {3, 4, false},
                 {big, big + big / 4, true},
                 {big, big - big / 4 - 1, false}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.sample);
        zebusr_ht_reset_for_test();
        for (int i = 0; i < 9; i++) cycle({{0x5005, c.prev}});
        log.clear();
        bool asked = c.stable || c.sample >= kFast;
        EXPECT_EQ(cycle({{0x5005, c.sample}}, Codes(asked, 0)), Hashes(asked, 0x5005));
        EXPECT_EQ(zt::count(log.messages(), c.stable ? "0x5005 is stable" : "0x5005 is NOT stable"),
                  1u);
    }
}

// At most 128 entries, the limit logged once; a zero hash is skipped, not a
// stop; a hash listed twice is sampled twice.
TEST_F(Segmentation, WalkLimitsZeroHashesAndRepeats) {
    verbose_log_enabled = 0;
    std::vector<Flow> flows;
    for (uint32_t i = 0; i < 128; i++) flows.push_back({0x100 + i, 1000});
    flows.push_back({0xdead, 1000});  // still inside the page, never to be read
    EXPECT_EQ(cycle(flows, {}, 200), Hashes{});
    EXPECT_NE(zebusr_ht_find_node(0x17f), nullptr);
    EXPECT_EQ(zebusr_ht_find_node(0xdead), nullptr);
    EXPECT_EQ(cycle({{0x11, 1000}, {0, kFast}, {0x12, 1000}, {0x12, 3000}}), Hashes{});
    ASSERT_NE(zebusr_ht_find_node(0x12), nullptr);
    EXPECT_EQ(zebusr_ht_find_node(0x12)->avg, 2000u);
    EXPECT_EQ(zebusr_ht_find_node(0), nullptr);
    zt::fail({"malloc", "", ENOMEM});  // tried again in the next cycle
    cycle({{0x33, 1000}});
    EXPECT_EQ(zebusr_ht_find_node(0x33), nullptr);
    cycle({{0x33, 1000}});
    EXPECT_NE(zebusr_ht_find_node(0x33), nullptr);
    EXPECT_EQ(log.messages(),
              "Max user flows reached\nInvalid hash, breaking\n"
              "zebusr_ht_create_node: malloc failure\n"
              "Could not create new node for hash 0x33\n");
    ssflow_fd = -1;
    EXPECT_EXIT(zebusr_read_ss_flows(), ::testing::ExitedWithCode(0), "");
    EXPECT_EQ(log.messages(),
              "Max user flows reached\nInvalid hash, breaking\n"
              "zebusr_ht_create_node: malloc failure\nCould not create new node for hash 0x33\n"
              "mmap: Bad file descriptor\nclosing ssflow file\n");
}

}  // namespace
