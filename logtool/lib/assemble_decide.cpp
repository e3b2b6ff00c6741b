// The policies' requests: UP, DOWN and BAL moves and segmentation off, with
// the numbers that made them and the kernel's answer. Outside a cycle (verbose
// off) the HIGH lines alone still tell the moves and whether they succeeded.
#include "assemble.hpp"

namespace zlog::detail {

namespace {

constexpr size_t kMaxDecisions = 4096;  // per cycle; the daemon asks far fewer
// A move's reply waits at most the socket's 3 s; after that nothing more of
// a quiet decision can come.
constexpr uint64_t kReplyWaitUs = 3500000;

}  // namespace

bool Assembler::on_decision(const LogLine &l) {
    switch (l.msg) {
        case Msg::up_loaded:
            up_index_ = static_cast<int>(l.args[1].i);
            return true;
        case Msg::up_request:
            up_decision(l);
            return true;
        case Msg::down_request:
            move_decision(Kind::Down, l);
            return true;
        case Msg::bal_request:
            move_decision(Kind::Bal, l);
            return true;
        case Msg::ss_seg_disabling:
            seg_decision(l);
            return true;
        case Msg::up_accepted:
            move_done(Kind::Up, l);
            return true;
        case Msg::down_accepted:
            move_done(Kind::Down, l);
            return true;
        case Msg::bal_accepted:
            move_done(Kind::Bal, l);
            return true;
        case Msg::move_create_failed:
        case Msg::move_attr_failed:
        case Msg::move_send_failed:
        case Msg::seg_create_failed:
        case Msg::seg_attr_failed:
        case Msg::seg_send_failed:
            if (await_ == Await::Decision)
                on_reply(Answer{Outcome::NotSent, 0, l.no});
            return true;
        default:
            return false;
    }
}

// Lines that still belong to the quiet decision before them.
bool Assembler::continues_decision(Msg m) const {
    switch (m) {
        case Msg::up_accepted:
        case Msg::down_accepted:
        case Msg::bal_accepted:
        case Msg::move_sending:
        case Msg::move_sent:
        case Msg::move_create_failed:
        case Msg::move_attr_failed:
        case Msg::move_send_failed:
        case Msg::recv_int_waiting:
        case Msg::recv_int_code:
        case Msg::recv_int_failed:
            return true;
        default:
            return false;
    }
}

Decision &Assembler::new_decision(Kind k, const LogLine &l) {
    Decision *d = &quiet_;
    if (cycle_open_ && cycle_.decisions.size() < kMaxDecisions) {
        for (; emitted_ < cycle_.decisions.size(); emitted_++)
            sink_.decision(cycle_.decisions[emitted_], run_);
        d = &cycle_.decisions.emplace_back();
    } else {
        flush_quiet();
        quiet_ = Decision{};
        quiet_open_ = true;
    }
    d->kind = k;
    d->line = l.no;
    d->t_us = t_us_;
    await_ = Await::Decision;
    return *d;
}

Decision *Assembler::current_decision() {
    if (quiet_open_)
        return &quiet_;
    if (cycle_open_ && !cycle_.decisions.empty())
        return &cycle_.decisions.back();
    return nullptr;
}

void Assembler::up_decision(const LogLine &l) {
    Decision &d = new_decision(Kind::Up, l);
    d.cur = static_cast<int>(l.args[0].i);
    d.dest = static_cast<int>(l.args[1].i);
    if (!cycle_open_)
        return;
    // The loaded silver CPU's entry: the index the daemon logged, else the
    // last entry naming it (the daemon searches from the end).
    const auto &caps = cycle_.caps;
    int idx = up_index_;
    if (idx < 0 || static_cast<size_t>(idx) >= caps.size() || caps[idx].cpu != d.cur) {
        idx = -1;
        for (size_t i = caps.size(); i-- > 0 && idx < 0;)
            if (caps[i].cpu == d.cur)
                idx = static_cast<int>(i);
    }
    if (idx >= 0) {
        d.pps = caps[idx].pps;
        d.avg_pps = static_cast<uint64_t>(idx);
    }
}

void Assembler::move_decision(Kind k, const LogLine &l) {
    Decision &d = new_decision(k, l);
    d.hash = static_cast<uint32_t>(l.args[0].u);
    d.pps = l.args[1].u;
    d.avg_pps = l.args[2].u;
    d.cur = static_cast<int>(l.args[3].i);
    d.dest = static_cast<int>(l.args[4].i);
    d.cap = l.args[5].u;
    d.cap_w_head = l.args[6].u;
}

void Assembler::seg_decision(const LogLine &l) {
    Decision &d = new_decision(Kind::Seg, l);
    d.hash = static_cast<uint32_t>(l.args[0].u);
    d.stable = last_stable_ == 1 && last_stable_hash_ == d.hash;
    if (!cycle_open_)
        return;
    const auto &ss = cycle_.ss;
    for (size_t i = ss.size(); i-- > 0;) {
        if (ss[i].hash == d.hash) {
            d.rx_bps = ss[i].rx_bps;
            d.cur = ss[i].cpu;
            break;
        }
    }
}

void Assembler::move_done(Kind k, const LogLine &l) {
    Decision *d = current_decision();
    if (!d || d->kind != k)
        return;
    d->accepted = true;
    if (d->answer.outcome == Outcome::Unknown)
        d->answer = Answer{Outcome::Code, 0, l.no};
    await_ = Await::None;
    flush_quiet();  // an accepted move ends its policy's call
}

void Assembler::flush_quiet() {
    if (!quiet_open_)
        return;
    quiet_open_ = false;
    if (await_ == Await::Decision)
        await_ = Await::None;
    sink_.decision(quiet_, run_);
}

// Items of quiet stretches have no line that ends them: once nothing more of
// them can come, they are handed on.
void Assembler::flush_stale() {
    if (quiet_open_ && t_us_ > quiet_.t_us + kReplyWaitUs)
        flush_quiet();
    if (boost_open_ && t_us_ > boost_last_t_ + kBoostGapUs)
        flush_boost();
}

}  // namespace zlog::detail
