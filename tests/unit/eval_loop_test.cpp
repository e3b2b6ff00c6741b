// The sync request and the connection's failure paths that a unit test can
// reach: a socket that cannot be made, and a steering family that the real
// generic netlink controller does not know.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "core/log.h"
#include "netlink/genl_family.h"
#include "netlink/nl_msg.h"
#include "steering/eval_loop.h"
#include "test_support.h"

namespace {

using zt::Bytes;

constexpr uint16_t kZebId = 0x1d;

class SyncTest : public ::testing::Test {
  protected:
    void SetUp() override {
        seq_num = 7;
        zeb_family_id = kZebId;
    }
    zt::LogCapture log{true};
    zt::FakeKernel kernel{&sk_fd};
};

TEST_F(SyncTest, RequestIsCommandFourWithAZeroSuggestion) {
    kernel.queue_code(0);
    EXPECT_EQ(zebusr_sync(), 0);

    Bytes want;
    zt::put_u32(want, 0, 36);
    zt::put_u16(want, 4, kZebId);
    zt::put_u16(want, 6, 1);
    zt::put_u32(want, 8, 7);
    zt::put_u32(want, 12, static_cast<uint32_t>(getpid()));
    zt::put_u8(want, 16, 4);
    zt::put_u8(want, 17, 1);
    zt::put_u16(want, 18, 0);
    zt::put_u16(want, 20, 16);
    zt::put_u16(want, 22, 3);
    zt::put_u32(want, 24, 0);  // hash
    zt::put_u32(want, 28, 0);  // sugg_type
    zt::put_u16(want, 32, 0);  // cur_cpu
    zt::put_u16(want, 34, 0);  // dest_cpu
    std::vector<Bytes> sent = kernel.requests();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0], want);
    // The banner carries its own newline: an empty line follows it.
    EXPECT_NE(log.text().find("########## SYNC START - seq_num 7 #############\n\n"),
              std::string::npos);
}

TEST_F(SyncTest, ReturnsTheModulesCodeUnchangedOrMinusOne) {
    for (int32_t code : {0, -2, 5, -1}) {
        kernel.queue_code(code);
        EXPECT_EQ(zebusr_sync(), code);
    }
    EXPECT_EQ(zebusr_sync(), -1) << "no reply within the receive time-out";
    EXPECT_EQ(kernel.requests().size(), 5u);

    log.clear();
    sk_fd = -1;
    EXPECT_EQ(zebusr_sync(), -1);
    EXPECT_EQ(log.messages("MED"), std::vector<std::string>{"netlink failed to send to fd"});
    sk_fd = kernel.daemon_fd();
}

class ConnectTest : public ::testing::Test {
  protected:
    void SetUp() override { zt::sleep_requests().clear(); }
    zt::LogCapture log{true};

    static bool fd_open(int fd) { return fcntl(fd, F_GETFD) != -1 || errno != EBADF; }
};

TEST_F(ConnectTest, AbsentFamilyClosesTheSocketAndPauses) {
    EXPECT_EQ(zebusr_connect_to_dulox_zeb(), -1);
    ASSERT_GE(sk_fd, 0);
    EXPECT_FALSE(fd_open(sk_fd));
    EXPECT_EQ(zt::sleep_requests(), std::vector<unsigned>{3});
    EXPECT_TRUE(log.contains("zebusr_genl_open_sock complete: sk_fd = " + std::to_string(sk_fd)));
    EXPECT_TRUE(log.contains("zebusr_genl_init_sock failed"));
    EXPECT_FALSE(log.contains("zebusr_genl_init_sock complete for ZEBUSR_GENL_FAMILY_ZEB"));
    EXPECT_TRUE(log.messages("HIGH").empty());
}

TEST_F(ConnectTest, SocketThatCannotBeMadePausesAndKeepsTheNegativeDescriptor) {
    // Allow no new descriptor at all so that socket() fails.
    int next_fd = dup(0);
    ASSERT_GE(next_fd, 0);
    close(next_fd);
    struct rlimit saved;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    struct rlimit tight = saved;
    tight.rlim_cur = static_cast<rlim_t>(next_fd);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);

    int rc = zebusr_connect_to_dulox_zeb();
    setrlimit(RLIMIT_NOFILE, &saved);

    EXPECT_EQ(rc, -1);
    EXPECT_LT(sk_fd, 0);
    EXPECT_EQ(zt::sleep_requests(), std::vector<unsigned>{3});
    EXPECT_TRUE(log.contains("zebusr_genl_open_sock failed"));
    EXPECT_FALSE(log.contains("zebusr_genl_init_sock failed"));
}

}  // namespace
