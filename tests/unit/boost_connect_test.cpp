// The core-driver connection against this machine's real netlink controller,
// which knows no "DULOX_CORE" and answers every lookup with NLMSG_ERROR.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "boost/boost.h"
#include "netlink/genl_family.h"
#include "test_support.h"

namespace {

using Msgs = std::vector<std::string>;

bool fd_open(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

// A pipe stands in for the steering socket so that its closing can be seen.
class BoostConnectTest : public ::testing::Test {
   protected:
    void SetUp() override {
        ASSERT_EQ(pipe(steering_), 0);
        sk_fd = steering_[0];
        zt::sleep_requests().clear();
    }
    void TearDown() override {
        if (fd_open(steering_[0]))
            close(steering_[0]);
        close(steering_[1]);
    }
    zt::LogCapture log{true};
    int steering_[2] = {-1, -1};
};

TEST_F(BoostConnectTest, FailedLookupClosesTheSteeringSocketAndKeepsTheCoreOne) {
    EXPECT_EQ(duloxusr_connect_to_dulox_core(), -1);
    EXPECT_FALSE(fd_open(steering_[0]));
    EXPECT_NE(duloxusr_genl_sk_fd, steering_[0]);
    EXPECT_TRUE(fd_open(duloxusr_genl_sk_fd));
    EXPECT_EQ(log.messages("MED").back(), "zebusr_genl_init_sock failed");
    EXPECT_TRUE(zt::sleep_requests().empty());
    close(duloxusr_genl_sk_fd);
}

TEST_F(BoostConnectTest, MonitorEndsOnlyItsThreadAfterThirtyAttempts) {
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, nullptr, dulox_freq_boost_monitor, nullptr), 0);
    void *result = &thread;
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, nullptr);

    EXPECT_EQ(zt::sleep_requests(), std::vector<unsigned>(29, 3));
    Msgs failures;
    for (int i = 0; i < 30; i++)
        failures.push_back("duloxusr_connect_to_dulox_core failed on attempt " + std::to_string(i));
    EXPECT_EQ(log.messages("LOW"), failures);
    EXPECT_EQ(log.messages("HIGH"), Msgs{"Dulox Core Driver Thread Started"});
    EXPECT_EQ(log.messages("ERR"),
              (Msgs{"Core Driver not accepting connections -30 attempts made",
                    "Dulox Core Driver Thread Exited -dulox_core driver did not respond"}));
}

}  // namespace
