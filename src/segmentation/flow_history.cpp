#include "segmentation/flow_history.h"

#include <cstdlib>
#include <cstring>

#include "core/log.h"

zebusr_ht_node *zebusr_ht_buckets[ZEBUSR_HT_NUM_BUCKETS] = {};

int zebusr_ht_func(uint32_t hash) {
    return static_cast<int>(hash & ZEBUSR_HT_BUCKET_MASK);
}

zebusr_ht_node *zebusr_ht_find_node(uint32_t hash) {
    int b = zebusr_ht_func(hash);
    ZLOG(LOW, "%s: searching for hash 0x%x in bkt %d", __func__, hash, b);

    zebusr_ht_node *node = zebusr_ht_buckets[b];
    if (!node) {
        ZLOG(LOW, "%s: NO match found in ht bkt %d: hash 0x%x - bkt is empty", __func__, b, hash);
        return nullptr;
    }
    for (; node; node = node->next) {
        if (node->entry.hash == hash) {
            ZLOG(MED, "%s: match found in ht bkt %d: hash 0x%x", __func__, b, hash);
            return node;
        }
    }
    ZLOG(LOW, "%s: NO match found in ht bkt %d: hash 0x%x", __func__, b, hash);
    return nullptr;
}

// Never looks for an existing node: creating a hash twice chains a duplicate
// behind the older one, which find keeps returning.
zebusr_ht_node *zebusr_ht_create_node(uint32_t hash) {
    zebusr_ht_node *node = static_cast<zebusr_ht_node *>(malloc(sizeof(zebusr_ht_node)));
    if (!node) {
        ZLOG(ERR, "%s: malloc failure", __func__);
        return nullptr;
    }
    memset(node, 0, sizeof(*node));
    node->entry.hash = hash;
    node->is_segmentation_enabled = 1;
    node->next = nullptr;

    int b = zebusr_ht_func(hash);
    ZLOG(LOW, "%s: adding hash 0x%x to bkt %d", __func__, hash, b);
    if (!zebusr_ht_buckets[b]) {
        zebusr_ht_buckets[b] = node;
        ZLOG(LOW, "%s: ADDED hash 0x%x to bkt %d", __func__, hash, b);
        return node;
    }
    zebusr_ht_node *tail = zebusr_ht_buckets[b];
    while (tail->next) tail = tail->next;
    tail->next = node;
    return node;
}

void zebusr_update_ht_node(zebusr_ht_node *node, const zebusr_ssflow_info *entry) {
    if (!node || !entry) {
        ZLOG(LOW, "Invalid params");
        return;
    }
    node->entry = *entry;

    if (node->idx >= ZEBUSR_HT_HISTORY_LEN)
        node->idx = 0;
    // The sample comes from the copy so that history and entry always agree,
    // however the kernel rewrites the table meanwhile.
    node->sum -= node->rx_bps_history[node->idx];
    node->rx_bps_history[node->idx] = node->entry.rx_bps;
    node->sum += node->rx_bps_history[node->idx];
    node->idx++;
    if (node->len < ZEBUSR_HT_HISTORY_LEN)
        node->len++;
    node->avg = node->sum / node->len;
}

void zebusr_ht_remove_node(uint32_t hash) {
    int b = zebusr_ht_func(hash);
    zebusr_ht_node *node = zebusr_ht_buckets[b];
    if (!node)
        return;

    zebusr_ht_node *prev = nullptr;
    while (node && node->entry.hash != hash) {
        prev = node;
        node = node->next;
    }
    if (!node) {
        ZLOG(LOW, "%s: did not find node to remove in ht bkt %d: hash 0x%x", __func__, b, hash);
        return;
    }

    if (prev)
        prev->next = node->next;
    else
        zebusr_ht_buckets[b] = nullptr;  // kept: the rest of the chain leaves with its head
    free(node);
    ZLOG(MED, "%s: removing node for ht bkt %d: hash 0x%x", __func__, b, hash);
}

void zebusr_ht_debug_print(void) {
    // Every line is verbose-only; skip the walk when none would be written.
    if (!zebusr_verbose())
        return;
    ZLOG(LOW, "%s: =========== HASH TABLE CONTENTS ==============", __func__);
    for (int b = 0; b < ZEBUSR_HT_NUM_BUCKETS; b++) {
        ZLOG(LOW, "%s: bkt %d of %d", __func__, b, ZEBUSR_HT_NUM_BUCKETS - 1);
        if (!zebusr_ht_buckets[b]) {
            ZLOG(LOW, "%s: \tbkt[%d]: empty", __func__, b);
            continue;
        }
        for (const zebusr_ht_node *node = zebusr_ht_buckets[b]; node; node = node->next) {
            const uint64_t *h = node->rx_bps_history;
            ZLOG(LOW,
                 "%s: \tbkt[%d]: hash = 0x%x | rx_bps = %lu | is_stable = %d | "
                 "is_segmentation_enabled = %d ",
                 __func__, b, node->entry.hash, node->entry.rx_bps, node->is_stable,
                 node->is_segmentation_enabled);
            ZLOG(LOW,
                 "\t\trx_bps_history: hash 0x%x | len = %d | avg = %lu: [%lu] [%lu] [%lu] [%lu] "
                 "[%lu] [%lu] [%lu] [%lu] [%lu] [%lu]",
                 node->entry.hash, node->len, node->avg, h[0], h[1], h[2], h[3], h[4], h[5], h[6],
                 h[7], h[8], h[9]);
        }
    }
    ZLOG(LOW, "%s: ================== END ==================", __func__);
}

void zebusr_ht_reset_for_test(void) {
    for (int b = 0; b < ZEBUSR_HT_NUM_BUCKETS; b++) {
        zebusr_ht_node *node = zebusr_ht_buckets[b];
        while (node) {
            zebusr_ht_node *next = node->next;
            free(node);
            node = next;
        }
        zebusr_ht_buckets[b] = nullptr;
    }
}
