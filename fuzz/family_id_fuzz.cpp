// The family id parse: the first byte picks the family type (0, 1 or an
// unknown 2), the rest is the controller's answer, parsed once as it lies in
// the buffer and once as received by zebusr_genl_init_sock.
#include "fuzz_kernel.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static fz::Kernel kernel;
    fz::quiet_log();
    fz::Reader in{data, size};
    uint32_t type = in.u8() % 3;
    fz::Bytes answer = in.rest();
    uint16_t *slot = type == 0 ? &zeb_family_id : &dulox_family_id;
    zeb_family_id = dulox_family_id = 0xbeef;

    // As it lies in the buffer, with whatever nlmsg_len it claims.
    zebusr_nl_msg msg = {};
    if (!answer.empty())
        memcpy(&msg, answer.data(), std::min(answer.size(), sizeof(msg)));
    int rc = zebusr_genl_get_family_id_from_resp(&msg, type);
    FZ_CHECK(rc == 0 || rc == -1);
    FZ_CHECK(type != 2 || rc == -1);
    if (rc != 0)
        FZ_CHECK(zeb_family_id == 0xbeef && dulox_family_id == 0xbeef);

    // As the controller's answer to a real lookup.
    zeb_family_id = dulox_family_id = 0xbeef;
    kernel.queue(answer);
    rc = zebusr_genl_init_sock(kernel.daemon_fd(), type);
    std::vector<fz::Bytes> sent = kernel.requests();
    if (type == 2) {
        FZ_CHECK(rc == -1 && sent.empty());
    } else {
        FZ_CHECK(sent.size() == 1 && sent[0].size() == 36);
        FZ_CHECK(fz::le16(&sent[0][4]) == ZEBUSR_GENL_ID_CTRL && sent[0][16] == 3);
        FZ_CHECK(rc == 0 || *slot == 0xbeef);
    }
    zeb_family_id = dulox_family_id = 0;
    kernel.reset();
    return 0;
}
