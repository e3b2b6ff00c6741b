// The gold flow table reader and the two gold-flow policies behind it.
// Input: a flags byte (bit 0 verbose, bit 1 no capacity mapping), the
// 208-byte capacity table, a 16-bit length and that many bytes of the gold
// flow table, then the module's answers to the suggestions.
#include "fuzz_kernel.h"
#include "policy/policy.h"
#include "steering/readers.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static fz::Kernel kernel;
    static fz::Table caps(&cap_fd);
    static fz::Table gflows(&gflow_fd);
    fz::Reader in{data, size};
    uint8_t flags = in.u8();
    fz::quiet_log(flags & 1);
    caps.load(in.take(sizeof(zebusr_cap_info) * ZEBUSR_NUM_CPUS));
    gflows.load(in.take(in.u16()));
    // The capacity table is mapped first in a cycle, by the same call.
    bool no_caps = flags & 2;
    if (!no_caps) {
        void *map = zebusr_table_mmap(cap_fd);
        FZ_CHECK(map != MAP_FAILED);
        cap_list = static_cast<zebusr_cap_info *>(map);
    }
    int saved = sk_fd.exchange(kernel.daemon_fd());
    zeb_family_id = fz::kZebFamily;
    seq_num = 0;
    int first_yes;
    fz::queue_answers(kernel, in, &first_yes);

    FZ_CHECK(zebusr_read_gold_flows() == 0);

    // DOWN suggestions go to silver CPUs, BAL ones to another gold CPU,
    // and nothing follows an accepted one.
    std::vector<fz::Bytes> sent = kernel.requests();
    FZ_CHECK(!no_caps || sent.empty());
    bool accepted = false;
    for (size_t i = 0; i < sent.size(); i++) {
        const fz::Bytes &r = sent[i];
        fz::check_zeb_request(r, 2, 16, 3);
        FZ_CHECK(!accepted);
        uint32_t type = fz::le32(&r[28]);
        uint16_t cur = fz::le16(&r[32]), dest = fz::le16(&r[34]);
        FZ_CHECK(fz::le32(&r[24]) != 0);
        if (type == 2) {
            FZ_CHECK(dest < 4);
        } else {
            FZ_CHECK(type == 3 && cur < ZEBUSR_NUM_CPUS && dest >= 4 && dest != cur);
        }
        accepted = static_cast<int>(i) == first_yes;
    }
    FZ_CHECK(sent.size() <= 2u * ZEBUSR_MAX_FLOWS * ZEBUSR_NUM_CPUS);

    if (!no_caps)
        zebusr_munmap_caps();
    zebusr_munmap_gflows();
    cap_list = nullptr;
    gflow_list = nullptr;
    cap_fd = gflow_fd = 0;
    sk_fd = saved;
    zeb_family_id = 0;
    kernel.reset();
    return 0;
}
