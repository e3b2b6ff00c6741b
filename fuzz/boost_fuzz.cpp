// The throughput answer and the boost decision: the input is the core
// driver's answer to the query. Whatever it says, at most one boost request
// goes out, framed as the driver expects and naming exactly the fast
// senders whose boost is running out, in answer order.
#include "boost/boost.h"
#include "fuzz_kernel.h"

static fz::Bytes expected_boost(const fz::Bytes &answer) {
    fz::Bytes want(424, 0);
    const size_t rec = ZEBUSR_NLA_PAYLOAD_OFFSET;
    if (answer.size() < rec + sizeof(duloxusr_pid_bps_info))
        return {};
    duloxusr_pid_bps_info info;
    memcpy(&info, &answer[rec], sizeof(info));
    if (info.valid != 1 || info.list_len > 32)
        return {};
    uint16_t n = 0;
    for (uint16_t i = 0; i < info.list_len; i++) {
        const duloxusr_pid_bps_entry &e = info.list[i];
        if (e.boost_remaining_ms > 1000 || e.tx_bps <= 500000000)
            continue;
        uint32_t entry[3] = {1, 10000, e.pid};
        memcpy(&want[rec + 12 * n++], entry, sizeof(entry));
    }
    if (n == 0)
        return {};
    memcpy(&want[rec + 392], &n, 2);
    want[rec + 394] = 1;
    return want;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static fz::Kernel kernel;
    fz::quiet_log();
    int saved = duloxusr_genl_sk_fd;
    duloxusr_genl_sk_fd = kernel.daemon_fd();
    dulox_family_id = fz::kCoreFamily;
    seq_num = 7;

    fz::Bytes answer(data, data + std::min(size, sizeof(zebusr_nl_msg)));
    kernel.queue(fz::Bytes(data, data + size));
    duloxusr_evalute_pid_bps_info();

    std::vector<fz::Bytes> sent = kernel.requests();
    FZ_CHECK(!sent.empty() && sent[0].size() == 552 && sent[0][16] == 1);
    // Only an answer that passed the receive's checks can boost anyone.
    bool received = answer.size() >= 16 && fz::le32(answer.data()) >= 552 &&
                    fz::le32(answer.data()) <= answer.size() &&
                    fz::le16(&answer[4]) != ZEBUSR_NLMSG_ERROR;
    fz::Bytes want = received ? expected_boost(answer) : fz::Bytes{};
    if (want.empty()) {
        FZ_CHECK(sent.size() == 1);
    } else {
        FZ_CHECK(sent.size() == 2);
        const fz::Bytes &b = sent[1];
        FZ_CHECK(b.size() == 424 && fz::le32(&b[0]) == 424 && b[16] == 2);
        FZ_CHECK(fz::le16(&b[4]) == fz::kCoreFamily);
        FZ_CHECK(fz::le16(&b[20]) == 404 && fz::le16(&b[22]) == 4);
        FZ_CHECK(memcmp(&b[24], &want[24], 400) == 0);
    }

    duloxusr_genl_sk_fd = saved;
    dulox_family_id = 0;
    kernel.reset();
    return 0;
}
