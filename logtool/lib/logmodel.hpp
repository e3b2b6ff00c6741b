// What a zebusrd log says, as data: each line as the table of log lines reads
// it, and the daemon's runs rebuilt from those lines (cycles with the tables
// the daemon read, its requests with the kernel's answers, the connection's
// story, the boost thread's queries). Every verb of zebusr-log, the tests'
// log checks and the replay read logs only through this.
//
// Plain C++ with no dependency beyond the standard library: the unit tests
// that use it are also built for aarch64 and for Android.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "messages.hpp"  // enum class Level; enum class Msg, one per row of log_lines.tsv

namespace zlog {

// ---------------------------------------------------------------- one line

const char *level_name(Level l);  // "HIGH", "ERR", "MED", "LOW"

inline constexpr int kMaxArgs = 16;          // the most conversions a message has is 14
inline constexpr size_t kMaxLine = 1 << 20;  // longer lines are cut here and reported

// One conversion's value. Numbers keep their bits both ways: %d of -1 gives
// i = -1 and u = 2^64-1; %lu of 2^64-1 gives the same.
struct Arg {
    uint64_t u = 0;
    int64_t i = 0;
    std::string_view s;  // %s only
};

// What is wrong with a line, if anything. Lines with a problem other than
// None and CrLf are not matched to a message (msg is Msg::Unknown).
enum class Problem : uint8_t {
    None,
    CrLf,            // ended in CR LF; read without the CR (not an error)
    NotText,         // holds a NUL or another control byte than TAB
    TooLong,         // longer than kMaxLine: the rest was skipped
    Cut,             // the file ends inside this line (no final newline)
    NoPrefix,        // not " HH:MM:SS.uuuuuu <func>():<line> (<LEVEL>): "
    Columns,         // the prefix's columns are not where the writer puts them
    UnknownMessage,  // no message of that function has this text
    WrongLevel,      // a message of that function, at another level
    MissingBlank,    // a message ending in "\n" not followed by an empty line
    UnexpectedBlank, // an empty line where none belongs
};
const char *problem_text(Problem p);  // a few words, for messages

struct LogLine {
    uint64_t no = 0;          // 1-based line number in the file
    std::string_view text;    // the line as read, without its line end
    Problem problem = Problem::None;
    uint64_t tod_us = 0;      // the stamp: microseconds since midnight (a day's
                              // 86.4e9 does not fit 32 bits)
    std::string_view func;
    unsigned src_line = 0;
    Level level = Level::Low;
    Msg msg = Msg::Unknown;
    std::array<Arg, kMaxArgs> args{};
    uint8_t nargs = 0;
};

// ---------------------------------------------------------- what it means

struct CapEntry {  // one "ZEB_CAPS" line
    int cpu = 0;
    uint64_t pps = 0, avg = 0, bps = 0;
};

struct FlowEntry {  // one "ZEB_MMAP" or "ZEB_SLOW" line; hash 0 stands for an invalid entry
    uint32_t hash = 0;
    int cpu = 0;
    uint64_t rx_pps = 0, avg_pps = 0, rx_bps = 0;  // rx_bps: slow-start lines only
};

// How the kernel answered one request, as far as the log tells.
enum class Outcome : uint8_t {
    Unknown,    // the log does not say (verbose off)
    Code,       // answered with `code` ("kernel seq_num %d return code: %d")
    NoAnswer,   // the receive failed: time-out or closed socket ("recv error - len_recv < 0")
    Malformed,  // "netlink invalid family reply message": short, too long, wrong type
    Error,      // an NLMSG_ERROR ("netlink received msg error for family resp")
    NotSent,    // the request could not be built or sent
};
const char *outcome_name(Outcome o);

struct Answer {
    Outcome outcome = Outcome::Unknown;
    int32_t code = 0;    // with Outcome::Code
    uint64_t line = 0;   // the line that tells, 0 when none
    bool accepted() const { return outcome == Outcome::Code && code == 0; }
};

enum class Kind : uint8_t { Up, Down, Bal, Seg, Boost };
const char *kind_name(Kind k);  // "UP", "DOWN", "BAL", "SEG", "BOOST"

struct BoostEntry {
    uint32_t pid = 0;
    uint64_t tx_bps = 0;
    int64_t boost_left_ms = -1;  // from the rate list when the log has it, else -1
};

// One request the daemon decided to send, with the numbers that made it.
struct Decision {
    Kind kind = Kind::Up;
    uint64_t line = 0;   // the decision's own line: the HIGH "Sending msg" line,
                         // "Disabling segmentation", "Boosting pid" (the first)
    uint64_t t_us = 0;   // run time of that line
    uint32_t hash = 0;   // DOWN, BAL, SEG
    int cur = -1;        // UP: the loaded silver cpu; DOWN, BAL: the flow's cpu; SEG: its cpu
    int dest = -1;       // UP, DOWN, BAL
    // DOWN and BAL: the seven values of the line; UP: pps = the silver cpu's
    // pps capacity and avg = its index, when the cycle's table was logged.
    uint64_t pps = 0, avg_pps = 0, cap = 0, cap_w_head = 0;
    uint64_t rx_bps = 0;        // SEG: the sample that decided it
    bool stable = false;        // SEG: judged stable in this cycle
    std::vector<BoostEntry> boosts;  // BOOST
    Answer answer;              // BOOST: Code 0 once "PID - BOOST REQUESTED" is seen
                                // (no reply is awaited); moves: also from "Move successful"
    bool accepted = false;      // moves: "Move successful"; SEG: code 0; BOOST: sent
};

// One flow history node as the debug print shows it after the slow-start pass.
struct HistoryNode {
    uint32_t hash = 0;
    int bucket = 0;
    uint64_t rx_bps = 0;
    bool stable = false, seg_enabled = true;
    int len = 0;
    uint64_t avg = 0;
};

// One evaluation cycle: from its sync's "SYNC START" line to the next sync or
// the end of the run. With verbose logging off a cycle leaves no sync line
// and is not seen; decisions of such stretches land in Run::quiet_decisions.
struct Cycle {
    uint64_t run = 0;          // index of the run in the file, from 0
    uint64_t index = 0;        // index among the run's seen cycles, from 0
    uint64_t line = 0;         // the SYNC START line
    uint64_t last_line = 0;
    uint64_t t_us = 0;         // run time of the SYNC START line
    uint32_t seq = 0;          // seq_num the sync carried
    bool connect_sync = false; // the connection's own sync: no tables follow
    Answer sync;

    bool ss_read = false;      // "SS FLOW FILE CONTENTS" seen
    uint16_t ss_len = 0;       // "num ss flows"
    std::vector<FlowEntry> ss; // in table order; hash-0 entries kept where "Invalid hash" was logged
    bool ss_max = false;       // "Max user flows reached"
    std::vector<uint32_t> created, removed;  // history nodes added / removed in this cycle
    std::vector<HistoryNode> history;        // the debug print, when logged

    bool caps_read = false;    // "CAP FILE CONTENTS" seen
    std::vector<CapEntry> caps;    // table order, as logged (8 when whole)
    bool caps_bad_cpu = false; // "invalid cpu number" from the capacity reader

    bool gold_read = false;    // "GOLD FLOW FILE CONTENTS" seen
    uint16_t gold_len = 0;     // "num gold flows"
    std::vector<FlowEntry> gold;   // as logged; a final hash-0 entry where "Invalid hash, breaking"
    bool gold_max = false;     // "Max user flows reached"

    std::vector<Decision> decisions;  // in the order the daemon made them
    bool complete = false;     // the cycle ran to its end (next sync seen, or an exit inside it)
};

// What else happened: the connection's story, the boost thread, the run's
// edges and what could not be read.
enum class EventKind : uint8_t {
    RunStart,        // "Initializing zebusrd"; flag: verbose at boot
    RunEnd,          // the run's last line: text says how it ended (signal, exit, cut)
    VerboseOn,       // "Starting verbose logging" (SIGUSR1)
    VerboseOff,      // "Stopping verbose logging" (SIGUSR2)
    CsvOpened, CsvFailed,
    Lookup,          // a family lookup; family; id when it succeeded, else answer
    ConnectFailed,   // a steering connection attempt failed; text: at which step, answer: why
    Connected,       // "CONNECTED to dulox_zeb.ko"; number: attempts that failed before
    SyncFailed,      // "sync failed, attempting to reconnect"; answer: why the sync failed
    CoreConnectFailed, CoreConnected, CoreGaveUp,
    Query,           // one rate list of the boost thread, or its failure (answer)
    TableFailed,     // a table could not be opened or mapped; text: which, and the system's words
    ThreadFailed,    // a worker thread could not start
    Gap,             // lines with no verbose detail: from `line` to `last_line`
    Problem,         // a line that could not be read or matched; problem says how
    Note,            // anything else worth telling, in text
};
const char *event_name(EventKind k);

struct RateEntry {
    uint32_t pid = 0;
    uint64_t tx_bps = 0;
    int32_t boost_left_ms = 0;
};

struct Event {
    EventKind kind = EventKind::Note;
    uint64_t run = 0;
    uint64_t line = 0, last_line = 0;
    uint64_t t_us = 0;
    std::string family;        // Lookup: "DULOX_ZEB" or "DULOX_CORE"
    int64_t number = 0;        // Lookup: the id; Connected: failed attempts; RunStart: 1 when verbose at boot
    Answer answer;
    std::string text;
    Problem problem = Problem::None;
    // Query:
    bool valid = true;
    uint32_t list_len = 0;
    uint64_t timestamp = 0;
    std::vector<RateEntry> rates;
    bool rates_logged = false; // the rate list lines were seen (verbose)
};

// Receives what the assembler rebuilds, in the order of the lines that end
// each item. Items are handed over and forgotten: nothing accumulates, so
// any size of log reads in the same memory.
class Sink {
   public:
    virtual ~Sink() = default;
    virtual void line(const LogLine &) {}   // every line, matched or not
    virtual void cycle(const Cycle &) {}
    virtual void event(const Event &) {}
    virtual void decision(const Decision &, uint64_t run) { (void)run; }  // every decision, seen
                                                             // in a cycle or not
};

// Reads a whole log (a path, or "-" for standard input) into the sink.
// Returns false with `why` set only when nothing can be read (a missing or
// unreadable file); an empty file reads as no lines.
bool read_log(const std::string &path, Sink &sink, std::string &why);

// The same over text already in memory (tests, fuzzing).
void read_log_text(std::string_view text, Sink &sink);

// Run time: microseconds since the run's first line, counting a stamp that
// goes back by more than 12 hours as midnight passed. Exposed for tests.
uint64_t run_time_us(uint64_t prev_tod_us, uint64_t prev_run_us, uint64_t tod_us);

}  // namespace zlog
