// Little-endian field access at fixed byte offsets. Every wire format and
// table of the simulator goes through these, never through struct overlays,
// so a layout mistake on the daemon's side cannot be mirrored here.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace sim {

using Bytes = std::vector<uint8_t>;

inline uint64_t get_le(std::span<const uint8_t> b, size_t off, size_t width) {
    uint64_t v = 0;
    for (size_t i = 0; i < width; ++i) v |= uint64_t(b[off + i]) << (8 * i);
    return v;
}
inline uint16_t get_u16(std::span<const uint8_t> b, size_t off) {
    return uint16_t(get_le(b, off, 2));
}
inline uint32_t get_u32(std::span<const uint8_t> b, size_t off) {
    return uint32_t(get_le(b, off, 4));
}
inline uint64_t get_u64(std::span<const uint8_t> b, size_t off) {
    return get_le(b, off, 8);
}
inline int32_t get_i32(std::span<const uint8_t> b, size_t off) {
    return int32_t(get_u32(b, off));
}

inline void put_le(std::span<uint8_t> b, size_t off, size_t width, uint64_t v) {
    for (size_t i = 0; i < width; ++i) b[off + i] = uint8_t(v >> (8 * i));
}
inline void put_u8(std::span<uint8_t> b, size_t off, uint8_t v) {
    b[off] = v;
}
inline void put_u16(std::span<uint8_t> b, size_t off, uint16_t v) {
    put_le(b, off, 2, v);
}
inline void put_u32(std::span<uint8_t> b, size_t off, uint32_t v) {
    put_le(b, off, 4, v);
}
inline void put_u64(std::span<uint8_t> b, size_t off, uint64_t v) {
    put_le(b, off, 8, v);
}
inline void put_i32(std::span<uint8_t> b, size_t off, int32_t v) {
    put_u32(b, off, uint32_t(v));
}

inline size_t align4(size_t n) {
    return (n + 3) & ~size_t(3);
}

}  // namespace sim
