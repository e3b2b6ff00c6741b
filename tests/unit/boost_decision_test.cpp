// Which processes get boosted, and the exact bytes of both core requests.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "boost/boost.h"
#include "core/log.h"
#include "netlink/genl_family.h"
#include "test_support.h"

namespace {

using zt::Bytes;

constexpr uint16_t kCoreId = 0x1e;
constexpr uint32_t kStartSeq = 7;
constexpr uint32_t kReplySeq = 500;

struct Proc {
    uint64_t tx_bps;
    uint32_t pid;
    uint32_t boost_remaining_ms;
};

// The 528-byte throughput record, written from its offsets.
Bytes bps_record(const std::vector<Proc> &procs, uint16_t list_len, uint8_t valid) {
    Bytes p(528, 0);
    for (size_t i = 0; i < procs.size(); i++) {
        zt::put_u64(p, 16 * i, procs[i].tx_bps);
        zt::put_u32(p, 16 * i + 8, procs[i].pid);
        zt::put_u32(p, 16 * i + 12, procs[i].boost_remaining_ms);
    }
    zt::put_u64(p, 512, 1234);
    zt::put_u16(p, 520, list_len);
    zt::put_u8(p, 522, valid);
    return p;
}

Bytes request(uint32_t len, uint32_t seq, uint8_t cmd, uint16_t nla_len, uint16_t type) {
    Bytes b(len, 0);
    zt::put_u32(b, 0, len);
    zt::put_u16(b, 4, kCoreId);
    zt::put_u16(b, 6, 1);
    zt::put_u32(b, 8, seq);
    zt::put_u32(b, 12, static_cast<uint32_t>(getpid()));
    zt::put_u8(b, 16, cmd);
    zt::put_u8(b, 17, 1);
    zt::put_u16(b, 20, nla_len);
    zt::put_u16(b, 22, type);
    return b;
}

Bytes boost_request(uint32_t seq, const std::vector<uint32_t> &pids) {
    Bytes b = request(424, seq, 2, 404, 4);
    for (size_t n = 0; n < pids.size(); n++) {
        zt::put_u32(b, 24 + 12 * n, 1);
        zt::put_u32(b, 24 + 12 * n + 4, 10000);
        zt::put_u32(b, 24 + 12 * n + 8, pids[n]);
    }
    zt::put_u16(b, 24 + 392, static_cast<uint16_t>(pids.size()));
    zt::put_u8(b, 24 + 394, 1);
    return b;
}

std::vector<Proc> fast_senders(uint32_t n) {
    std::vector<Proc> out;
    for (uint32_t i = 0; i < n; i++) out.push_back({600000000ULL + i, 1000 + i, i * 30});
    return out;
}

std::vector<uint32_t> first_pids(const std::vector<Proc> &procs, size_t n) {
    std::vector<uint32_t> out;
    for (size_t i = 0; i < n; i++) out.push_back(procs[i].pid);
    return out;
}

class BoostTest : public ::testing::Test {
   protected:
    void SetUp() override {
        seq_num = kStartSeq;
        dulox_family_id = kCoreId;
    }
    zt::LogCapture log{true};
    zt::FakeKernel kernel{&duloxusr_genl_sk_fd};

    std::vector<Bytes> evaluate(const Bytes &record, uint16_t reply_type = 0x20) {
        seq_num = kStartSeq;
        log.clear();
        kernel.queue(zt::reply(kReplySeq, record, reply_type));
        duloxusr_evalute_pid_bps_info();
        return kernel.requests();
    }
};

TEST_F(BoostTest, ChoosesFastSendersWithLittleBoostLeft) {
    const std::vector<Proc> all32 = fast_senders(32);
    const struct {
        const char *name;
        std::vector<Proc> procs;
        uint16_t list_len;
        uint8_t valid;
        std::vector<uint32_t> boosted;
    } cases[] = {
        {"mixed", {{600000000, 101, 0}, {400000000, 102, 0}, {900000000, 103, 5000}}, 3, 1, {101}},
        {"rate bound", {{500000000, 201, 0}, {500000001, 202, 0}}, 2, 1, {202}},
        {"remaining bound", {{600000000, 301, 1000}, {600000000, 302, 1001}}, 2, 1, {301}},
        {"answer order",
         {{400000000, 401, 0}, {700000000, 402, 0}, {800000000, 403, 9}},
         3,
         1,
         {402, 403}},
        {"past list_len", all32, 2, 1, first_pids(all32, 2)},
        {"32 in one request", all32, 32, 1, first_pids(all32, 32)},
        {"list_len 33", all32, 33, 1, {}},
        {"valid 0", all32, 32, 0, {}},
        {"valid 2", all32, 32, 2, {}},
        {"nobody qualifies", {{500000000, 501, 0}, {900000000, 502, 1001}}, 2, 1, {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<Bytes> sent = evaluate(bps_record(c.procs, c.list_len, c.valid));

        ASSERT_EQ(sent.size(), c.boosted.empty() ? 1u : 2u);
        EXPECT_EQ(sent[0], request(552, kStartSeq, 1, 532, 3));
        // No reply is read, so the boost carries the query reply's successor and keeps it.
        if (!c.boosted.empty())
            EXPECT_EQ(sent[1], boost_request(kReplySeq + 1, c.boosted));
        EXPECT_EQ(seq_num.load(), kReplySeq + 1);
        EXPECT_EQ(log.contains("########## PID - BOOST REQUESTED ############"),
                  !c.boosted.empty());
    }
}

TEST_F(BoostTest, DecisionsAreLoggedEvenWithoutVerbose) {
    verbose_log_enabled = 0;
    evaluate(bps_record({{600000000, 101, 0}, {400000000, 102, 0}, {900000000, 103, 5000}}, 3, 1));

    EXPECT_EQ(log.messages(), (std::vector<std::string>{
                                  "Boosting pid 101 with bps 600000000",
                                  "pid 103 with bps 900000000 has 5000 ms of boost remaining"}));
    EXPECT_EQ(log.messages("HIGH").size(), 2u);
}

TEST_F(BoostTest, VerboseShowsTheExchange) {
    evaluate(bps_record({{600000000, 101, 0}, {UINT64_MAX, 7, UINT32_MAX}}, 2, 1));

    const std::string text = log.text();
    for (const char *banner : {"########## PID - BPS REQUESTED ############\n\n",
                               "########## PID - BYTE RESPONSE SUCCESS ############\n\n",
                               "########## PID - BOOST REQUESTED ############\n\n"})
        EXPECT_NE(text.find(banner), std::string::npos) << banner;
    EXPECT_TRUE(log.contains("list_len = 2 | timestamp = 1234"));
    // The remaining time is printed signed.
    EXPECT_TRUE(log.contains(
        "pid[1] = 7\t| tx_bps[1] = 18446744073709551615 | boost_remaining_ms[1] = -1"));
    EXPECT_TRUE(log.contains("pid[0] = 101\t| boost_en[0] = 1 | boost_period[0] = 10000"));
}

TEST_F(BoostTest, FailedQueryStopsTheCall) {
    std::vector<Bytes> sent = evaluate(bps_record(fast_senders(2), 2, 1), 2 /* NLMSG_ERROR */);

    EXPECT_EQ(sent.size(), 1u);
    EXPECT_EQ(seq_num.load(), kStartSeq);
    EXPECT_EQ(log.messages("ERR"), (std::vector<std::string>{"netlink failed to send to fd"}));
    EXPECT_TRUE(log.contains("Failed to query pid bps list from kernel"));
}

}  // namespace
