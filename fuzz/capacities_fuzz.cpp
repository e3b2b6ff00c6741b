// The capacity table reader and the silver-to-gold policy behind it.
// Input: a flags byte (bit 0 verbose, bit 1 CSV capture on), the 208-byte
// table, then the module's answers to the suggestions (see queue_answers).
#include "fuzz_kernel.h"
#include "policy/policy.h"
#include "steering/readers.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static fz::Kernel kernel;
    static fz::Table caps(&cap_fd);
    static FILE *csv = fz::null_stream();
    fz::Reader in{data, size};
    uint8_t flags = in.u8();
    fz::quiet_log(flags & 1);
    csv_fp = csv;
    csv_log_enabled = (flags >> 1) & 1;
    caps.load(in.take(sizeof(zebusr_cap_info) * ZEBUSR_NUM_CPUS));
    int saved = sk_fd.exchange(kernel.daemon_fd());
    zeb_family_id = fz::kZebFamily;
    seq_num = 0;
    int first_yes;
    int answers = fz::queue_answers(kernel, in, &first_yes);

    int rc = zebusr_read_capacities();

    // Only UP suggestions, from one silver CPU to gold ones, none after an
    // accepted one; the result says whether one was accepted.
    std::vector<fz::Bytes> sent = kernel.requests();
    int accepted = -1;
    for (size_t i = 0; i < sent.size(); i++) {
        const fz::Bytes &r = sent[i];
        fz::check_zeb_request(r, 2, 16, 3);
        FZ_CHECK(accepted < 0);
        FZ_CHECK(fz::le32(&r[24]) == 0 && fz::le32(&r[28]) == 1);
        FZ_CHECK(fz::le16(&r[32]) < 4 && fz::le16(&r[34]) >= 4);
        FZ_CHECK(fz::le16(&r[32]) == fz::le16(&sent[0][32]));
        if (static_cast<int>(i) == first_yes)
            accepted = static_cast<int>(i);
    }
    FZ_CHECK((rc == 0) == (accepted >= 0));
    FZ_CHECK(sent.size() <= ZEBUSR_NUM_CPUS);
    (void)answers;

    zebusr_munmap_caps();
    cap_list = nullptr;
    cap_fd = 0;
    sk_fd = saved;
    csv_fp = nullptr;
    csv_log_enabled = 0;
    zeb_family_id = 0;
    kernel.reset();
    return 0;
}
