// Writes Chrome JSON trace events to a file one at a time, so a trace of any
// length is written in the same memory.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

namespace zlog {

// The "args" of one event, built as JSON text.
class Args {
   public:
    Args &num(std::string_view key, uint64_t v);
    Args &num(std::string_view key, int64_t v);
    Args &num(std::string_view key, int v) { return num(key, static_cast<int64_t>(v)); }
    Args &str(std::string_view key, std::string_view v);
    Args &flag(std::string_view key, bool v);
    const std::string &json() const { return text_; }

   private:
    void key(std::string_view k);
    std::string text_;
};

// Appends s as a JSON string. Bytes that are not ASCII are written as \u00XX:
// a log may hold any bytes, and the trace must stay valid UTF-8.
void append_json_string(std::string &out, std::string_view s);

class TraceFile {
   public:
    // Throws std::runtime_error when the file cannot be created.
    explicit TraceFile(const std::string &path);
    ~TraceFile();
    TraceFile(const TraceFile &) = delete;
    TraceFile &operator=(const TraceFile &) = delete;

    void meta(int pid, int tid, std::string_view what, std::string_view name);
    void counter(int pid, std::string_view name, uint64_t ts, std::string_view series, int64_t v);
    void instant(int pid, int tid, std::string_view name, uint64_t ts, const Args &args);
    void slice(int pid, int tid, std::string_view name, uint64_t ts, uint64_t dur,
               const Args &args);
    // Closes the event list and writes the trailing members; false when a
    // write failed (a full disk, say).
    bool finish(const Args &metadata);
    uint64_t events() const { return events_; }
    // Added to every time stamp written: puts the trace on another clock.
    void shift(int64_t us) { shift_ = us; }

   private:
    void begin(char ph, int pid, int tid, std::string_view name);
    void end(const std::string &tail);
    std::string ts(uint64_t t) const;
    std::FILE *f_ = nullptr;
    bool own_ = false;
    uint64_t events_ = 0;
    int64_t shift_ = 0;
    std::string buf_;
};

}  // namespace zlog
