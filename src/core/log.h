// Logging facility: one timestamped line per call, best-effort, shared by
// every thread and by the signal handlers.
#pragma once

#include <signal.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>

#define ZEBUSR_LOG_PATH "/data/vendor/zebusr/zebusr_log.txt"
#define ZEBUSR_CSV_PATH "/data/vendor/zebusr/zebusr_caps.csv"
#define ZEBUSR_CSV_HEADER "time,seq_num,CPU0,CPU1,CPU2,CPU3,CPU4,CPU5,CPU6,CPU7\n"

// "%T" needs 9 bytes with its NUL; the stamp adds ".uuuuuu".
constexpr size_t ZEBUSR_CLOCK_LEN = 10;
constexpr size_t ZEBUSR_STAMP_LEN = 25;

enum zebusr_log_level : uint8_t {
    ZEBUSR_LOG_HIGH,
    ZEBUSR_LOG_ERR,
    ZEBUSR_LOG_MED,
    ZEBUSR_LOG_LOW,
};

// Written from signal handlers while the workers read them: relaxed atomics
// keep the lock-free design free of data races.
extern std::atomic<uint8_t> log_enabled;
extern std::atomic<uint8_t> verbose_log_enabled;
extern std::atomic<uint8_t> csv_log_enabled;
extern std::atomic<FILE *> log_fp;
extern std::atomic<FILE *> csv_fp;

inline bool zebusr_verbose() {
    return verbose_log_enabled.load(std::memory_order_relaxed) != 0;
}

// Fills `out` (ZEBUSR_STAMP_LEN bytes) with local "HH:MM:SS.uuuuuu".
void zebusr_log_stamp(char *out);

void zebusr_log_write(zebusr_log_level level, const char *func, unsigned line, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));

// ZLOG(HIGH, "fmt", ...): the level word is HIGH, ERR, MED or LOW.
#define ZLOG(level, ...) zebusr_log_write(ZEBUSR_LOG_##level, __func__, __LINE__, __VA_ARGS__)
// For checks shared by several callers: the line names the caller, not the helper.
#define ZLOG_AT(level, func, line, ...) \
    zebusr_log_write(ZEBUSR_LOG_##level, func, line, __VA_ARGS__)
// A helper's line carries the name of the function its message belongs to,
// so the log reads the same however the work is split.
#define ZLOG_AS(level, func, ...) zebusr_log_write(ZEBUSR_LOG_##level, func, __LINE__, __VA_ARGS__)

// Held around every use of log_fp and csv_fp that may race with their
// closing, with the handled signals blocked meanwhile: a handler never waits
// on a lock its own thread holds.
void zebusr_streams_lock(sigset_t *saved);
void zebusr_streams_unlock(const sigset_t *saved);

void zebusr_start_logging(int signum);
void zebusr_stop_logging(int signum);
