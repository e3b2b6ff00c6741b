// A zero-filled request image with its netlink header, generic header and
// attribute header written from their offsets; the payload is left to the test.
#pragma once

#include <unistd.h>

#include "test_support.h"

namespace zt {

inline Bytes request_image(uint32_t len, uint16_t family, uint32_t seq, uint8_t cmd,
                           uint16_t nla_len, uint16_t nla_type) {
    Bytes b(len, 0);
    put_u32(b, 0, len);
    put_u16(b, 4, family);
    put_u16(b, 6, 1);  // NLM_F_REQUEST
    put_u32(b, 8, seq);
    put_u32(b, 12, static_cast<uint32_t>(getpid()));
    put_u8(b, 16, cmd);
    put_u8(b, 17, 1);  // generic netlink version
    put_u16(b, 20, nla_len);
    put_u16(b, 22, nla_type);
    return b;
}

}  // namespace zt
