// The reader's entry points: lines from the line reader go through the
// assembler, which hands runs, cycles, decisions and events to the sink.
#include <string_view>

#include "assemble.hpp"

namespace zlog {

namespace {

constexpr uint64_t kDayUs = 86400ull * 1000000;

// The functions both worker threads call: their lines go by each thread's step.
constexpr std::string_view kShared[] = {
    "zebusr_genl_open_sock",
    "zebusr_genl_init_sock",
    "zebusr_netlink_msg_recv",
    "zebusr_create_genl_msg",
    "zebusr_netlink_msg_send",
    "zebusr_genl_set_family_attr",
    "zebusr_genl_get_family_id_from_resp",
};

// Start-up, signals, clean-up and the table files, which are no cycle's.
constexpr std::string_view kMain[] = {
    "main",
    "zebusr_sig_handler",
    "zebusr_cleanup",
    "zebusr_start_logging",
    "zebusr_stop_logging",
    "zebusr_init_cap_file",
    "zebusr_init_gflow_file",
    "zebusr_init_ssflow_file",
    "zebusr_deinit_cap_file",
    "zebusr_deinit_gflow_file",
    "zebusr_deinit_ssflow_file",
    "zebusr_munmap_caps",
    "zebusr_munmap_gflows",
    "zebusr_munmap_ssflows",
};

detail::Owner classify(std::string_view func) {
    for (auto f : kShared)
        if (func == f)
            return detail::Owner::Shared;
    for (auto f : kMain)
        if (func == f)
            return detail::Owner::Main;
    if (func.substr(0, 5) == "dulox" || func == "zebusr_genl_recv_pid_byte_info_from_kernel")
        return detail::Owner::Boost;
    return detail::Owner::Eval;
}

struct OwnerTable {
    detail::Owner owner[kMessageCount + 1];
    OwnerTable() {
        for (int i = 0; i < kMessageCount; i++) owner[i] = classify(kMessages[i].func);
        owner[kMessageCount] = detail::Owner::Main;
    }
};

}  // namespace

uint64_t run_time_us(uint64_t prev_tod_us, uint64_t prev_run_us, uint64_t tod_us) {
    // The stamp is a time of day: a step of more than 12 hours either way is
    // the day turning, forward (midnight passed) or back (the threads' stamps
    // crossing at midnight).
    prev_tod_us %= kDayUs;
    tod_us %= kDayUs;
    uint64_t fwd = (tod_us + kDayUs - prev_tod_us) % kDayUs;
    if (fwd < kDayUs / 2 || (fwd == kDayUs / 2 && tod_us >= prev_tod_us))
        return prev_run_us + fwd;
    uint64_t back = kDayUs - fwd;
    return back > prev_run_us ? 0 : prev_run_us - back;  // threads' stamps cross: kept
}

void read_log_text(std::string_view text, Sink &sink) {
    detail::Assembler a(sink);
    read_lines_text(text, a);
    a.finish();
}

bool read_log(const std::string &path, Sink &sink, std::string &why) {
    detail::Assembler a(sink);
    if (!read_lines_file(path, a, why))
        return false;
    a.finish();
    return true;
}

namespace detail {

Owner owner_of(Msg m) {
    static const OwnerTable table;
    return table.owner[static_cast<int>(m)];
}

Assembler::Assembler(Sink &sink) : sink_(sink) {}

void Assembler::on_line(const LogLine &l) {
    sink_.line(l);
    if (!begin_line(l))
        return;
    switch (owner_of(l.msg)) {
        case Owner::Main:
            on_main(l);
            break;
        case Owner::Eval:
            on_eval(l);
            break;
        case Owner::Boost:
            on_boost(l);
            break;
        case Owner::Shared:
            on_shared(l);
            break;
    }
}

void Assembler::finish() {
    if (in_run_)
        end_run(false);
}

}  // namespace detail
}  // namespace zlog
