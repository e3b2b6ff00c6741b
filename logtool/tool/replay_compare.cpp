// The replay's log against the original: the n-th sync the replay made was
// answered by the n-th sync step, the n-th query by the n-th query step, so
// positions line the two up.
#include <algorithm>

#include "replay.hpp"

namespace zlog::rec {

namespace {

struct Boost {
    uint64_t line = 0;
    std::vector<uint32_t> pids;
};

class ReplaySink : public Sink {
   public:
    ReplaySink(const RunExpect &r, size_t run, RunOutcome &out)
        : r_(r), run_(run), out_(out), reached_(r.cycles.size(), false) {}

    void cycle(const Cycle &c) override {
        std::vector<std::string> results = take_results(c);
        if (c.sync.outcome == Outcome::NotSent)
            return;  // never reached the simulator: no step answered it
        size_t p = pos_++;
        if (p >= r_.syncs.size() || r_.syncs[p] < 0)
            return;
        size_t i = size_t(r_.syncs[p]);
        reached_[i] = true;
        const CycleExpect &e = r_.cycles[i];
        std::vector<std::string> want = judged_words(e.decisions, r_, p);
        want.insert(want.end(), e.results.begin(), e.results.end());
        std::vector<std::string> got = judged_words(c.decisions, r_, p);
        got.insert(got.end(), results.begin(), results.end());
        if (c.connect_sync || !c.ss_read)
            got = {"(no cycle with tables at this sync)"};
        out_.cycles++;
        if (want == got)
            out_.cycles_same++;
        else
            differ({run_, false, e.line, e.last_line, c.line, c.last_line, want, got});
    }
    // Lines come before the cycle that holds them is handed over.
    void line(const LogLine &l) override {
        if (const char *r = result_words(l.msg))
            results_.emplace_back(l.no, r);
    }
    void event(const Event &e) override {
        if (e.kind == EventKind::Query && e.answer.outcome != Outcome::NotSent)
            queries_.push_back(e.line);
    }
    void decision(const Decision &d, uint64_t) override {
        if (d.kind != Kind::Boost)
            return;
        Boost b{d.line, {}};
        for (const BoostEntry &e : d.boosts) b.pids.push_back(e.pid);
        boosts_.push_back(std::move(b));
    }

    void finish() {
        for (size_t i = 0; i < r_.cycles.size(); i++)
            if (!reached_[i]) {
                out_.cycles++;
                const CycleExpect &e = r_.cycles[i];
                differ({run_,
                        false,
                        e.line,
                        e.last_line,
                        0,
                        0,
                        judged_words(e.decisions, r_, e.pos),
                        {"(the replay did not get to this cycle)"}});
            }
        compare_queries();
    }

   private:
    // Each boost belongs to the last query before it on the boost thread.
    void compare_queries() {
        std::vector<std::vector<uint32_t>> got(queries_.size());
        for (const Boost &b : boosts_) {
            auto it = std::upper_bound(queries_.begin(), queries_.end(), b.line);
            if (it != queries_.begin())
                got[size_t(it - queries_.begin()) - 1] = b.pids;
        }
        for (size_t q = 0; q < r_.queries.size(); q++) {
            const QueryExpect &e = r_.queries[q];
            out_.queries++;
            bool reached = q < got.size();
            if (reached && got[q] == e.boosted) {
                out_.queries_same++;
                continue;
            }
            Difference d{run_,
                         true,
                         e.line,
                         e.last_line,
                         reached ? queries_[q] : 0,
                         0,
                         {pid_words(e.boosted)},
                         {reached ? pid_words(got[q]) : "(the replay did not get to this query)"}};
            differ(std::move(d));
        }
    }
    static std::string pid_words(const std::vector<uint32_t> &pids) {
        if (pids.empty())
            return "no boost";
        std::string w = "BOOST";
        for (uint32_t p : pids) w.append(" ").append(std::to_string(p));
        return w;
    }
    std::vector<std::string> take_results(const Cycle &c) {
        std::vector<std::string> got;
        for (const auto &[line, words] : results_)
            if (line > c.line && line <= c.last_line)
                got.push_back(words);
        std::erase_if(results_, [&](const auto &r) { return r.first <= c.last_line; });
        return got;
    }
    void differ(Difference d) {
        if (!out_.first || d.line < out_.first->line)
            out_.first = std::move(d);
    }

    const RunExpect &r_;
    size_t run_;
    RunOutcome &out_;
    std::vector<bool> reached_;
    size_t pos_ = 0;
    std::vector<std::pair<uint64_t, const char *>> results_;  // since the last cycle
    std::vector<uint64_t> queries_;
    std::vector<Boost> boosts_;
};

}  // namespace

RunOutcome compare_run(const fs::path &replay_log, const RunExpect &r, size_t run) {
    RunOutcome out;
    out.log = replay_log;
    ReplaySink sink(r, run, out);
    std::string why;
    if (!read_log(replay_log.string(), sink, why)) {
        out.problem = "the replay's log cannot be read: " + why;
        return out;
    }
    sink.finish();
    return out;
}

}  // namespace zlog::rec
