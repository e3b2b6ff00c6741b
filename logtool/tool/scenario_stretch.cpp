// A stretch's edges: opening one (with the connection a fresh daemon needs
// when the log joins a run already connected), keeping each step back until
// the next shows it finished, and closing it.
#include <algorithm>
#include <cinttypes>
#include <cstdio>

#include "scenario_build.hpp"

namespace zlog::rec {

void Builder::open(uint64_t line, bool at_boot) {
    if (quiet_from_ && line > quiet_from_)
        note_skip(quiet_from_, line - 1, quiet_t_, now_t_, "no tables");
    open_ = true;
    begun_ = false;
    quiet_from_ = 0;
    first_line_ = line;
    first_t_ = last_t_ = now_t_;
    // At boot the daemon's own lookups follow; later it is long connected.
    steer_started_ = core_started_ = at_boot;
    sync_pos_ = 0;
    steer_.clear();
    core_.reset();
    early_steer_.clear();
    early_core_.clear();
    cur_ = RunExpect{};
    cur_.first_line = line;
}

void Builder::close(uint64_t last_line, const char *why) {
    if (!open_)
        return;
    // A cycle with tables that nothing followed may have been cut anywhere:
    // its decisions are not all in the log.
    if (!steer_.empty() && steer_.back().expect && !steer_.back().ends_run) {
        char b[160];
        std::snprintf(b, sizeof b, "lines %" PRIu64 "-%" PRIu64 ": a cycle cut off by %s, skipped",
                      steer_.back().expect->line, last_line, why);
        skipped_.push_back(b);
        steer_.pop_back();
    }
    flush_steering();
    if (core_ && core_->query)
        core_.reset();  // likewise the boost that may have followed the last list
    flush_core();
    if (begun_) {
        w_.end_run(last_line);
        cur_.last_line = last_line;
        cur_.seconds = double(last_t_ - first_t_) / 1e6;
        if (keep_)
            runs_.push_back(std::move(cur_));
    } else if (last_line >= first_line_) {
        note_skip(first_line_, last_line, first_t_, last_t_, "no whole cycle with tables");
    }
    open_ = false;
    closed_upto_ = last_line;
    quiet_from_ = last_line + 1;
    quiet_t_ = now_t_;
}

void Builder::start_steering(bool lookup, bool connect_sync) {
    if (steer_started_)
        return;
    steer_started_ = true;
    if (lookup)
        return;
    push_steering(Pending(Json{{"on", "lookup"}, {"id", zeb_id_}, {"line", first_line_}}));
    if (connect_sync)
        return;
    Pending sync(Json{{"on", "sync"}, {"code", 0}, {"line", first_line_}}, true);
    sync.connect = true;
    push_steering(std::move(sync));
    sync_pos_++;
}

void Builder::start_core(bool lookup) {
    if (core_started_)
        return;
    core_started_ = true;
    if (!lookup)
        push_core(Pending(Json{{"on", "lookup"}, {"id", core_id_}, {"line", first_line_}}));
}

// The run is written from its first cycle with tables on: a stretch with
// none leaves nothing to compare.
void Builder::begin() {
    if (begun_)
        return;
    begun_ = true;
    w_.begin_run(first_line_);
    for (const Json &s : early_steer_) w_.steering(s);
    for (const Json &s : early_core_) w_.core(s);
    early_steer_.clear();
    early_core_.clear();
}

void Builder::push_steering(Pending p) {
    p.t = now_t_;
    while (steer_.size() > 1) write_steering();
    steer_.push_back(std::move(p));
}

void Builder::flush_steering() {
    while (!steer_.empty()) write_steering();
}

void Builder::write_steering() {
    Pending p = std::move(steer_.front());
    steer_.pop_front();
    last_t_ = std::max(last_t_, p.t);
    if (p.expect)
        begin();
    if (p.step.contains("fault"))
        cur_.sleep_s += 3;
    if (p.sync && keep_) {
        cur_.syncs.push_back(p.expect ? int64_t(cur_.cycles.size()) : -1);
        if (p.expect)
            cur_.cycles.push_back(std::move(*p.expect));
    }
    if (begun_)
        w_.steering(p.step);
    else
        early_steer_.push_back(std::move(p.step));
}

void Builder::push_core(Pending p) {
    flush_core();
    p.t = now_t_;
    core_ = std::move(p);
}

void Builder::flush_core() {
    if (!core_)
        return;
    Pending p = std::move(*core_);
    core_.reset();
    last_t_ = std::max(last_t_, p.t);
    cur_.sleep_s += p.step.contains("fault") ? 3 : p.query ? 1 : 0;
    if (p.query && keep_)
        cur_.queries.push_back(std::move(*p.query));
    if (begun_)
        w_.core(p.step);
    else
        early_core_.push_back(std::move(p.step));
}

void Builder::note_skip(uint64_t from, uint64_t to, uint64_t t0, uint64_t t1, const char *what) {
    char b[160];
    double s = t1 > t0 ? double(t1 - t0) / 1e6 : 0;
    std::snprintf(b, sizeof b, "lines %" PRIu64 "-%" PRIu64 " (about %.*f s): %s, skipped", from,
                  to, s < 10 ? 1 : 0, s, what);
    skipped_.push_back(b);
}

bool build_scenario(const std::string &log, Builder &b, std::string &why) {
    if (!read_log(log, b, why))
        return false;
    b.finish();
    return true;
}

}  // namespace zlog::rec
