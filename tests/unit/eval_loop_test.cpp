// The sync request, and the one connection failure the simulator cannot
// provoke: a socket that cannot be made at all.
#include "steering/eval_loop.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "core/log.h"
#include "genl_request.h"
#include "netlink/genl_family.h"
#include "netlink/nl_msg.h"
#include "test_support.h"

namespace {

using Msgs = std::vector<std::string>;

TEST(SyncTest, SendsCommandFourWithAZeroRecordAndHandsBackTheModulesCode) {
    zt::LogCapture log{true};
    zt::FakeKernel kernel{&sk_fd};
    zeb_family_id = 0x1d;
    for (int32_t code : {0, -2, 5, -1}) {
        seq_num = 7;
        kernel.queue_code(code);
        EXPECT_EQ(zebusr_sync(), code);
        EXPECT_EQ(kernel.requests(),
                  std::vector<zt::Bytes>{zt::request_image(36, 0x1d, 7, 4, 16, 3)});
    }
    // The banner carries its own newline: an empty line follows it.
    EXPECT_NE(log.text().find("########## SYNC START - seq_num 7 #############\n\n"),
              std::string::npos);

    log.clear();
    sk_fd = -1;
    EXPECT_EQ(zebusr_sync(), -1);
    EXPECT_EQ(log.messages("MED"), Msgs{"netlink failed to send to fd"});
}

TEST(ConnectTest, SocketThatCannotBeMadePausesAndKeepsTheNegativeDescriptor) {
    zt::LogCapture log{true};
    zt::sleep_requests().clear();
    int next_fd = dup(0);  // the lowest free descriptor becomes the limit
    ASSERT_GE(next_fd, 0);
    close(next_fd);
    rlimit saved;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    rlimit tight = {static_cast<rlim_t>(next_fd), saved.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
    int rc = zebusr_connect_to_dulox_zeb();
    setrlimit(RLIMIT_NOFILE, &saved);

    EXPECT_EQ(rc, -1);
    EXPECT_LT(sk_fd, 0);
    EXPECT_EQ(zt::sleep_requests(), std::vector<unsigned>{3});
    EXPECT_EQ(log.messages("MED"), Msgs{"zebusr_genl_open_sock failed"});
}

}  // namespace
