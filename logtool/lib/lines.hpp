// The line reader: splits a log into lines, reads each line's prefix and
// matches its message against the table of log lines. It streams: a log of
// any size reads in a few megabytes, and nothing is allocated per line.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "logmodel.hpp"
#include "splitter.hpp"

namespace zlog {

inline constexpr size_t kStampWidth = 16;   // " HH:MM:SS.uuuuuu"
inline constexpr size_t kFuncWidth = 40;    // function names right-aligned in this
inline constexpr size_t kSrcLineWidth = 3;  // source line numbers, at least this wide

// Reads one line (without its line end) into `out`: the stamp, function,
// source line and level, then the message against that function's formats.
// Returns true when the line is a message of the table at its level
// (out.problem None, out.msg and out.args set); otherwise false with
// out.problem NoPrefix, Columns, UnknownMessage or WrongLevel. out.text,
// out.func and %s arguments point into `text`.
bool parse_line(std::string_view text, uint64_t no, LogLine &out);

// " HH:MM:SS.uuuuuu" without the leading blank (15 bytes), as microseconds
// since midnight. The log's prefix and the CSV's rows share it.
bool parse_stamp(std::string_view s, uint64_t &tod_us);

// Matches a message (the text after the prefix) against the formats of
// out.func, preferring those at out.level and then the most specific. Sets
// out.msg and out.args, or out.problem UnknownMessage or WrongLevel.
bool match_message(std::string_view msg, LogLine &out);

// Whether the message's format ends in "\n", so that an empty line follows.
bool ends_with_blank(Msg m);

// Receives every line of a log in order. The LogLine and the text it points
// into are valid only during the call.
class LineSink {
   public:
    virtual ~LineSink();
    virtual void on_line(const LogLine &) = 0;
};

// The reader's state between chunks, for callers that have the bytes in
// pieces (the file reader, fuzzing). Lines are numbered from 1; problems set:
// CrLf (still matched), NotText, TooLong (first kMaxLine bytes kept), Cut
// (the last line has no newline; reported at finish()), MissingBlank (a line
// of its own, text "", before the line that came instead of the empty line),
// UnexpectedBlank. The empty line a "\n" message asks for is not handed on.
class LineReader {
   public:
    explicit LineReader(LineSink &sink);
    ~LineReader();
    LineReader(const LineReader &) = delete;
    LineReader &operator=(const LineReader &) = delete;

    void feed(std::string_view bytes);
    void finish();  // the end of the log: a pending partial line is Cut
    uint64_t lines() const { return no_; }

   private:
    void line_done(std::string_view text, bool too_long, bool cut);
    void hand_on(Problem p);
    void hand_on_blank(Problem p);

    LineSink &sink_;
    Splitter split_;
    bool blank_due_ = false;  // the previous message ended in "\n"
    uint64_t no_ = 0;
    LogLine line_;
};

void read_lines_text(std::string_view text, LineSink &sink);

// Path "-" is standard input. False, with `why`, only when the file cannot be
// opened or read at all.
bool read_lines_file(const std::string &path, LineSink &sink, std::string &why);
// The same through a reader of the caller's (which then knows the count).
bool read_lines_file(const std::string &path, LineReader &reader, std::string &why);

}  // namespace zlog
