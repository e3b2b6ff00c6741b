// Capacity and gold flow tables as the kernel lays them out, and the
// suggestion requests the daemon sends, decoded from their wire bytes.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "test_support.h"

namespace zt {

constexpr uint16_t kZebFamily = 0x1d;

struct Cap {
    uint16_t cpu;
    uint64_t pps;  // pps_capacity
    uint64_t avg;  // avg_pps_capacity
    uint64_t bps = 0;
};

struct Flow {
    uint32_t hash;
    uint16_t cpu;
    uint64_t avg_pps;
    uint64_t rx_pps = 0;
    uint64_t rx_bps = 0;
};

// Entry i names cpus[i]; `pps` sets only pps_capacity and `avg`
// only avg_pps_capacity, so a reader of the wrong field shows.
std::vector<Cap> pps(const std::vector<uint64_t> &v,
                     const std::vector<uint16_t> &cpus = {0, 1, 2, 3, 4, 5, 6, 7});
std::vector<Cap> avg(const std::vector<uint64_t> &v,
                     const std::vector<uint16_t> &cpus = {0, 1, 2, 3, 4, 5, 6, 7});

// Exactly 208 bytes: entry i at 26 * i; entries past `caps` stay zero.
Bytes cap_table(const std::vector<Cap> &caps);
// Exactly 3842 bytes: list_len at 0 (the number of flows unless given),
// entry i at 2 + 30 * i.
Bytes flow_table(const std::vector<Flow> &flows, int list_len = -1);

// A suggestion as it went out on the wire.
struct Sugg {
    uint32_t hash;
    uint32_t type;
    uint16_t cur;
    uint16_t dest;
    uint16_t nlmsg_type = kZebFamily;
    uint8_t cmd = 2;
    bool operator==(const Sugg &) const = default;
};
std::ostream &operator<<(std::ostream &os, const Sugg &s);

// Decodes every request: nlmsg_type @4, cmd @16, record at 24..35. A
// request that is not 36 bytes long decodes with cmd 0xff.
std::vector<Sugg> decode_suggestions(const std::vector<Bytes> &requests);

}  // namespace zt
