#include "core/log.h"

#include <pthread.h>
#include <sys/time.h>
#include <time.h>

#include <csignal>
#include <cstdarg>
#include <cstring>
#include <mutex>

#include "core/lifecycle.h"

std::atomic<uint8_t> log_enabled{1};
std::atomic<uint8_t> verbose_log_enabled{0};
std::atomic<uint8_t> csv_log_enabled{0};
std::atomic<FILE *> log_fp{nullptr};
std::atomic<FILE *> csv_fp{nullptr};

static std::mutex zebusr_streams_mutex;

void zebusr_streams_lock(sigset_t *saved) {
    sigset_t handled;
    zebusr_handled_signals(&handled);
    sigemptyset(saved);  // the kernel fills only the first word of the old mask
    pthread_sigmask(SIG_BLOCK, &handled, saved);
    zebusr_streams_mutex.lock();
}

void zebusr_streams_unlock(const sigset_t *saved) {
    zebusr_streams_mutex.unlock();
    pthread_sigmask(SIG_SETMASK, saved, nullptr);
}

static const char *const zebusr_level_words[] = {"HIGH", "ERR", "MED", "LOW"};

// "%T" changes once a second, so each thread keeps its last text. A signal
// handler that logs while its thread is in here formats afresh instead.
struct zebusr_clock_cache {
    time_t sec;
    bool valid;
    char text[ZEBUSR_CLOCK_LEN];
};
static thread_local zebusr_clock_cache zebusr_clock;
static thread_local volatile sig_atomic_t zebusr_clock_busy;

static void zebusr_clock_text(time_t sec, char *out) {
    bool mine = !zebusr_clock_busy;
    zebusr_clock_busy = 1;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    if (mine && zebusr_clock.valid && zebusr_clock.sec == sec) {
        memcpy(out, zebusr_clock.text, ZEBUSR_CLOCK_LEN);
    } else {
        struct tm tm_local;
        localtime_r(&sec, &tm_local);
        strftime(out, ZEBUSR_CLOCK_LEN, "%T", &tm_local);
        if (mine) {
            memcpy(zebusr_clock.text, out, ZEBUSR_CLOCK_LEN);
            zebusr_clock.sec = sec;
            zebusr_clock.valid = true;
        }
    }
    std::atomic_signal_fence(std::memory_order_seq_cst);
    if (mine)
        zebusr_clock_busy = 0;
}

void zebusr_log_stamp(char *out) {
    struct timeval tv;
    char clock[ZEBUSR_CLOCK_LEN];

    gettimeofday(&tv, nullptr);
    zebusr_clock_text(tv.tv_sec, clock);
    // "%s.%06lu" by hand, for every line: the microseconds are below a
    // million, so six digits, and the clock text fits its 10 bytes, so the
    // stamp takes at most 17 of its 25.
    unsigned long usec = static_cast<unsigned long>(tv.tv_usec);
    size_t n = strnlen(clock, sizeof(clock));
    memcpy(out, clock, n);
    out[n] = '.';
    for (int i = 6; i >= 1; i--, usec /= 10)
        out[n + static_cast<size_t>(i)] = char('0' + usec % 10);
    out[n + 7] = '\0';
}

// LOW and MED test the verbose flag before the master switch and the stream.
// Called again under the lock, since the stream may have closed meanwhile.
static FILE *zebusr_log_gate(zebusr_log_level level) {
    if ((level == ZEBUSR_LOG_MED || level == ZEBUSR_LOG_LOW) && !zebusr_verbose())
        return nullptr;
    if (!log_enabled.load(std::memory_order_relaxed))
        return nullptr;
    return log_fp.load(std::memory_order_relaxed);
}

// Right-aligns `s` in `width` columns, like "%<width>s".
static size_t zebusr_put_right(char *p, const char *s, size_t width) {
    size_t n = strlen(s);
    size_t pad = n < width ? width - n : 0;
    memset(p, ' ', pad);
    memcpy(p + pad, s, n);
    return pad + n;
}

// The prefix "%16s %40s():%3u (%s): " by hand, into `p`; 0 when it might not fit.
static size_t zebusr_log_prefix(char *p, size_t cap, const char *stamp, const char *func,
                                unsigned line, const char *word) {
    if (strlen(func) + 96 > cap)
        return 0;
    size_t n = zebusr_put_right(p, stamp, 16);
    p[n++] = ' ';
    n += zebusr_put_right(p + n, func, 40);
    memcpy(p + n, "():", 3);
    n += 3;
    char digits[12];
    size_t d = sizeof(digits);
    do {
        digits[--d] = char('0' + line % 10);
        line /= 10;
    } while (line);
    for (size_t w = sizeof(digits) - d; w < 3; w++) p[n++] = ' ';
    memcpy(p + n, digits + d, sizeof(digits) - d);
    n += sizeof(digits) - d;
    p[n++] = ' ';
    p[n++] = '(';
    n += zebusr_put_right(p + n, word, 0);
    memcpy(p + n, "): ", 3);
    return n + 3;
}

// Writes `v` ending at `end`; returns where it begins. Decimal and hex apart,
// so each divides by a constant.
static char *zebusr_put_decimal(char *end, unsigned long long v) {
    do {
        *--end = char('0' + v % 10);
        v /= 10;
    } while (v);
    return end;
}

static char *zebusr_put_hex(char *end, unsigned long long v) {
    do {
        *--end = "0123456789abcdef"[v & 15];
        v >>= 4;
    } while (v);
    return end;
}

// The messages' own conversions (%d %i %u %x %s %%, with or without l) with
// no flags, width or precision, by hand; -1 for anything else, a null string
// or a text that does not fit, and vsnprintf formats it instead.
static int zebusr_format_plain(char *out, size_t cap, const char *fmt, va_list ap) {
    size_t n = 0;
    char digits[24];
    char *const end = digits + sizeof(digits);
    for (const char *f = fmt; *f; f++) {
        const char *text = f;
        size_t len = 1;
        if (*f != '%') {
            // The literal run up to the next conversion, in one copy.
            len = strcspn(f, "%");
            f += len - 1;
        } else {
            bool is_long = f[1] == 'l';
            f += is_long ? 2 : 1;
            switch (*f) {
                case 'd':
                case 'i': {
                    long long v = is_long ? va_arg(ap, long) : va_arg(ap, int);
                    unsigned long long mag = static_cast<unsigned long long>(v);
                    char *p = zebusr_put_decimal(end, v < 0 ? 0ULL - mag : mag);
                    if (v < 0)
                        *--p = '-';
                    text = p;
                    len = static_cast<size_t>(end - p);
                    break;
                }
                case 'u':
                case 'x': {
                    unsigned long long v =
                        is_long ? va_arg(ap, unsigned long) : va_arg(ap, unsigned);
                    text = *f == 'u' ? zebusr_put_decimal(end, v) : zebusr_put_hex(end, v);
                    len = static_cast<size_t>(end - text);
                    break;
                }
                case 's':
                    text = is_long ? nullptr : va_arg(ap, const char *);
                    if (!text)
                        return -1;
                    len = strlen(text);
                    break;
                case '%':
                    if (is_long)
                        return -1;
                    break;
                default:
                    return -1;
            }
        }
        if (n + len >= cap)
            return -1;
        memcpy(out + n, text, len);
        n += len;
    }
    return static_cast<int>(n);
}

constexpr size_t ZEBUSR_LOG_LINE_MAX = 1024;

// Kept out of line: most calls are verbose lines with verbose logging off,
// and they should pay for the gate only.
__attribute__((noinline, format(printf, 4, 0))) static void zebusr_log_vwrite(
    zebusr_log_level level, const char *func, unsigned line, const char *fmt, va_list ap) {
    char stamp[ZEBUSR_STAMP_LEN];
    zebusr_log_stamp(stamp);
    // The line is built on the stack and handed to the stream in one piece;
    // one too long for the buffer is written as before, in three parts.
    char buf[ZEBUSR_LOG_LINE_MAX];
    size_t n = zebusr_log_prefix(buf, sizeof(buf), stamp, func, line, zebusr_level_words[level]);
    va_list plain, again;
    va_copy(plain, ap);
    va_copy(again, ap);
    int m = n ? zebusr_format_plain(buf + n, sizeof(buf) - n, fmt, plain) : -1;
    va_end(plain);
    if (n && m < 0)
        m = vsnprintf(buf + n, sizeof(buf) - n, fmt, ap);

    // Whole lines: no other thread's line can fall inside one.
    sigset_t saved;
    zebusr_streams_lock(&saved);
    FILE *fp = zebusr_log_gate(level);
    if (fp && m >= 0 && static_cast<size_t>(m) + 1 < sizeof(buf) - n) {
        buf[n + static_cast<size_t>(m)] = '\n';
        fwrite(buf, 1, n + static_cast<size_t>(m) + 1, fp);
    } else if (fp) {
        fprintf(fp, "%16s %40s():%3u (%s): ", stamp, func, line, zebusr_level_words[level]);
        vfprintf(fp, fmt, again);
        fprintf(fp, "\n");
    }
    if (fp)
        fflush(fp);
    zebusr_streams_unlock(&saved);
    va_end(again);
}

void zebusr_log_write(zebusr_log_level level, const char *func, unsigned line, const char *fmt,
                      ...) {
    if (!zebusr_log_gate(level))
        return;
    va_list ap;
    va_start(ap, fmt);
    zebusr_log_vwrite(level, func, line, fmt, ap);
    va_end(ap);
}

void zebusr_start_logging(int) {
    ZLOG(HIGH, "Starting verbose logging");
    verbose_log_enabled.store(1, std::memory_order_relaxed);

    // An earlier stream is neither tested nor closed: a second SIGUSR1 simply
    // truncates the capture and starts it over. The new stream is handed to
    // the writers with its header written, so no row can come first.
    FILE *fp = fopen(ZEBUSR_CSV_PATH, "w+");
    if (fp)
        ZLOG(HIGH, "CSV File opened");
    else
        ZLOG(ERR, "Unable to open csv logging file");
    sigset_t saved;
    zebusr_streams_lock(&saved);
    if (fp) {
        fprintf(fp, ZEBUSR_CSV_HEADER);
        fflush(fp);
    }
    csv_fp.store(fp, std::memory_order_relaxed);
    csv_log_enabled.store(fp ? 1 : 0, std::memory_order_relaxed);
    zebusr_streams_unlock(&saved);
}

void zebusr_stop_logging(int) {
    ZLOG(HIGH, "Stopping verbose logging");
    verbose_log_enabled.store(0, std::memory_order_relaxed);
    // The stream pointer is forgotten so that a second SIGUSR2, or one before
    // any SIGUSR1, cannot hand fclose a dead or absent stream.
    sigset_t saved;
    zebusr_streams_lock(&saved);
    csv_log_enabled.store(0, std::memory_order_relaxed);
    FILE *fp = csv_fp.exchange(nullptr, std::memory_order_relaxed);
    if (fp)
        fclose(fp);
    zebusr_streams_unlock(&saved);
}
