// The steering module's integer answer: the input is the datagram on sk_fd.
#include "fuzz_kernel.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static fz::Kernel kernel;
    fz::quiet_log();
    int saved = sk_fd.exchange(kernel.daemon_fd());
    seq_num = 7;

    kernel.queue(fz::Bytes(data, data + size));
    int code = zebusr_genl_recv_int_from_kernel();

    // A code is only read from a message that holds it whole.
    size_t got = std::min(size, sizeof(zebusr_nl_msg));
    bool valid = got >= 16 && fz::le32(data) >= 28 && fz::le32(data) <= got &&
                 fz::le16(data + 4) != ZEBUSR_NLMSG_ERROR;
    if (valid)
        FZ_CHECK(code == static_cast<int32_t>(fz::le32(data + 24)));
    else
        FZ_CHECK(code == -1 && seq_num == 7);

    sk_fd = saved;
    kernel.reset();
    return 0;
}
