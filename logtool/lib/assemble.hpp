// The assembler's state: it takes the matched lines in order and rebuilds the
// runs, cycles, decisions and events of a log. Internal to the reader.
//
// The daemon's two worker threads write into one file without a lock, so
// lines of shared functions (socket, family lookup, receive) are given to the
// thread whose last own line says it is at that step; when both could be,
// the line is held until a later own line of one thread settles it.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "lines.hpp"
#include "logmodel.hpp"

namespace zlog::detail {

// Which thread writes a message, by its function.
enum class Owner : uint8_t { Main, Eval, Boost, Shared };
Owner owner_of(Msg m);

// Where a thread stands, as far as its own lines tell.
enum class Step : uint8_t {
    Unknown,   // nothing seen yet (a log that starts mid-run)
    Idle,      // between requests
    OpenSock,  // about to open a socket
    InitSock,  // resolving its family: sends, then receives with no line before
    Waiting,   // waiting for a reply it announced
};

// What a failed shared step tells, kept until the thread's own line uses it.
enum class Slot : uint8_t { Recv, Init, Sock };

struct HeldLine {
    Slot slot = Slot::Recv;
    Msg msg = Msg::Unknown;
    uint64_t line = 0;
};

struct ThreadState {
    Step step = Step::Unknown;
    // The latest unconsumed failure of each slot: its message and line.
    std::array<HeldLine, 3> slots{};
    std::array<bool, 3> has{};
    int attempts = 0;  // failed connection attempts in the current loop
};

// Pending request of the evaluation thread whose reply is awaited.
enum class Await : uint8_t { None, Sync, Decision };

// Boost evaluations come a second apart; the lines of one come within
// microseconds, so a tenth of that apart is surely the next evaluation.
inline constexpr uint64_t kBoostGapUs = 100000;

class Assembler : public LineSink {
   public:
    explicit Assembler(Sink &sink);
    void on_line(const LogLine &l) override;
    void finish();  // the end of the log

   private:
    // assemble_run.cpp: runs, time, verbose switches, gaps, problems.
    bool begin_line(const LogLine &l);
    void advance_time(const LogLine &l);
    void start_run(const LogLine &l, bool mid_run);
    void emit_run_start(bool verbose_boot);
    void end_run(bool restart);
    void set_end(const std::string &why, bool exit);
    void verbose_on(const LogLine &l);
    void verbose_off(const LogLine &l);
    void close_gap(uint64_t last);
    void problem(const LogLine &l);
    void note(uint64_t line, std::string text);
    void crlf_note();
    Event &fresh(EventKind k, uint64_t line);
    void emit(const Event &e) { sink_.event(e); }

    // assemble_main.cpp: main, signals, clean-up, table files.
    void on_main(const LogLine &l);
    void on_table_file(const LogLine &l);
    bool on_table_failed(const LogLine &l);

    // assemble_shared.cpp: lines of functions both threads call.
    void on_shared(const LogLine &l);
    bool could(const ThreadState &t, Slot s) const;
    void route(Slot s, const LogLine &l);
    void give(ThreadState &t, Slot s, Msg m, uint64_t line);
    bool take(ThreadState &t, Slot s, HeldLine &out);
    void settle(ThreadState &t, Slot s);
    Answer recv_answer(ThreadState &t, uint64_t line);
    Answer lookup_answer(ThreadState &t, uint64_t line);

    // assemble_connect.cpp: the two connections' story.
    bool on_eval_connect(const LogLine &l);
    bool on_eval_connected(const LogLine &l);
    void first_sync_failed(const LogLine &l);
    bool on_boost_connect(const LogLine &l);
    void lookup(const char *family, const LogLine &l, bool ok, ThreadState &t);
    void connect_failed(EventKind k, ThreadState &t, const LogLine &l, const std::string &step,
                        Answer a);
    std::string sock_words(ThreadState &t);
    void reconnecting(ThreadState &t);

    // assemble_cycle.cpp: the evaluation cycle, its tables and history.
    void on_eval(const LogLine &l);
    void open_cycle(const LogLine &l);
    void close_cycle(bool complete);
    void on_reply(Answer a);
    void sync_failed(const LogLine &l);
    bool on_tables(const LogLine &l);
    void table_line(const LogLine &l);
    void gold_line(const LogLine &l);
    bool on_history(const LogLine &l);
    void history_line(const LogLine &l);
    template <class T>
    void keep(std::vector<T> &v, const T &item, uint64_t line, size_t most, const char *what);

    // assemble_decide.cpp: the requests of the policies.
    bool on_decision(const LogLine &l);
    bool continues_decision(Msg m) const;
    Decision &new_decision(Kind k, const LogLine &l);
    Decision *current_decision();
    void up_decision(const LogLine &l);
    void move_decision(Kind k, const LogLine &l);
    void seg_decision(const LogLine &l);
    void move_done(Kind k, const LogLine &l);
    void flush_quiet();
    void flush_stale();

    // assemble_boost.cpp: the boost thread's queries and boosts.
    void on_boost(const LogLine &l);
    bool on_query(const LogLine &l);
    bool rate_line(const LogLine &l);
    void start_query(const LogLine &l);
    void query_failed(const LogLine &l, Answer a);
    void emit_query();
    void boosting(const LogLine &l);
    void flush_boost();

    Sink &sink_;
    Event ev_;     // reused for every event but the query
    Event query_;  // the boost thread's query being read
    bool query_open_ = false;
    bool rates_fresh_ = false;  // query_'s rates are this evaluation's

    Cycle cycle_;
    bool cycle_open_ = false;
    bool cycle_overflow_ = false;
    size_t emitted_ = 0;  // the cycle's decisions already handed on
    uint64_t cycles_in_run_ = 0;
    Decision quiet_;  // a decision outside any cycle, until nothing more of it can come
    bool quiet_open_ = false;
    Await await_ = Await::None;
    Answer sync_answer_;  // the latest sync's answer, for a sync that fails
    bool eval_connecting_ = false;
    int last_stable_ = -1;  // the last stability verdict (1 stable), and its hash
    uint32_t last_stable_hash_ = 0;
    int up_index_ = -1;  // "Move all flows on cpu %d at index %d"

    Decision boost_;  // the boost decision of the current evaluation
    bool boost_open_ = false;
    uint64_t boost_last_t_ = 0;

    ThreadState eval_, boost_t_;
    std::array<HeldLine, 8> held_{};
    size_t nheld_ = 0;

    // The run.
    bool started_any_ = false;
    bool in_run_ = false;
    bool start_pending_ = false;  // "Initializing" seen, whether verbose not yet
    uint64_t run_ = 0;
    uint64_t run_first_line_ = 0;
    uint64_t last_line_ = 0;
    bool last_cut_ = false;
    uint64_t t_us_ = 0;
    uint64_t tod_ = 0, tod0_ = 0;  // the latest stamp and the run's first
    uint64_t days_ = 0;            // midnights passed in the run
    bool have_time_ = false;
    int clock_notes_ = 0;
    bool verbose_ = false;
    bool verbose_known_ = false;
    bool gap_open_ = false;
    uint64_t gap_line_ = 0, gap_t_ = 0;
    bool crlf_noted_ = false;
    uint64_t crlf_line_ = 0;
    std::string end_why_;
    bool end_exit_ = false;
    bool cleaned_ = false;
    bool stopping_ = false;  // the stop signal's handler ran: the clean-up closes the tables
};

}  // namespace zlog::detail
