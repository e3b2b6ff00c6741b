// The flow history table: ring arithmetic, chains that share a bucket, and
// the removal at a chain's head that drops the whole chain.
#include "segmentation/flow_history.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <string>
#include <vector>

#include "core/log.h"
#include "test_support.h"

namespace {

using Msgs = std::vector<std::string>;

class FlowHistoryTest : public ::testing::Test {
   protected:
    void TearDown() override { zebusr_ht_reset_for_test(); }
    zt::LogCapture log{true};

    static void push(zebusr_ht_node *node, uint64_t rx_bps) {
        zebusr_ssflow_info e = {};
        e.hash = node->entry.hash;
        e.rx_bps = rx_bps;
        zebusr_update_ht_node(node, &e);
    }
};

TEST_F(FlowHistoryTest, UpdateKeepsTheLastTenSamplesWhichThePrintShowsInStorageOrder) {
    zebusr_ht_node *node = zebusr_ht_create_node(0x0);  // hash 0 is an ordinary key
    ASSERT_NE(node, nullptr);
    zebusr_ssflow_info e = {11, 22, 7, 0x0, 6};
    zebusr_update_ht_node(node, &e);
    zebusr_update_ht_node(nullptr, &e);
    zebusr_update_ht_node(node, nullptr);
    EXPECT_EQ(memcmp(&node->entry, &e, sizeof e), 0);
    EXPECT_EQ(log.count("Invalid params"), 2u);

    std::vector<uint64_t> seen = {7};
    for (uint64_t s : {8, 30, 40, 50, 60, 70, 80, 90, 100, 110, 120}) {
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
    const std::string p = "zebusr_ht_debug_print: ";
    Msgs m = log.messages("LOW");
    ASSERT_EQ(m.size(), 1u + 8u * 2u + 1u + 1u);
    EXPECT_EQ(Msgs(m.begin(), m.begin() + 6),
              (Msgs{p + "=========== HASH TABLE CONTENTS ==============", p + "bkt 0 of 7",
                    p + "\tbkt[0]: hash = 0x0 | rx_bps = 120 | is_stable = 0 | "
                        "is_segmentation_enabled = 1 ",
                    "\t\trx_bps_history: hash 0x0 | len = 10 | avg = 75: [110] [120] [30] [40] "
                    "[50] [60] [70] [80] [90] [100]",
                    p + "bkt 1 of 7", p + "\tbkt[1]: empty"}));
    EXPECT_EQ(m.back(), p + "================== END ==================");
    log.clear();
    verbose_log_enabled = 0;
    zebusr_ht_debug_print();
    EXPECT_TRUE(log.messages().empty());
}

// Chain 0x1 -> 0x9 -> 0x11 in bucket 1, one of them removed; the head last.
TEST_F(FlowHistoryTest, RemovalRelinksTheChainUnlessItTakesTheHead) {
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
    // The orphans are no longer the table's: 0x9 created again is a new node.
    zebusr_ht_node *fresh = zebusr_ht_create_node(0x9);
    EXPECT_NE(fresh, chain[1]);
    EXPECT_EQ(zebusr_ht_find_node(0x9), fresh);
    free(chain[1]);
    free(chain[2]);
}

TEST_F(FlowHistoryTest, ADuplicateChainsBehindTheOlderWhichRemovalTakesFirst) {
    zebusr_ht_node *head = zebusr_ht_create_node(0x3);
    zebusr_ht_node *older = zebusr_ht_create_node(0xb);
    zebusr_ht_node *newer = zebusr_ht_create_node(0xb);
    ASSERT_TRUE(head && older && newer);
    EXPECT_EQ(zebusr_ht_find_node(0xb), older);
    zebusr_ht_remove_node(0xb);
    EXPECT_EQ(zebusr_ht_find_node(0xb), newer);
    EXPECT_EQ(head->next, newer);
}

TEST_F(FlowHistoryTest, AbsentHashesAreNotErrors) {
    zebusr_ht_remove_node(0x4);  // empty bucket: silent
    EXPECT_TRUE(log.messages().empty());
    ASSERT_NE(zebusr_ht_create_node(0x4), nullptr);
    log.clear();
    zebusr_ht_remove_node(0xc);
    EXPECT_EQ(zebusr_ht_find_node(0xc), nullptr);
    EXPECT_EQ(log.messages("LOW"),
              (Msgs{"zebusr_ht_remove_node: did not find node to remove in ht bkt 4: hash 0xc",
                    "zebusr_ht_find_node: searching for hash 0xc in bkt 4",
                    "zebusr_ht_find_node: NO match found in ht bkt 4: hash 0xc"}));
    EXPECT_TRUE(log.messages("ERR").empty());
}

}  // namespace
