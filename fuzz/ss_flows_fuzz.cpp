// The slow-start flow table reader, the flow history behind it and its
// segmentation requests, over several cycles so that histories fill up.
// Input: a flags byte (bits 0-3 cycles - 1, bits 4-6 tables - 1, bit 7
// verbose), that many tables as a 16-bit length and its bytes (the last one
// stands for the remaining cycles), then the module's answers.
#include <unordered_set>

#include "fuzz_kernel.h"
#include "segmentation/flow_history.h"
#include "segmentation/segmentation.h"

// The flow history's own malloc and free (flow_history_nodes.cpp): the nodes
// a head removal orphans, which the daemon keeps on purpose, are freed after
// each input.
static std::unordered_set<void *> *live_nodes;

extern "C" void *fz_node_malloc(size_t size) {
    void *p = malloc(size);
    if (p)
        live_nodes->insert(p);
    return p;
}

extern "C" void fz_node_free(void *p) {
    FZ_CHECK(live_nodes->erase(p) == 1);
    free(p);
}

// What the update arithmetic must keep, whatever the samples.
static void check_history(void) {
    for (int b = 0; b < ZEBUSR_HT_NUM_BUCKETS; b++) {
        for (zebusr_ht_node *n = zebusr_ht_buckets[b]; n; n = n->next) {
            FZ_CHECK(static_cast<int>(n->entry.hash & 7) == b);
            FZ_CHECK(n->len <= ZEBUSR_HT_HISTORY_LEN && n->idx <= ZEBUSR_HT_HISTORY_LEN);
            FZ_CHECK(n->is_stable <= 1 && n->is_segmentation_enabled <= 1);
            uint64_t sum = 0;
            for (uint64_t s : n->rx_bps_history) sum += s;
            FZ_CHECK(sum == n->sum);
            FZ_CHECK(n->len ? n->avg == n->sum / n->len : n->avg == 0);
        }
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static fz::Kernel kernel;
    static fz::Table ssflows(&ssflow_fd);
    if (!live_nodes)
        live_nodes = new std::unordered_set<void *>;
    fz::Reader in{data, size};
    uint8_t flags = in.u8();
    int cycles = (flags & 15) + 1;
    int ntables = ((flags >> 4) & 7) + 1;
    fz::quiet_log(flags & 0x80);
    std::vector<fz::Bytes> tables;
    for (int t = 0; t < ntables; t++) tables.push_back(in.take(in.u16()));
    int saved = sk_fd.exchange(kernel.daemon_fd());
    zeb_family_id = fz::kZebFamily;
    seq_num = 0;
    int first_yes;  // any answer may come first; none ends the pass
    fz::queue_answers(kernel, in, &first_yes);

    std::unordered_set<uint32_t> listed;
    for (int c = 0; c < cycles; c++) {
        fz::Bytes table = tables[std::min(c, ntables - 1)];
        ssflows.load(table);
        table.resize(std::max<size_t>(table.size(), sizeof(zebusr_flow_table)));
        for (int i = 0; i < ZEBUSR_MAX_FLOWS; i++)
            listed.insert(fz::le32(&table[2 + 30 * i + 24]));
        FZ_CHECK(zebusr_read_ss_flows() == 0);
        zebusr_munmap_ssflows();
        check_history();
    }

    // Only requests to turn segmentation off, for flows the tables listed.
    std::vector<fz::Bytes> sent = kernel.requests();
    FZ_CHECK(sent.size() <= static_cast<size_t>(cycles) * ZEBUSR_MAX_FLOWS);
    for (const fz::Bytes &r : sent) {
        fz::check_zeb_request(r, 3, 12, 4);
        FZ_CHECK(fz::le32(&r[24]) != 0 && listed.count(fz::le32(&r[24])));
        FZ_CHECK(fz::le32(&r[28]) == 0);
    }

    zebusr_ht_reset_for_test();
    for (void *p : *live_nodes) free(p);
    live_nodes->clear();
    ssflow_list = nullptr;
    ssflow_fd = 0;
    sk_fd = saved;
    zeb_family_id = 0;
    kernel.reset();
    return 0;
}
