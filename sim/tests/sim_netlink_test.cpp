// The simulator's wire codec against hand-built bytes at the documented offsets.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "netlink.hpp"
#include "tables.hpp"

namespace {

using namespace sim;

const FamilyIds kIds{30, 31};

// A request as the daemon builds it: header, generic header, one attribute.
Bytes request(uint16_t type, uint8_t cmd, uint16_t attr_type, const Bytes &payload,
              uint32_t seq = 7) {
    Bytes b(20 + align4(4 + payload.size()), 0xee);  // rounding bytes are not cleared
    put_u32(b, 0, uint32_t(20 + align4(4 + payload.size())));
    put_u16(b, 4, type);
    put_u16(b, 6, 1);
    put_u32(b, 8, seq);
    put_u32(b, 12, 4321);
    b[16] = cmd;
    b[17] = 1;
    put_u16(b, 20, uint16_t(4 + payload.size()));
    put_u16(b, 22, attr_type);
    std::copy(payload.begin(), payload.end(), b.begin() + 24);
    return b;
}

Bytes name(const std::string &s) {
    Bytes b(s.begin(), s.end());
    b.push_back(0);
    return b;
}

Bytes sugg(uint32_t hash, uint32_t type, uint16_t cur, uint16_t dest) {
    Bytes p(12);
    put_u32(p, 0, hash);
    put_u32(p, 4, type);
    put_u16(p, 8, cur);
    put_u16(p, 10, dest);
    return p;
}

TEST(Decode, RequestsAsTheDaemonSendsThem) {
    Bytes seg(8);
    put_u32(seg, 0, 0xf457);
    Bytes boost(400, 0);
    put_u32(boost, 0, 1);
    put_u32(boost, 4, 10000);
    put_u32(boost, 8, 4242);
    put_u16(boost, 392, 1);
    boost[394] = 1;

    Request lookup = decode_request(request(16, 3, 2, name("DULOX_ZEB")), kIds);
    EXPECT_EQ(lookup.kind, Kind::Lookup);
    EXPECT_EQ(lookup.family, "DULOX_ZEB");
    EXPECT_EQ(lookup.hdr.len, 36u);
    EXPECT_EQ(decode_request(request(16, 3, 2, name("DULOX_CORE")), kIds).hdr.len, 36u);

    Request s = decode_request(request(30, 2, 3, sugg(0xb0b0, 2, 5, 1)), kIds);
    ASSERT_EQ(s.kind, Kind::Suggestion);
    EXPECT_EQ(s.hdr.len, 36u);
    EXPECT_EQ(s.hdr.seq, 7u);
    EXPECT_EQ(s.sugg.hash, 0xb0b0u);
    EXPECT_EQ(s.sugg.type, 2u);
    EXPECT_EQ(s.sugg.cur_cpu, 5);
    EXPECT_EQ(s.sugg.dest_cpu, 1);

    EXPECT_EQ(decode_request(request(30, 4, 3, Bytes(12, 0)), kIds).kind, Kind::Sync);
    Request sg = decode_request(request(30, 3, 4, seg), kIds);
    ASSERT_EQ(sg.kind, Kind::Segmentation);
    EXPECT_EQ(sg.hdr.len, 32u);
    EXPECT_EQ(sg.seg.hash, 0xf457u);
    EXPECT_EQ(sg.seg.seg_enable, 0u);

    Request q = decode_request(request(31, 1, 3, Bytes(528, 0)), kIds);
    EXPECT_EQ(q.kind, Kind::PidBpsQuery);
    EXPECT_EQ(q.hdr.len, 552u);
    EXPECT_FALSE(q.query_nonzero);

    Request b = decode_request(request(31, 2, 4, boost), kIds);
    ASSERT_EQ(b.kind, Kind::Boost);
    EXPECT_EQ(b.hdr.len, 424u);
    ASSERT_EQ(b.boost.entries.size(), 1u);
    EXPECT_EQ(b.boost.entries[0].pid, 4242u);
    EXPECT_EQ(b.boost.entries[0].boost_period, 10000u);
    EXPECT_EQ(b.boost.valid, 1);
    EXPECT_FALSE(b.boost.stray_bytes);
    boost[386] = 1;  // reserved must stay zero
    EXPECT_TRUE(decode_request(request(31, 2, 4, boost), kIds).boost.stray_bytes);
}

struct Bad {
    const char *what;
    Bytes bytes;
    int error;  // 0: dropped without a reply
};

Bytes with(Bytes b, size_t off, uint32_t v, int width) {
    put_le(b, off, size_t(width), v);
    return b;
}

// Malformed requests are answered as the kernel answers them, never crash.
TEST(Decode, MalformedRequestsGetTheKernelsAnswer) {
    Bytes sync = request(30, 4, 3, Bytes(12, 0));
    const Bad cases[] = {
        {"empty", {}, 0},
        {"shorter than a header", Bytes(15, 0), 0},
        {"nlmsg_len past the datagram", with(sync, 0, 40, 4), 0},
        {"nlmsg_len below a header", with(sync, 0, 8, 4), 0},
        {"no request flag", with(sync, 6, 0, 2), 0},
        {"netlink control type", with(sync, 4, 3, 2), 0},
        {"no generic header", with(Bytes(sync.begin(), sync.begin() + 16), 0, 16, 4), -EINVAL},
        {"unknown family", with(sync, 4, 99, 2), -ENOENT},
        {"unknown steering command", with(sync, 16, 9, 1), -EOPNOTSUPP},
        {"sync attribute of another type", with(sync, 22, 4, 2), -EINVAL},
        {"attribute too short", request(30, 2, 3, Bytes(8, 0)), -EINVAL},
        {"attribute longer than the message", with(sync, 20, 200, 2), -EINVAL},
        {"controller command not GETFAMILY", request(16, 1, 2, name("DULOX_ZEB")), -EOPNOTSUPP},
        {"family name unterminated", request(16, 3, 2, Bytes{'D', 'U', 'L', 'O'}), -EINVAL},
        {"query record short", request(31, 1, 3, Bytes(100, 0)), -EINVAL},
    };
    for (const auto &c : cases) {
        Request r = decode_request(c.bytes, kIds);
        EXPECT_EQ(r.kind, Kind::Malformed) << c.what;
        EXPECT_EQ(r.error, c.error) << c.what;
        EXPECT_FALSE(r.problem.empty()) << c.what;
    }
}

TEST(Encode, FamilyReplyPutsTheNameFirstAndTheIdSecond) {
    Header h{36, 16, 1, 41, 4321};
    Bytes r = encode_family_reply(h, "DULOX_ZEB", 30, 3);
    EXPECT_EQ(get_u32(r, 0), r.size());
    EXPECT_EQ(get_u16(r, 4), 16);
    EXPECT_EQ(get_u32(r, 8), 41u);  // the request's sequence number comes back
    EXPECT_EQ(r[16], 1);            // CTRL_CMD_NEWFAMILY
    EXPECT_EQ(get_u16(r, 20), 14);  // "DULOX_ZEB" and its NUL
    EXPECT_EQ(get_u16(r, 22), 2);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(&r[24])), "DULOX_ZEB");
    size_t second = 20 + align4(14);
    EXPECT_EQ(get_u16(r, second), 6);
    EXPECT_EQ(get_u16(r, second + 2), 1);
    EXPECT_EQ(get_u16(r, second + 4), 30);
    for (uint16_t t : {3, 4, 5}) {  // version, header size, max attribute follow
        second += 8;
        EXPECT_EQ(get_u16(r, second + 2), t);
    }
    Bytes wrong = encode_family_reply(h, "DULOX_CORE", 31, 2, false);
    EXPECT_EQ(get_u16(wrong, 20 + align4(15) + 2), 3);
}

TEST(Encode, ErrorIntegerAndThroughputReplies) {
    Header h{36, 30, 1, 9, 4321};
    Bytes req = request(30, 4, 3, Bytes(12, 0), 9);
    Bytes e = encode_error(h, req, -ENOENT);
    EXPECT_EQ(get_u16(e, 4), 2);
    EXPECT_EQ(get_u32(e, 0), 20u + 36u);
    EXPECT_EQ(get_i32(e, 16), -ENOENT);
    EXPECT_EQ(get_u32(e, 20), 36u);  // the request follows

    Bytes i = encode_int_reply(h, 30, 4, -2);
    EXPECT_EQ(get_u32(i, 0), 28u);
    EXPECT_EQ(get_u32(i, 8), 9u);
    EXPECT_EQ(get_i32(i, 24), -2);

    PidBpsRecord rec;
    rec.entries = {{600000000, 4242, 0}, {1, 2, 5000}};
    rec.list_len = 2;
    rec.timestamp = 1234;
    Bytes p = encode_pid_bps_reply({552, 31, 1, 3, 1}, 31, rec);
    EXPECT_EQ(p.size(), 552u);
    EXPECT_EQ(get_u16(p, 20), 532);
    EXPECT_EQ(get_u64(p, 24), 600000000u);
    EXPECT_EQ(get_u32(p, 24 + 8), 4242u);
    EXPECT_EQ(get_u32(p, 24 + 16 + 12), 5000u);
    EXPECT_EQ(get_u64(p, 24 + 512), 1234u);
    EXPECT_EQ(get_u16(p, 24 + 520), 2);
    EXPECT_EQ(p[24 + 522], 1);
}

TEST(Tables, EntriesSitAtTheirDocumentedOffsets) {
    std::vector<CapEntry> caps(8);
    caps[1] = {7999, 20000, 5, 6};
    Bytes c = encode_caps(caps);
    ASSERT_EQ(c.size(), 4096u);
    EXPECT_EQ(get_u64(c, 26), 7999u);
    EXPECT_EQ(get_u64(c, 26 + 8), 20000u);
    EXPECT_EQ(get_u64(c, 26 + 16), 5u);
    EXPECT_EQ(get_u16(c, 26 + 24), 6);

    std::vector<FlowEntry> flows(2);
    flows[1] = {1, 2, 3, 0xabcd, 7};
    Bytes f = encode_flows(flows);
    EXPECT_EQ(get_u16(f, 0), 2);
    EXPECT_EQ(get_u64(f, 2 + 30), 1u);
    EXPECT_EQ(get_u64(f, 2 + 30 + 8), 2u);
    EXPECT_EQ(get_u64(f, 2 + 30 + 16), 3u);
    EXPECT_EQ(get_u32(f, 2 + 30 + 24), 0xabcdu);
    EXPECT_EQ(get_u16(f, 2 + 30 + 28), 7);
    EXPECT_EQ(get_u16(encode_flows(flows, 200), 0), 200);
    EXPECT_EQ(decode_flows(f)[1].hash, 0xabcdu);
    EXPECT_EQ(decode_caps(c)[1].cpu, 6);
}

}  // namespace
