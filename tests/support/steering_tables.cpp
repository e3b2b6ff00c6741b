#include "steering_tables.h"

namespace zt {

std::vector<Cap> pps(const std::vector<uint64_t> &v, const std::vector<uint16_t> &cpus) {
    std::vector<Cap> caps;
    for (size_t i = 0; i < v.size(); i++) caps.push_back({cpus[i], v[i], 0});
    return caps;
}

std::vector<Cap> avg(const std::vector<uint64_t> &v, const std::vector<uint16_t> &cpus) {
    std::vector<Cap> caps;
    for (size_t i = 0; i < v.size(); i++) caps.push_back({cpus[i], 0, v[i]});
    return caps;
}

Bytes cap_table(const std::vector<Cap> &caps) {
    Bytes b(208, 0);
    for (size_t i = 0; i < caps.size() && i < 8; i++) {
        put_u64(b, 26 * i + 0, caps[i].pps);
        put_u64(b, 26 * i + 8, caps[i].avg);
        put_u64(b, 26 * i + 16, caps[i].bps);
        put_u16(b, 26 * i + 24, caps[i].cpu);
    }
    return b;
}

Bytes flow_table(const std::vector<Flow> &flows, int list_len) {
    Bytes b(3842, 0);
    put_u16(b, 0, static_cast<uint16_t>(list_len < 0 ? flows.size() : list_len));
    for (size_t i = 0; i < flows.size() && i < 128; i++) {
        size_t at = 2 + 30 * i;
        put_u64(b, at + 0, flows[i].rx_pps);
        put_u64(b, at + 8, flows[i].avg_pps);
        put_u64(b, at + 16, flows[i].rx_bps);
        put_u32(b, at + 24, flows[i].hash);
        put_u16(b, at + 28, flows[i].cpu);
    }
    return b;
}

std::ostream &operator<<(std::ostream &os, const Sugg &s) {
    return os << std::hex << "{hash 0x" << s.hash << std::dec << " type " << s.type << " cur "
              << s.cur << " dest " << s.dest << " nlmsg_type 0x" << std::hex << s.nlmsg_type
              << std::dec << " cmd " << unsigned{s.cmd} << "}";
}

std::vector<Sugg> decode_suggestions(const std::vector<Bytes> &requests) {
    std::vector<Sugg> out;
    for (const Bytes &r : requests) {
        if (r.size() != 36)
            out.push_back({0, 0, 0, 0, 0, 0xff});
        else
            out.push_back({get_u32(r, 24), get_u32(r, 28), get_u16(r, 32), get_u16(r, 34),
                           get_u16(r, 4), r[16]});
    }
    return out;
}

}  // namespace zt
