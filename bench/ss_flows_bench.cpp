// One slow-start pass over a full table of 128 known flows, as every cycle
// makes it: map, find and update each history, judge, unmap.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstring>

#include "segmentation/flow_history.h"
#include "segmentation/segmentation.h"
#include "steering/tables.h"

namespace {

constexpr size_t kPage = 4096;

int make_table(void) {
    char path[] = "/tmp/zebusr-bench-XXXXXX";
    int fd = mkstemp(path);
    unlink(path);
    zebusr_flow_table t;
    memset(&t, 0, sizeof(t));
    t.list_len = ZEBUSR_MAX_FLOWS;
    for (int i = 0; i < ZEBUSR_MAX_FLOWS; i++) {
        t.list[i].rx_bps = 1000000 + 1000 * static_cast<uint64_t>(i);
        t.list[i].hash = 0x1000u + static_cast<uint32_t>(i);
        t.list[i].cpu = static_cast<uint16_t>(i % ZEBUSR_NUM_CPUS);
    }
    if (ftruncate(fd, kPage) != 0 || pwrite(fd, &t, sizeof(t), 0) != sizeof(t))
        abort();
    return fd;
}

// Segmentation already off for every flow, so the pass sends nothing.
void seed_histories(void) {
    for (int i = 0; i < ZEBUSR_MAX_FLOWS; i++) {
        zebusr_ht_node *n = zebusr_ht_create_node(0x1000u + static_cast<uint32_t>(i));
        n->is_segmentation_enabled = 0;
    }
}

void BM_ReadSsFlowsFullTable(benchmark::State &state) {
    ssflow_fd = make_table();
    page_size = kPage;
    seed_histories();
    for (auto _ : state) {
        zebusr_read_ss_flows();
        zebusr_munmap_ssflows();
    }
    zebusr_ht_reset_for_test();
    close(ssflow_fd);
    state.SetItemsProcessed(state.iterations() * ZEBUSR_MAX_FLOWS);
}
BENCHMARK(BM_ReadSsFlowsFullTable);

void BM_HistoryUpdate(benchmark::State &state) {
    zebusr_ht_node *n = zebusr_ht_create_node(0x42);
    zebusr_ssflow_info e = {};
    e.hash = 0x42;
    for (auto _ : state) {
        e.rx_bps++;
        zebusr_update_ht_node(n, &e);
        benchmark::DoNotOptimize(n->avg);
    }
    zebusr_ht_reset_for_test();
}
BENCHMARK(BM_HistoryUpdate);

}  // namespace
