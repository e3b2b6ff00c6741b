// The three shared tables as byte pages, encoded from their documented offsets.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <vector>

#include "bytes.hpp"

namespace sim {

inline constexpr size_t kTablePage = 4096;
inline constexpr size_t kCapEntryLen = 26;  // 3 x u64, u16 cpu
inline constexpr size_t kCapEntries = 8;
inline constexpr size_t kFlowEntryLen = 30;  // 3 x u64, u32 hash, u16 cpu
inline constexpr size_t kFlowFirst = 2;      // after the u16 list length
inline constexpr size_t kFlowFit = (kTablePage - kFlowFirst) / kFlowEntryLen;

struct CapEntry {
    uint64_t pps_capacity = 0;
    uint64_t avg_pps_capacity = 0;
    uint64_t bps = 0;
    uint16_t cpu = 0;
};

struct FlowEntry {
    uint64_t rx_pps = 0;
    uint64_t avg_pps = 0;
    uint64_t rx_bps = 0;
    uint32_t hash = 0;
    uint16_t cpu = 0;
};

Bytes encode_caps(std::span<const CapEntry> entries);
// Entries past what a page holds are dropped; list_len defaults to the count.
Bytes encode_flows(std::span<const FlowEntry> entries, std::optional<uint16_t> list_len = {});

std::vector<CapEntry> decode_caps(std::span<const uint8_t> page);
std::vector<FlowEntry> decode_flows(std::span<const uint8_t> page, size_t max = kFlowFit);

// As tables.jsonl shows them.
nlohmann::ordered_json caps_json(const std::vector<CapEntry> &v);
nlohmann::ordered_json flows_json(const std::vector<FlowEntry> &v);

}  // namespace sim
