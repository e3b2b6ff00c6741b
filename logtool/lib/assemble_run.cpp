// Runs and their edges: "Initializing zebusrd" starts one, the clean-up or a
// deliberate exit ends one; the run's clock; verbose logging switched on and
// off, and the quiet stretches in between; lines that cannot be read.
#include <cstdio>

#include "assemble.hpp"

namespace zlog::detail {

namespace {

constexpr uint64_t kDayUs = 86400ull * 1000000;
constexpr uint64_t kClockBackUs = 1000000;  // threads' stamps cross by far less
constexpr size_t kProblemText = 200;        // enough of a bad line to recognise it
constexpr int kMaxClockNotes = 10;          // a mixed-up log would tell it on every line

bool verbose_level(Level l) {
    return l == Level::Low || l == Level::Med;
}

std::string seconds(uint64_t us) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.3f s", static_cast<double>(us) / 1e6);
    return buf;
}

}  // namespace

Event &Assembler::fresh(EventKind k, uint64_t line) {
    ev_.kind = k;
    ev_.run = run_;
    ev_.line = ev_.last_line = line;
    ev_.t_us = t_us_;
    ev_.family.clear();
    ev_.number = 0;
    ev_.answer = Answer{};
    ev_.text.clear();
    ev_.problem = Problem::None;
    ev_.valid = true;
    ev_.list_len = 0;
    ev_.timestamp = 0;
    ev_.rates.clear();
    ev_.rates_logged = false;
    return ev_;
}

void Assembler::note(uint64_t line, std::string text) {
    Event &e = fresh(EventKind::Note, line);
    e.text = std::move(text);
    emit(e);
}

void Assembler::problem(const LogLine &l) {
    Event &e = fresh(EventKind::Problem, l.no);
    e.problem = l.problem;
    e.text.assign(l.text.substr(0, kProblemText));
    emit(e);
}

// Returns whether the line is a message to rebuild from.
bool Assembler::begin_line(const LogLine &l) {
    last_cut_ = l.problem == Problem::Cut;
    bool bad = l.problem != Problem::None && l.problem != Problem::CrLf;
    if (!bad && l.msg == Msg::main_init) {
        if (in_run_)
            end_run(true);
        start_run(l, false);
    } else {
        if (start_pending_)
            emit_run_start(!bad && l.msg == Msg::main_verbose_boot);
        if (!in_run_ && !bad)
            start_run(l, true);
    }
    if (in_run_)
        last_line_ = l.no;
    if (bad) {
        problem(l);
        return false;
    }
    advance_time(l);
    if (l.problem == Problem::CrLf && !crlf_noted_) {
        crlf_noted_ = true;
        crlf_line_ = l.no;
        if (!start_pending_)  // else told after the run's start
            crlf_note();
    }
    if (!verbose_known_ && verbose_level(l.level)) {
        verbose_ = verbose_known_ = true;
        close_gap(l.no - 1);
    }
    flush_stale();
    return l.msg != Msg::Unknown;
}

void Assembler::advance_time(const LogLine &l) {
    if (!have_time_) {
        have_time_ = true;
        tod_ = tod0_ = l.tod_us;
        t_us_ = days_ = 0;
        return;
    }
    uint64_t before = t_us_;
    t_us_ = run_time_us(tod_, t_us_, l.tod_us);
    tod_ = l.tod_us;
    uint64_t day = (tod0_ + t_us_) / kDayUs;
    if (day > days_) {  // once a day, however the threads' stamps cross it
        days_ = day;
        note(l.no, "midnight passed");
    }
    if (before > t_us_ + kClockBackUs && clock_notes_ <= kMaxClockNotes) {
        note(l.no, ++clock_notes_ > kMaxClockNotes
                       ? "the clock goes back again: not told again in this run"
                       : "the clock went back by " + seconds(before - t_us_));
    }
}

void Assembler::start_run(const LogLine &l, bool mid_run) {
    if (started_any_)
        run_++;
    started_any_ = in_run_ = true;
    eval_ = ThreadState{};
    boost_t_ = ThreadState{};
    nheld_ = 0;
    cycles_in_run_ = 0;
    cycle_open_ = quiet_open_ = boost_open_ = query_open_ = rates_fresh_ = false;
    await_ = Await::None;
    sync_answer_ = Answer{};
    eval_connecting_ = false;
    verbose_ = false;
    verbose_known_ = !mid_run;
    end_why_.clear();
    end_exit_ = cleaned_ = stopping_ = crlf_noted_ = have_time_ = false;
    run_first_line_ = last_line_ = l.no;
    t_us_ = 0;
    gap_open_ = false;
    clock_notes_ = 0;
    if (!mid_run) {
        start_pending_ = true;  // the next line tells whether verbose is on
        return;
    }
    Event &e = fresh(EventKind::RunStart, l.no);
    e.text = "the log starts mid-run";
    emit(e);
    note(l.no, "the log starts inside a run: no \"Initializing zebusrd\" before this line");
    gap_open_ = true;  // quiet until a verbose line shows otherwise
    gap_line_ = l.no;
    gap_t_ = 0;
}

void Assembler::crlf_note() {
    note(crlf_line_, "lines end in CR LF (read without the CR)");
}

void Assembler::emit_run_start(bool verbose_boot) {
    start_pending_ = false;
    Event &e = fresh(EventKind::RunStart, run_first_line_);
    e.t_us = 0;
    e.number = verbose_boot ? 1 : 0;
    emit(e);
    if (crlf_noted_)
        crlf_note();
    verbose_ = verbose_boot;
    if (!verbose_boot) {
        gap_open_ = true;
        gap_line_ = run_first_line_;
        gap_t_ = 0;
    }
}

void Assembler::end_run(bool restart) {
    if (start_pending_)
        emit_run_start(false);
    emit_query();
    flush_boost();
    flush_quiet();
    if (cycle_open_)
        close_cycle(end_exit_);
    close_gap(last_line_);
    Event &e = fresh(EventKind::RunEnd, last_line_);
    if (!end_why_.empty())
        e.text = end_why_ + (cleaned_ ? "; clean-up complete" : "");
    else if (cleaned_)
        e.text = "exited; clean-up complete";
    else if (last_cut_)
        e.text = "the log is cut inside its last line";
    else if (restart)
        e.text = "the daemon started again with no end lines before";
    else
        e.text = "the log ends";
    emit(e);
    in_run_ = false;
}

void Assembler::set_end(const std::string &why, bool exit) {
    if (!end_why_.empty())
        return;  // the first reason is the cause; what follows is its clean-up
    end_why_ = why;
    end_exit_ = exit;
}

void Assembler::verbose_on(const LogLine &l) {
    emit(fresh(EventKind::VerboseOn, l.no));
    flush_quiet();  // the replies that follow are of requests not yet seen
    verbose_ = verbose_known_ = true;
    close_gap(l.no - 1);
}

void Assembler::verbose_off(const LogLine &l) {
    emit(fresh(EventKind::VerboseOff, l.no));
    if (cycle_open_)
        close_cycle(false);  // its remaining lines are not written
    verbose_ = false;
    verbose_known_ = true;
    sync_answer_ = Answer{};
    if (!gap_open_) {
        gap_open_ = true;
        gap_line_ = l.no;
        gap_t_ = t_us_;
    }
}

void Assembler::close_gap(uint64_t last) {
    if (!gap_open_)
        return;
    gap_open_ = false;
    if (last < gap_line_)
        return;
    Event &e = fresh(EventKind::Gap, gap_line_);
    e.last_line = last;
    e.t_us = gap_t_;
    e.text = seconds(t_us_ > gap_t_ ? t_us_ - gap_t_ : 0) + " without verbose lines";
    emit(e);
}

}  // namespace zlog::detail
