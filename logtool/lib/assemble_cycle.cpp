// The evaluation thread's cycles: a "SYNC START" line opens one, the next
// sync (or a failed sync, or the run's end) closes it; in between, the three
// tables as logged, the flow history, the decisions and every reply.
#include "assemble.hpp"

namespace zlog::detail {

namespace {

// What the daemon can log in one cycle: more is a broken log (two cycles'
// lines with the sync between them lost), and the rest is not kept, so a
// cycle never holds a table the daemon could not have read.
constexpr size_t kMaxCapLines = 8;
constexpr size_t kMaxFlowLines = 128;      // per table; also the nodes made or removed
constexpr size_t kMaxHistoryLines = 1024;  // nodes outlive their flows: a looser bound

FlowEntry flow(const LogLine &l, bool slow) {
    FlowEntry f;
    f.hash = static_cast<uint32_t>(l.args[0].u);
    f.cpu = static_cast<int>(l.args[1].i);
    f.rx_pps = l.args[2].u;
    f.avg_pps = l.args[3].u;
    if (slow)
        f.rx_bps = l.args[4].u;
    return f;
}

}  // namespace

template <class T>
void Assembler::keep(std::vector<T> &v, const T &item, uint64_t line, size_t most,
                     const char *what) {
    if (v.size() < most) {
        v.push_back(item);
        return;
    }
    if (!cycle_overflow_) {
        cycle_overflow_ = true;
        note(line, "more " + std::string(what) + " in one cycle than the daemon writes (" +
                       std::to_string(most) + "): the rest are not kept");
    }
}

void Assembler::on_eval(const LogLine &l) {
    if (cycle_open_ && l.msg != Msg::sync_start)
        cycle_.last_line = l.no;
    if (quiet_open_ && !continues_decision(l.msg))
        flush_quiet();
    if (on_eval_connect(l) || on_table_failed(l) || on_tables(l) || on_history(l) || on_decision(l))
        return;
    switch (l.msg) {
        case Msg::sync_start:
            open_cycle(l);
            eval_.step = Step::Waiting;
            await_ = Await::Sync;
            break;
        case Msg::recv_int_waiting:
            eval_.step = Step::Waiting;
            break;
        case Msg::recv_int_code:
            eval_.step = Step::Idle;
            settle(boost_t_, Slot::Recv);
            on_reply(Answer{Outcome::Code, static_cast<int32_t>(l.args[1].i), l.no});
            break;
        case Msg::recv_int_failed:
            eval_.step = Step::Idle;
            on_reply(recv_answer(eval_, l.no));
            break;
        case Msg::sync_create_failed:
        case Msg::sync_attr_failed:
        case Msg::sync_send_failed:
            sync_answer_ = Answer{Outcome::NotSent, 0, l.no};
            break;
        case Msg::eval_sync_failed:
            sync_failed(l);
            break;
        default:
            break;  // progress lines that change nothing rebuilt here
    }
}

void Assembler::open_cycle(const LogLine &l) {
    if (cycle_open_)
        close_cycle(true);
    flush_quiet();
    Cycle &c = cycle_;
    c.run = run_;
    c.index = cycles_in_run_++;
    c.line = c.last_line = l.no;
    c.t_us = t_us_;
    c.seq = static_cast<uint32_t>(l.args[0].u);
    c.connect_sync = eval_connecting_;
    c.sync = Answer{};
    c.ss_read = c.ss_max = c.caps_read = c.caps_bad_cpu = c.gold_read = c.gold_max = false;
    c.ss_len = c.gold_len = 0;
    c.ss.clear();
    c.created.clear();
    c.removed.clear();
    c.history.clear();
    c.caps.clear();
    c.gold.clear();
    c.decisions.clear();
    c.complete = false;
    cycle_open_ = true;
    cycle_overflow_ = false;
    emitted_ = 0;
    up_index_ = -1;
    last_stable_ = -1;
    sync_answer_ = Answer{};
}

void Assembler::close_cycle(bool complete) {
    cycle_.complete = complete;
    for (; emitted_ < cycle_.decisions.size(); emitted_++)
        sink_.decision(cycle_.decisions[emitted_], run_);
    sink_.cycle(cycle_);
    cycle_open_ = false;
    await_ = Await::None;
}

void Assembler::on_reply(Answer a) {
    if (await_ == Await::Sync) {
        sync_answer_ = a;
        if (cycle_open_)
            cycle_.sync = a;
    } else if (await_ == Await::Decision) {
        if (Decision *d = current_decision()) {
            d->answer = a;
            if (d->kind == Kind::Seg)
                d->accepted = a.accepted();
        }
    }
    await_ = Await::None;
}

void Assembler::sync_failed(const LogLine &l) {
    Answer a = sync_answer_;
    if (cycle_open_)
        close_cycle(true);
    flush_quiet();
    Event &e = fresh(EventKind::SyncFailed, l.no);
    e.answer = a;
    emit(e);
    reconnecting(eval_);
    eval_.attempts = 0;
    eval_connecting_ = true;
    sync_answer_ = Answer{};
}

bool Assembler::on_tables(const LogLine &l) {
    switch (l.msg) {
        case Msg::ss_header:
        case Msg::ss_count:
        case Msg::ss_entry:
        case Msg::ss_bad_hash:
        case Msg::ss_max:
        case Msg::caps_header:
        case Msg::caps_entry:
        case Msg::caps_bad_cpu:
        case Msg::gold_header:
        case Msg::gold_count:
        case Msg::gold_entry:
        case Msg::gold_bad_hash:
        case Msg::gold_max:
            break;
        default:
            return false;
    }
    if (cycle_open_)  // else a cycle whose sync was not logged: no table of it is whole
        table_line(l);
    return true;
}

void Assembler::table_line(const LogLine &l) {
    Cycle &c = cycle_;
    switch (l.msg) {
        case Msg::ss_header:
            c.ss_read = true;
            break;
        case Msg::ss_count:
            c.ss_len = static_cast<uint16_t>(l.args[0].u);
            break;
        case Msg::ss_entry:
            keep(c.ss, flow(l, true), l.no, kMaxFlowLines, "slow-start flows");
            last_stable_ = -1;
            break;
        case Msg::ss_bad_hash:
            keep(c.ss, FlowEntry{}, l.no, kMaxFlowLines,
                 "slow-start flows");  // the walk goes on past it
            break;
        case Msg::ss_max:
            c.ss_max = true;
            break;
        case Msg::caps_header:
            c.caps_read = true;
            break;
        case Msg::caps_entry:
            keep(c.caps,
                 CapEntry{static_cast<int>(l.args[0].i), l.args[1].u, l.args[2].u, l.args[3].u},
                 l.no, kMaxCapLines, "capacity lines");
            break;
        case Msg::caps_bad_cpu:
            c.caps_bad_cpu = true;
            break;
        default:
            gold_line(l);
            break;
    }
}

void Assembler::gold_line(const LogLine &l) {
    Cycle &c = cycle_;
    switch (l.msg) {
        case Msg::gold_header:
            c.gold_read = true;
            break;
        case Msg::gold_count:
            c.gold_len = static_cast<uint16_t>(l.args[0].u);
            break;
        case Msg::gold_entry:
            keep(c.gold, flow(l, false), l.no, kMaxFlowLines, "gold flows");
            break;
        case Msg::gold_bad_hash:
            keep(c.gold, FlowEntry{}, l.no, kMaxFlowLines, "gold flows");  // where the walk broke
            break;
        case Msg::gold_max:
            c.gold_max = true;
            break;
        default:
            break;
    }
}

// The flow history as the slow-start pass leaves it: nodes created and
// removed, the stability verdicts and the debug print.
bool Assembler::on_history(const LogLine &l) {
    switch (l.msg) {
        case Msg::ss_stable:
        case Msg::ss_not_stable:
            last_stable_ = l.msg == Msg::ss_stable ? 1 : 0;
            last_stable_hash_ = static_cast<uint32_t>(l.args[0].u);
            return true;
        case Msg::ht_create_adding:
            if (cycle_open_)
                keep(cycle_.created, static_cast<uint32_t>(l.args[0].u), l.no, kMaxFlowLines,
                     "new history nodes");
            return true;
        case Msg::ht_remove_removing:
            if (cycle_open_)
                keep(cycle_.removed, static_cast<uint32_t>(l.args[1].u), l.no, kMaxFlowLines,
                     "removed history nodes");
            return true;
        case Msg::ht_print_header:
            if (cycle_open_)
                cycle_.history.clear();
            return true;
        case Msg::ht_print_node:
        case Msg::ht_print_history:
            if (cycle_open_)
                history_line(l);
            return true;
        default:
            return false;
    }
}

void Assembler::history_line(const LogLine &l) {
    auto &h = cycle_.history;
    if (l.msg == Msg::ht_print_node) {
        HistoryNode n;
        n.bucket = static_cast<int>(l.args[0].i);
        n.hash = static_cast<uint32_t>(l.args[1].u);
        n.rx_bps = l.args[2].u;
        n.stable = l.args[3].i != 0;
        n.seg_enabled = l.args[4].i != 0;
        keep(h, n, l.no, kMaxHistoryLines, "history nodes");
        return;
    }
    uint32_t hash = static_cast<uint32_t>(l.args[0].u);
    if (!h.empty() && h.back().hash == hash) {  // the node line just before
        h.back().len = static_cast<int>(l.args[1].i);
        h.back().avg = l.args[2].u;
    }
}

}  // namespace zlog::detail
