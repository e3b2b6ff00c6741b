// A log turned into the simulator's recorded scenario: the stretches of
// cycles the log has tables for, each one daemon process's worth of steps,
// and what the daemon decided in each cycle, for the replay to compare with.
#pragma once

#include <cstdint>
#include <cstdio>
#include <deque>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <ostream>
#include <string>
#include <unordered_map>
#include <vector>

#include "logmodel.hpp"

namespace zlog::rec {

using Json = nlohmann::ordered_json;

// ------------------------------------------------------------ expectations

// What the original daemon decided in one cycle, as words both sides share.
struct CycleExpect {
    uint64_t index = 0;                // the cycle's index in its daemon run
    size_t pos = 0;                    // its sync step's position in the stretch
    uint64_t line = 0, last_line = 0;  // its lines in the original log
    std::vector<Decision> decisions;   // UP, DOWN, BAL and SEG, as logged
    std::vector<std::string> results;  // what the daemon concluded of each policy
};

struct QueryExpect {
    uint64_t line = 0, last_line = 0;
    std::vector<uint32_t> boosted;  // the pids of the boost that followed, if any
};

// One stretch: the steps a fresh daemon is served and what each sync and
// query step should lead to.
struct RunExpect {
    uint64_t first_line = 0, last_line = 0;
    double seconds = 0;          // how long the stretch lasted in the log
    double sleep_s = 0;          // what the daemon sleeps or waits in it: a second
                                 // a query, 3 s a failed step
    bool core_ends = false;      // the boost thread gave up in it: no request follows its steps
    std::vector<int64_t> syncs;  // per sync step: index into cycles, -1 not judged
    std::vector<CycleExpect> cycles;
    std::vector<QueryExpect> queries;                  // per throughput query step
    std::unordered_map<uint32_t, size_t> judged_from;  // hash -> sync step its node was made at
};

// A decision as the comparison sees it: kind, cpus, hash, accepted.
std::string decision_words(const Decision &d);
// The decisions of a cycle at sync step `pos` that are judged: SEG only for
// flows whose history the stretch saw from the start.
std::vector<std::string> judged_words(const std::vector<Decision> &ds, const RunExpect &r,
                                      size_t pos);

// The daemon's conclusion of a policy ("a gold flow moved down") for the
// lines that tell it, else nullptr. A cycle's conclusions show what it made
// of the answers, which the requests alone do not.
const char *result_words(Msg m);

// ------------------------------------------------------------------ steps

// Step objects of the recorded format, from what the log tells.
Json lookup_step(const Answer &a, int64_t id, uint64_t line);
Json sync_step(const Cycle &c, bool with_tables);
Json query_step(const Event &e);
// "caps", "flows" or "ss_flows" for a table that could not be opened or
// mapped; "" for any other failure.
std::string failed_table(const Event &e);
bool failed_at_open(const Event &e);

// ----------------------------------------------------------------- writer

// Writes the scenario as it goes: steering steps straight to the output, core
// steps to a spool that follows them when the run closes.
class ScenarioWriter {
   public:
    ScenarioWriter(std::ostream &out, const std::string &log_path);
    ~ScenarioWriter();
    void begin_run(uint64_t first_line);
    void steering(const Json &step);
    void core(const Json &step);
    void end_run(uint64_t last_line);
    void finish(uint64_t first_line, uint64_t last_line);  // closes the document
    size_t runs() const { return runs_; }

   private:
    std::ostream &out_;
    std::string log_;
    std::FILE *spool_ = nullptr;
    size_t runs_ = 0, steering_n_ = 0, core_n_ = 0;
};

// ---------------------------------------------------------------- builder

// Receives the log and writes the stretches. Items come in the order of the
// lines that end them; they are put back into the order of the lines that
// start them (a reconnection's lookup is told before the failed cycle that
// caused it), then handed to the stretch they belong to.
class Builder : public Sink {
   public:
    // `expect`: also keep what each run's cycles decided (for replay).
    Builder(ScenarioWriter &w, bool expect);
    void line(const LogLine &l) override;
    void cycle(const Cycle &c) override;
    void event(const Event &e) override;
    void decision(const Decision &d, uint64_t run) override;
    void finish();  // after the last line

    std::vector<RunExpect> &expected() { return runs_; }
    const std::vector<std::string> &skipped() const { return skipped_; }
    uint64_t cycles_seen() const { return cycles_seen_; }

   private:
    struct Item {
        uint64_t line = 0;
        uint64_t t = 0;  // the log's clock when it arrived
        std::optional<Cycle> cycle;
        std::optional<Event> event;
        std::optional<Decision> boost;
        const char *result = nullptr;
    };
    struct Pending {  // a step kept back until the next one shows it was finished
        explicit Pending(Json s, bool is_sync = false) : step(std::move(s)), sync(is_sync) {}
        Json step;
        uint64_t t = 0;  // the log's clock when it was told
        bool sync = false;
        bool connect = false;   // a connection's own sync: the table files are opened after it
        bool ends_run = false;  // the daemon exits in this cycle (a table it cannot map)
        std::optional<CycleExpect> expect;  // a cycle with tables
        std::optional<QueryExpect> query;
    };

    void push(Item it);
    void drain(uint64_t upto);
    void handle(const Item &it);
    void handle_event(const Event &e);
    void handle_lookup(const Event &e);
    void handle_cycle(const Cycle &c);
    void handle_query(const Event &e);
    void handle_table_failed(const Event &e);
    void open(uint64_t line, bool at_boot);
    void close(uint64_t last_line, const char *why);
    void start_steering(bool lookup, bool connect_sync);
    void start_core(bool lookup);
    void push_steering(Pending p);
    void write_steering();  // the oldest kept step
    void flush_steering();
    void push_core(Pending p);
    void flush_core();
    void begin();
    void note_skip(uint64_t from, uint64_t to, uint64_t t0, uint64_t t1, const char *what);

    ScenarioWriter &w_;
    bool keep_;
    std::map<std::pair<uint64_t, uint64_t>, Item> buf_;
    uint64_t order_ = 0, last_line_ = 0, cycles_seen_ = 0;
    bool have_tod_ = false;
    uint64_t tod_ = 0, file_t_ = 0, now_t_ = 0;  // the log's clock, continuous over runs

    bool open_ = false, begun_ = false;
    bool steer_started_ = false, core_started_ = false;
    uint64_t first_line_ = 0, first_t_ = 0;
    uint64_t last_t_ = 0;                    // the clock of the stretch's last step written
    uint64_t closed_upto_ = 0;               // the last line of the last stretch closed
    uint64_t quiet_from_ = 1, quiet_t_ = 0;  // lines without a stretch since
    int64_t zeb_id_ = 30, core_id_ = 31;     // the ids last looked up
    size_t sync_pos_ = 0;
    std::deque<Pending> steer_;  // the step kept back and the one before it
    std::optional<Pending> core_;
    std::vector<Json> early_steer_, early_core_;  // steps before the run's first cycle
    RunExpect cur_;
    std::vector<RunExpect> runs_;
    std::vector<std::string> skipped_;
};

// Reads LOG through the builder (then finishes it). False, with `why`, when
// the log cannot be read at all.
bool build_scenario(const std::string &log, Builder &b, std::string &why);

}  // namespace zlog::rec
