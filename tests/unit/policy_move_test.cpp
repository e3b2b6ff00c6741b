// The move attempt: one suggestion request on the wire, the kernel's code
// passed through unchanged, and the local failure that sends nothing.
#include <gtest/gtest.h>
#include <unistd.h>

#include "core/log.h"
#include "netlink/genl_family.h"
#include "netlink/nl_msg.h"
#include "policy/policy.h"
#include "steering_tables.h"
#include "test_support.h"

namespace {

class MoveAttempt : public ::testing::Test {
   protected:
    void SetUp() override { zeb_family_id = zt::kZebFamily; }
};

TEST_F(MoveAttempt, SendsOneSuggestionLaidOutByteForByte) {
    zt::LogCapture log(false);
    zt::FakeKernel kernel(&sk_fd);
    kernel.next_seq = 41;
    kernel.queue_code(0);
    seq_num = 17;

    ASSERT_EQ(zebusr_try_to_move_flow(6, 2, 0xdeadbeef, 2), 0);

    std::vector<zt::Bytes> sent = kernel.requests();
    ASSERT_EQ(sent.size(), 1u);
    zt::Bytes expected;
    zt::put_u32(expected, 0, 36);
    zt::put_u16(expected, 4, zt::kZebFamily);
    zt::put_u16(expected, 6, 1);
    zt::put_u32(expected, 8, 17);
    zt::put_u32(expected, 12, static_cast<uint32_t>(getpid()));
    zt::put_u8(expected, 16, 2);
    zt::put_u8(expected, 17, 1);
    zt::put_u16(expected, 18, 0);
    zt::put_u16(expected, 20, 16);
    zt::put_u16(expected, 22, 3);
    zt::put_u32(expected, 24, 0xdeadbeef);
    zt::put_u32(expected, 28, 2);
    zt::put_u16(expected, 32, 6);
    zt::put_u16(expected, 34, 2);
    zt::Bytes got = sent[0];
    zt::put_u16(got, 18, 0);  // reserved: no meaning on the wire
    EXPECT_EQ(got, expected);
    EXPECT_EQ(seq_num.load(), 42u);
}

TEST_F(MoveAttempt, PassesTheKernelsCodeThroughUnchanged) {
    zt::LogCapture log(false);
    zt::FakeKernel kernel(&sk_fd);
    const int32_t codes[] = {0, 1, -1, -22, 2147483647};
    for (int32_t code : codes) kernel.queue_code(code);

    for (int32_t code : codes) EXPECT_EQ(zebusr_try_to_move_flow(3, 6, 0, 1), code);
    EXPECT_EQ(kernel.requests().size(), std::size(codes));
}

TEST_F(MoveAttempt, NoReplyIsMinusOne) {
    zt::LogCapture log(false);
    zt::FakeKernel kernel(&sk_fd);

    EXPECT_EQ(zebusr_try_to_move_flow(4, 5, 0x1234, 3), -1);
    EXPECT_EQ(kernel.requests().size(), 1u);
}

TEST_F(MoveAttempt, SendFailureIsLoggedAndNothingIsAwaited) {
    zt::LogCapture log(true);
    int saved = sk_fd;
    sk_fd = -1;

    EXPECT_EQ(zebusr_try_to_move_flow(4, 5, 0x1234, 3), -1);
    sk_fd = saved;
    EXPECT_EQ(log.messages("ERR").back(), "netlink failed to send to fd");
    EXPECT_FALSE(log.contains("  Waiting for kernel to send a msg"));
    EXPECT_FALSE(log.contains("Sent suggestion msg with seq_num 0"));
}

TEST_F(MoveAttempt, VerboseModeNamesTheSequenceNumberSent) {
    zt::FakeKernel kernel(&sk_fd);
    kernel.queue_code(0);
    kernel.queue_code(0);
    seq_num = 7;
    {
        zt::LogCapture quiet(false);
        ASSERT_EQ(zebusr_try_to_move_flow(4, 5, 1, 3), 0);
        EXPECT_TRUE(quiet.messages().empty());
    }
    zt::LogCapture log(true);
    seq_num = 9;
    ASSERT_EQ(zebusr_try_to_move_flow(4, 5, 1, 3), 0);
    std::vector<std::string> mine;
    for (const auto &l : log.lines())
        if (l.func == "zebusr_try_to_move_flow")
            mine.push_back(l.level + " " + l.message);
    std::vector<std::string> expected = {"LOW Sending sugg info to kernel",
                                         "MED Sent suggestion msg with seq_num 9"};
    EXPECT_EQ(mine, expected);
}

}  // namespace
