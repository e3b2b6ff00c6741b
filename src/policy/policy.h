// Placement decisions: every move goes through zebusr_try_to_move_flow.
#pragma once

#include <cstdint>

constexpr uint64_t ZEBUSR_LOADED_SILVER_PPS = 8000;
constexpr uint64_t ZEBUSR_HEADROOM_PPS = 20000;
constexpr uint16_t ZEBUSR_FIRST_GOLD_CPU = 4;

int is_silver_cpu(uint16_t cpu);
int zebusr_try_to_move_flow(uint16_t cur_cpu, uint16_t dest_cpu, uint32_t hash, uint32_t sugg_type);
int zebusr_move_loaded_silver_cpu_to_gold(void);
int zebusr_move_gold_flow_down_to_silver(void);
int zebusr_balance_gold_flows(void);

// True, after an ERR line naming the caller, when the cycle's capacity or
// gold flow mapping is missing.
bool zebusr_gold_maps_missing(const char *func, unsigned line);
#define ZEBUSR_GOLD_MAPS_MISSING() zebusr_gold_maps_missing(__func__, __LINE__)
