// The flow history table: ring arithmetic, chains that share a bucket, and
// the removal at a chain's head that drops the whole chain.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "core/log.h"
#include "segmentation/flow_history.h"
#include "test_support.h"

namespace {

class FlowHistoryTest : public ::testing::Test {
  protected:
    void SetUp() override { zebusr_ht_reset_for_test(); }
    void TearDown() override { zebusr_ht_reset_for_test(); }

    zt::LogCapture log{true};

    static zebusr_ssflow_info sample(uint32_t hash, uint64_t rx_bps) {
        zebusr_ssflow_info e = {};
        e.hash = hash;
        e.rx_bps = rx_bps;
        return e;
    }

    static void push(zebusr_ht_node *node, uint64_t rx_bps) {
        zebusr_ssflow_info e = sample(node->entry.hash, rx_bps);
        zebusr_update_ht_node(node, &e);
    }
};

TEST_F(FlowHistoryTest, HashZeroIsAnOrdinaryKeyInBucketZero) {
    zebusr_ht_node *node = zebusr_ht_create_node(0x0);
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(zebusr_ht_buckets[0], node);
    EXPECT_EQ(node->is_segmentation_enabled, 1);
    EXPECT_EQ(node->is_stable, 0);
    EXPECT_EQ(node->len, 0);
    EXPECT_EQ(zebusr_ht_find_node(0x0), node);
}

TEST_F(FlowHistoryTest, RingKeepsTheLastTenSamplesAndTheirIntegerMean) {
    zebusr_ht_node *node = zebusr_ht_create_node(0x42);
    ASSERT_NE(node, nullptr);

    push(node, 7);
    EXPECT_EQ(node->len, 1);
    EXPECT_EQ(node->avg, 7u);
    push(node, 8);
    EXPECT_EQ(node->avg, 7u) << "15 / 2 drops the remainder";

    for (uint64_t s = 3; s <= 10; s++)
        push(node, s * 10);
    // 7 + 8 + 30 + ... + 100 = 535
    EXPECT_EQ(node->len, 10);
    EXPECT_EQ(node->idx, 10);
    EXPECT_EQ(node->sum, 535u);
    EXPECT_EQ(node->avg, 53u);

    push(node, 110);  // the eleventh overwrites slot 0
    EXPECT_EQ(node->rx_bps_history[0], 110u);
    EXPECT_EQ(node->rx_bps_history[1], 8u);
    EXPECT_EQ(node->idx, 1);
    EXPECT_EQ(node->len, 10);
    EXPECT_EQ(node->sum, 535u - 7u + 110u);
    EXPECT_EQ(node->avg, (535u - 7u + 110u) / 10u);

    push(node, 120);  // and the twelfth slot 1
    EXPECT_EQ(node->rx_bps_history[1], 120u);
    EXPECT_EQ(node->sum, 535u - 7u - 8u + 110u + 120u);
}

TEST_F(FlowHistoryTest, UpdateCopiesTheWholeEntryAndIgnoresMissingArguments) {
    zebusr_ht_node *node = zebusr_ht_create_node(0x5);
    ASSERT_NE(node, nullptr);
    zebusr_ssflow_info e = {11, 22, 33, 0x5, 6};
    zebusr_update_ht_node(node, &e);
    EXPECT_EQ(node->entry.rx_pps, 11u);
    EXPECT_EQ(node->entry.avg_pps, 22u);
    EXPECT_EQ(node->entry.rx_bps, 33u);
    EXPECT_EQ(node->entry.cpu, 6);

    zebusr_update_ht_node(nullptr, &e);
    zebusr_update_ht_node(node, nullptr);
    EXPECT_EQ(log.count("Invalid params"), 2u);
    EXPECT_EQ(node->len, 1);
}

// Chain 0x1 -> 0x9 -> 0x11 in bucket 1; removing one of them.
struct RemoveCase {
    const char *where;
    uint32_t removed;
    std::vector<uint32_t> still_found;
    std::vector<uint32_t> lost;
};

TEST_F(FlowHistoryTest, RemovalRelinksTheChainUnlessItTakesTheHead) {
    const RemoveCase cases[] = {
        {"middle", 0x9, {0x1, 0x11}, {0x9}},
        {"end", 0x11, {0x1, 0x9}, {0x11}},
        {"head", 0x1, {}, {0x1, 0x9, 0x11}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.where);
        zebusr_ht_reset_for_test();
        zebusr_ht_node *chain[] = {zebusr_ht_create_node(0x1), zebusr_ht_create_node(0x9),
                                   zebusr_ht_create_node(0x11)};
        for (zebusr_ht_node *n : chain)
            ASSERT_NE(n, nullptr);

        zebusr_ht_remove_node(c.removed);
        for (uint32_t h : c.still_found) {
            zebusr_ht_node *n = zebusr_ht_find_node(h);
            ASSERT_NE(n, nullptr) << std::hex << h;
            EXPECT_EQ(n->entry.hash, h);
        }
        for (uint32_t h : c.lost)
            EXPECT_EQ(zebusr_ht_find_node(h), nullptr) << std::hex << h;
        if (c.removed == 0x1) {
            EXPECT_EQ(zebusr_ht_buckets[1], nullptr);
            free(chain[1]);  // the orphans the table let go of
            free(chain[2]);
        }
    }
}

TEST_F(FlowHistoryTest, AHashOrphanedByAHeadRemovalStartsOverWhenCreatedAgain) {
    zebusr_ht_node *head = zebusr_ht_create_node(0x2);
    zebusr_ht_node *orphan = zebusr_ht_create_node(0xa);
    ASSERT_NE(head, nullptr);
    ASSERT_NE(orphan, nullptr);
    push(orphan, 500);
    orphan->is_segmentation_enabled = 0;

    zebusr_ht_remove_node(0x2);
    zebusr_ht_node *fresh = zebusr_ht_create_node(0xa);
    ASSERT_NE(fresh, nullptr);
    EXPECT_NE(fresh, orphan);
    EXPECT_EQ(zebusr_ht_find_node(0xa), fresh);
    EXPECT_EQ(fresh->is_segmentation_enabled, 1);
    EXPECT_EQ(fresh->len, 0);
    free(orphan);
}

TEST_F(FlowHistoryTest, DuplicatesChainUpAndRemovalTakesTheOlder) {
    zebusr_ht_node *head = zebusr_ht_create_node(0x3);
    zebusr_ht_node *older = zebusr_ht_create_node(0xb);
    zebusr_ht_node *newer = zebusr_ht_create_node(0xb);
    ASSERT_NE(head, nullptr);
    ASSERT_NE(older, nullptr);
    ASSERT_NE(newer, nullptr);

    EXPECT_EQ(older->next, newer) << "create never looks for an existing node";
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
    EXPECT_EQ(log.messages("LOW"),
              std::vector<std::string>{
                  "zebusr_ht_remove_node: did not find node to remove in ht bkt 4: hash 0xc"});
    EXPECT_EQ(zebusr_ht_find_node(0xc), nullptr);
    EXPECT_TRUE(log.contains("zebusr_ht_find_node: NO match found in ht bkt 4: hash 0xc"));
    EXPECT_TRUE(log.messages("ERR").empty());
}

TEST_F(FlowHistoryTest, DebugPrintShowsEveryBucketAndTheRingInStorageOrder) {
    zebusr_ht_node *node = zebusr_ht_create_node(0x11);
    ASSERT_NE(node, nullptr);
    push(node, 100);
    push(node, 300);
    log.clear();

    zebusr_ht_debug_print();
    std::vector<std::string> m = log.messages("LOW");
    ASSERT_EQ(m.size(), 1u + 8u * 2u + 1u + 1u);
    EXPECT_EQ(m.front(), "zebusr_ht_debug_print: =========== HASH TABLE CONTENTS ==============");
    EXPECT_EQ(m[1], "zebusr_ht_debug_print: bkt 0 of 7");
    EXPECT_EQ(m[2], "zebusr_ht_debug_print: \tbkt[0]: empty");
    EXPECT_EQ(m[3], "zebusr_ht_debug_print: bkt 1 of 7");
    EXPECT_EQ(m[4],
              "zebusr_ht_debug_print: \tbkt[1]: hash = 0x11 | rx_bps = 300 | is_stable = 0 | "
              "is_segmentation_enabled = 1 ");
    EXPECT_EQ(m[5],
              "\t\trx_bps_history: hash 0x11 | len = 2 | avg = 200: [100] [300] [0] [0] [0] [0] "
              "[0] [0] [0] [0]");
    EXPECT_EQ(m.back(), "zebusr_ht_debug_print: ================== END ==================");

    log.clear();
    verbose_log_enabled = 0;
    zebusr_ht_debug_print();
    EXPECT_TRUE(log.messages().empty());
}

}  // namespace
