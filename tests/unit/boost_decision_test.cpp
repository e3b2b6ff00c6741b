// Which processes get boosted, and the exact bytes of both core requests.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "boost/boost.h"
#include "core/log.h"
#include "genl_request.h"
#include "netlink/genl_family.h"
#include "test_support.h"

namespace {

using zt::Bytes;
using Msgs = std::vector<std::string>;
using Pids = std::vector<uint32_t>;

constexpr uint16_t kCoreId = 0x1e;
constexpr uint32_t kStartSeq = 7;
constexpr uint32_t kReplySeq = 500;

struct Proc {
    uint64_t tx_bps;
    uint32_t pid, boost_remaining_ms;
};
using Procs = std::vector<Proc>;

// The 528-byte throughput record, written from its offsets.
Bytes bps_record(const Procs &procs, uint16_t list_len, uint8_t valid = 1) {
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

// The whole zero-filled record.
const Bytes kQuery = zt::request_image(552, kCoreId, kStartSeq, 1, 532, 3);

// Sent without awaiting a reply, so it carries the query reply's successor.
Bytes boost_request(const Pids &pids) {
    Bytes b = zt::request_image(424, kCoreId, kReplySeq + 1, 2, 404, 4);
    for (size_t n = 0; n < pids.size(); n++) {
        zt::put_u32(b, 24 + 12 * n, 1);
        zt::put_u32(b, 24 + 12 * n + 4, 10000);
        zt::put_u32(b, 24 + 12 * n + 8, pids[n]);
    }
    zt::put_u16(b, 24 + 392, static_cast<uint16_t>(pids.size()));
    zt::put_u8(b, 24 + 394, 1);
    return b;
}

// Fast senders 1000, 1001, ... with at most 1000 ms left, and their pids.
Procs fast_senders(uint32_t n) {
    Procs out;
    for (uint32_t i = 0; i < n; i++) out.push_back({600000000ULL + i, 1000 + i, i * 30});
    return out;
}
Pids fast_pids(uint32_t n) {
    Pids out;
    for (uint32_t i = 0; i < n; i++) out.push_back(1000 + i);
    return out;
}

class BoostTest : public ::testing::Test {
   protected:
    void SetUp() override { dulox_family_id = kCoreId; }
    zt::LogCapture log{true};
    zt::FakeKernel kernel{&duloxusr_genl_sk_fd};

    // One evaluation against one answer; gives every request sent.
    std::vector<Bytes> evaluate(const Bytes &answer, uint16_t reply_type = 0x20) {
        seq_num = kStartSeq;
        log.clear();
        kernel.queue(zt::reply(kReplySeq, answer, reply_type));
        duloxusr_evalute_pid_bps_info();
        return kernel.requests();
    }
};

TEST_F(BoostTest, ChoosesFastSendersWithLittleBoostLeft) {
    const Procs all32 = fast_senders(32);
    const struct {
        const char *name;
        Procs procs;
        uint16_t list_len;
        uint8_t valid;
        Pids boosted;
    } cases[] = {
        {"mixed", {{600000000, 101, 0}, {400000000, 102, 0}, {900000000, 103, 5000}}, 3, 1, {101}},
        {"rate bound", {{500000000, 201, 0}, {500000001, 202, 0}}, 2, 1, {202}},
        {"remaining bound", {{600000000, 301, 1000}, {600000000, 302, 1001}}, 2, 1, {301}},
        {"nobody qualifies", {{500000000, 501, 0}, {900000000, 502, 1001}}, 2, 1, {}},
        {"past list_len", all32, 2, 1, fast_pids(2)},
        {"32 in one request", all32, 32, 1, fast_pids(32)},
        {"list_len 33", all32, 33, 1, {}},
        {"valid 0", all32, 32, 0, {}},
        {"valid 2", all32, 32, 2, {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<Bytes> want = {kQuery};
        if (!c.boosted.empty())
            want.push_back(boost_request(c.boosted));
        EXPECT_EQ(evaluate(bps_record(c.procs, c.list_len, c.valid)), want);
        EXPECT_EQ(seq_num.load(), kReplySeq + 1);
    }
}

TEST_F(BoostTest, VerboseShowsTheExchange) {
    evaluate(bps_record({{600000000, 101, 0}, {UINT64_MAX, 7, UINT32_MAX}, {1, 8, 1001}}, 3));
    const std::string text = log.text();
    for (const char *banner : {"########## PID - BPS REQUESTED ############\n\n",
                               "########## PID - BYTE RESPONSE SUCCESS ############\n\n",
                               "########## PID - BOOST REQUESTED ############\n\n"})
        EXPECT_NE(text.find(banner), std::string::npos) << banner;
    EXPECT_TRUE(log.contains("list_len = 3 | timestamp = 1234"));
    // The remaining time is printed signed.
    EXPECT_TRUE(log.contains(
        "pid[1] = 7\t| tx_bps[1] = 18446744073709551615 | boost_remaining_ms[1] = -1"));
    EXPECT_TRUE(log.contains("pid[0] = 101\t| boost_en[0] = 1 | boost_period[0] = 10000"));
    // Decisions are HIGH, whatever the rate once boost is left; the time unsigned here.
    EXPECT_EQ(log.messages("HIGH"),
              (Msgs{"Boosting pid 101 with bps 600000000",
                    "pid 7 with bps 18446744073709551615 has 4294967295 ms of boost remaining",
                    "pid 8 with bps 1 has 1001 ms of boost remaining"}));
}

TEST_F(BoostTest, FailedQueryStopsTheCall) {
    EXPECT_EQ(evaluate(bps_record(fast_senders(2), 2), 2 /* NLMSG_ERROR */),
              std::vector<Bytes>{kQuery});
    EXPECT_EQ(seq_num.load(), kStartSeq);
    EXPECT_EQ(log.messages("ERR"), Msgs{"netlink failed to send to fd"});
    EXPECT_TRUE(log.contains("Failed to query pid bps list from kernel"));
}

}  // namespace
