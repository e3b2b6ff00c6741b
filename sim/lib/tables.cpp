#include "tables.hpp"

#include "model.hpp"

namespace sim {

Bytes encode_caps(std::span<const CapEntry> entries) {
    Bytes p(kTablePage, 0);
    for (size_t i = 0; i < entries.size() && i < kCapEntries; ++i) {
        size_t o = i * kCapEntryLen;
        put_u64(p, o, entries[i].pps_capacity);
        put_u64(p, o + 8, entries[i].avg_pps_capacity);
        put_u64(p, o + 16, entries[i].bps);
        put_u16(p, o + 24, entries[i].cpu);
    }
    return p;
}

Bytes encode_flows(std::span<const FlowEntry> entries, std::optional<uint16_t> list_len) {
    Bytes p(kTablePage, 0);
    put_u16(p, 0, list_len.value_or(uint16_t(entries.size())));
    for (size_t i = 0; i < entries.size() && i < kFlowFit; ++i) {
        size_t o = kFlowFirst + i * kFlowEntryLen;
        put_u64(p, o, entries[i].rx_pps);
        put_u64(p, o + 8, entries[i].avg_pps);
        put_u64(p, o + 16, entries[i].rx_bps);
        put_u32(p, o + 24, entries[i].hash);
        put_u16(p, o + 28, entries[i].cpu);
    }
    return p;
}

std::vector<CapEntry> decode_caps(std::span<const uint8_t> p) {
    std::vector<CapEntry> v;
    for (size_t i = 0; i < kCapEntries; ++i) {
        size_t o = i * kCapEntryLen;
        v.push_back({get_u64(p, o), get_u64(p, o + 8), get_u64(p, o + 16), get_u16(p, o + 24)});
    }
    return v;
}

std::vector<FlowEntry> decode_flows(std::span<const uint8_t> p, size_t max) {
    std::vector<FlowEntry> v;
    size_t n = get_u16(p, 0);
    for (size_t i = 0; i < n && i < max && i < kFlowFit; ++i) {
        size_t o = kFlowFirst + i * kFlowEntryLen;
        v.push_back({get_u64(p, o), get_u64(p, o + 8), get_u64(p, o + 16), get_u32(p, o + 24),
                     get_u16(p, o + 28)});
    }
    return v;
}

nlohmann::ordered_json caps_json(const std::vector<CapEntry> &v) {
    nlohmann::ordered_json a = nlohmann::ordered_json::array();
    for (const auto &c : v)
        a.push_back({{"cpu", c.cpu},
                     {"pps_capacity", c.pps_capacity},
                     {"avg_pps_capacity", c.avg_pps_capacity},
                     {"bps", c.bps}});
    return a;
}

nlohmann::ordered_json flows_json(const std::vector<FlowEntry> &v) {
    nlohmann::ordered_json a = nlohmann::ordered_json::array();
    for (const auto &f : v)
        a.push_back({{"hash", hash_str(f.hash)},
                     {"cpu", f.cpu},
                     {"rx_pps", f.rx_pps},
                     {"avg_pps", f.avg_pps},
                     {"rx_bps", f.rx_bps}});
    return a;
}

}  // namespace sim
