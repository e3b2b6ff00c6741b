// The three placement policies on full tables (8 CPUs, 128 gold flows) in
// their worst case: every candidate is offered and the kernel refuses each.
//
// The kernel is a thread on the far end of a SOCK_SEQPACKET pair answering
// every suggestion with a refusal, so each offer costs a real send, a
// context switch to the peer, its reply and a receive: that exchange is
// part of what is measured, and it dominates. Logging is off (no log file).
//
// Beside each policy run, counters give:
//   suggestions   requests the kernel saw per call
//   bare_ns       a bare loop reading the same table fields, no exchange
//   x_bare        policy time / bare_ns
//   exchange_ns   the same number of suggestions sent back to back alone
//   x_exchange    policy time / exchange_ns (the policy's own share is
//                 what exceeds 1.0)
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "core/log.h"
#include "netlink/genl_family.h"
#include "netlink/nl_msg.h"
#include "netlink/zeb_family.h"
#include "policy/policy.h"
#include "steering/tables.h"

namespace {

constexpr uint16_t kFamily = 0x1d;
constexpr int32_t kRefused = 1;

zebusr_cap_info caps[ZEBUSR_NUM_CPUS];
zebusr_flow_table gflows;
std::atomic<uint64_t> served{0};

// ---- the refusing kernel -------------------------------------------------

void kernel_refuse_all(int fd) {
    uint8_t req[ZEBUSR_NL_MSG_SIZE];
    for (;;) {
        if (recv(fd, req, sizeof(req), 0) <= 0)
            return;
        // 20-byte headers, then one 8-byte attribute holding the code.
        uint8_t rep[28] = {};
        uint32_t len = sizeof(rep);
        uint16_t nla[2] = {8, 1};
        memcpy(rep + 0, &len, 4);
        memcpy(rep + 4, &kFamily, 2);
        memcpy(rep + 8, req + 8, 4);  // the request's sequence number
        rep[16] = ZEBUSR_GENL_CMD_SUGG;
        rep[17] = 1;
        memcpy(rep + 20, nla, 4);
        memcpy(rep + 24, &kRefused, 4);
        served.fetch_add(1, std::memory_order_relaxed);
        if (send(fd, rep, sizeof(rep), 0) < 0)
            return;
    }
}

struct Kernel {
    int kernel_fd;
    std::thread thread;
};

Kernel kernel_start() {
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sv) != 0)
        abort();
    sk_fd = sv[0];
    zeb_family_id = kFamily;
    log_fp = nullptr;
    served = 0;
    return {sv[1], std::thread(kernel_refuse_all, sv[1])};
}

void kernel_stop(Kernel &k) {
    shutdown(sk_fd, SHUT_RDWR);
    k.thread.join();
    close(sk_fd);
    close(k.kernel_fd);
}

// ---- worst-case tables ---------------------------------------------------

// Entry i names CPU i. One loaded silver CPU at index 0, found last by the
// backward search; the four gold CPUs all refuse: 4 suggestions.
void tables_silver_to_gold() {
    for (uint16_t i = 0; i < ZEBUSR_NUM_CPUS; i++)
        caps[i] = {i == 0 ? 100u : 900000u, 900000, 0, i};
    cap_list = caps;
}

// Every silver CPU has room for every flow: 128 x 4 = 512 suggestions.
void tables_gold_to_silver() {
    for (uint16_t i = 0; i < ZEBUSR_NUM_CPUS; i++)
        caps[i] = {900000, is_silver_cpu(i) ? 900000u : 0u, 0, i};
    gflows.list_len = ZEBUSR_MAX_FLOWS;
    for (int i = 0; i < ZEBUSR_MAX_FLOWS; i++)
        gflows.list[i] = {200, 100, 0, 0x1000u + i, static_cast<uint16_t>(4 + i % 4)};
    cap_list = caps;
    gflow_list = &gflows;
}

// Gold CPU 4 carries every flow and has no capacity left; CPUs 5 to 7 have
// plenty. All but its first flow try all three: 127 x 3 = 381 suggestions.
void tables_balance() {
    for (uint16_t i = 0; i < ZEBUSR_NUM_CPUS; i++) caps[i] = {0, i > 4 ? 900000u : 0u, 0, i};
    gflows.list_len = ZEBUSR_MAX_FLOWS;
    for (int i = 0; i < ZEBUSR_MAX_FLOWS; i++) gflows.list[i] = {200, 100, 0, 0x1000u + i, 4};
    cap_list = caps;
    gflow_list = &gflows;
}

// ---- bare reads of the same fields ---------------------------------------

uint64_t bare_silver_to_gold() {
    uint64_t sum = 0;
    for (int i = ZEBUSR_NUM_CPUS - 1; i >= 0; i--)
        sum += cap_list[i].cpu + cap_list[i].pps_capacity;
    for (int j = 0; j < ZEBUSR_NUM_CPUS; j++) sum += cap_list[j].cpu;
    return sum;
}

uint64_t bare_flows_against_caps() {
    uint64_t sum = gflow_list->list_len;
    for (int j = 0; j < ZEBUSR_NUM_CPUS; j++) sum += cap_list[j].cpu + cap_list[j].avg_pps_capacity;
    for (int i = 0; i < ZEBUSR_MAX_FLOWS; i++) {
        const zebusr_gflow_info *f = &gflow_list->list[i];
        sum += f->hash + f->cpu + f->avg_pps + f->rx_pps;
        for (int j = 0; j < ZEBUSR_NUM_CPUS; j++)
            sum += cap_list[j].cpu + cap_list[j].avg_pps_capacity;
    }
    return sum;
}

// ---- runs ----------------------------------------------------------------

using Clock = std::chrono::steady_clock;

double ns_since(Clock::time_point t0) {
    return std::chrono::duration<double, std::nano>(Clock::now() - t0).count();
}

void report(benchmark::State &state, double policy_ns, uint64_t (*bare)()) {
    int64_t n = state.iterations();
    double suggestions = static_cast<double>(served.load()) / static_cast<double>(n);

    Clock::time_point t0 = Clock::now();
    for (int64_t i = 0; i < n; i++) {
        benchmark::DoNotOptimize(bare());
        benchmark::ClobberMemory();
    }
    double bare_ns = ns_since(t0) / static_cast<double>(n);

    uint64_t per_call = static_cast<uint64_t>(suggestions + 0.5);
    t0 = Clock::now();
    for (int64_t i = 0; i < n; i++)
        for (uint64_t s = 0; s < per_call; s++)
            benchmark::DoNotOptimize(zebusr_try_to_move_flow(4, 5, 0x1000, ZEB_SUGG_BAL));
    double exchange_ns = ns_since(t0) / static_cast<double>(n);

    state.counters["suggestions"] = suggestions;
    state.counters["bare_ns"] = bare_ns;
    state.counters["x_bare"] = policy_ns / bare_ns;
    state.counters["exchange_ns"] = exchange_ns;
    state.counters["x_exchange"] = policy_ns / exchange_ns;
}

void run_policy(benchmark::State &state, void (*tables)(), int (*policy)(), uint64_t (*bare)()) {
    Kernel k = kernel_start();
    tables();
    Clock::time_point t0 = Clock::now();
    for (auto _ : state)
        if (policy() != -1)
            state.SkipWithError("the refusing kernel accepted a move");
    double policy_ns = ns_since(t0) / static_cast<double>(state.iterations());
    report(state, policy_ns, bare);
    state.SetLabel("netlink exchange with a peer thread included");
    kernel_stop(k);
}

void run_bare(benchmark::State &state, void (*tables)(), uint64_t (*bare)()) {
    tables();
    for (auto _ : state) {
        benchmark::DoNotOptimize(bare());
        benchmark::ClobberMemory();
    }
}

void BM_SilverToGold_AllRefused(benchmark::State &state) {
    run_policy(state, tables_silver_to_gold, zebusr_move_loaded_silver_cpu_to_gold,
               bare_silver_to_gold);
}
void BM_SilverToGold_BareReads(benchmark::State &state) {
    run_bare(state, tables_silver_to_gold, bare_silver_to_gold);
}
void BM_GoldToSilver_AllRefused(benchmark::State &state) {
    run_policy(state, tables_gold_to_silver, zebusr_move_gold_flow_down_to_silver,
               bare_flows_against_caps);
}
void BM_GoldToSilver_BareReads(benchmark::State &state) {
    run_bare(state, tables_gold_to_silver, bare_flows_against_caps);
}
void BM_Balance_AllRefused(benchmark::State &state) {
    run_policy(state, tables_balance, zebusr_balance_gold_flows, bare_flows_against_caps);
}
void BM_Balance_BareReads(benchmark::State &state) {
    run_bare(state, tables_balance, bare_flows_against_caps);
}

BENCHMARK(BM_SilverToGold_AllRefused)->UseRealTime();
BENCHMARK(BM_SilverToGold_BareReads);
BENCHMARK(BM_GoldToSilver_AllRefused)->UseRealTime();
BENCHMARK(BM_GoldToSilver_BareReads);
BENCHMARK(BM_Balance_AllRefused)->UseRealTime();
BENCHMARK(BM_Balance_BareReads);

}  // namespace
