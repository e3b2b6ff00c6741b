// The receive and its checks: the input is one datagram from the kernel.
#include "fuzz_kernel.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static fz::Kernel kernel;
    fz::quiet_log();
    constexpr uint32_t kBefore = 7;
    seq_num = kBefore;

    kernel.queue(fz::Bytes(data, data + size));
    zebusr_nl_msg msg;
    int rc = zebusr_netlink_msg_recv(kernel.daemon_fd(), &msg);

    // A longer datagram is cut at the buffer's end.
    size_t got = std::min(size, sizeof(msg));
    bool valid = got >= 16 && fz::le32(data) >= 16 && fz::le32(data) <= got &&
                 fz::le16(data + 4) != ZEBUSR_NLMSG_ERROR;
    FZ_CHECK((rc == 0) == valid);
    if (rc == 0) {
        FZ_CHECK(seq_num == fz::le32(data + 8) + 1);
        FZ_CHECK(memcmp(&msg, data, got) == 0);
    } else {
        FZ_CHECK(seq_num == kBefore);
    }
    kernel.reset();
    return 0;
}
