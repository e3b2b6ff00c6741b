#include "core/log.h"

#include <sys/time.h>
#include <time.h>

#include <cstdarg>

std::atomic<uint8_t> log_enabled{1};
std::atomic<uint8_t> verbose_log_enabled{0};
std::atomic<uint8_t> csv_log_enabled{0};
std::atomic<FILE *> log_fp{nullptr};
std::atomic<FILE *> csv_fp{nullptr};

static const char *const zebusr_level_words[] = {"HIGH", "ERR", "MED", "LOW"};

void zebusr_log_stamp(char *out) {
    struct timeval tv;
    struct tm tm_local;
    char clock[ZEBUSR_CLOCK_LEN];

    gettimeofday(&tv, nullptr);
    localtime_r(&tv.tv_sec, &tm_local);
    strftime(clock, sizeof(clock), "%T", &tm_local);
    snprintf(out, ZEBUSR_STAMP_LEN, "%s.%06lu", clock, static_cast<unsigned long>(tv.tv_usec));
}

// LOW and MED test the verbose flag before the master switch and the stream.
static FILE *zebusr_log_gate(zebusr_log_level level) {
    if ((level == ZEBUSR_LOG_MED || level == ZEBUSR_LOG_LOW) && !zebusr_verbose())
        return nullptr;
    if (!log_enabled.load(std::memory_order_relaxed))
        return nullptr;
    return log_fp.load(std::memory_order_relaxed);
}

void zebusr_log_write(zebusr_log_level level, const char *func, unsigned line, const char *fmt,
                      ...) {
    FILE *fp = zebusr_log_gate(level);
    if (!fp)
        return;

    char stamp[ZEBUSR_STAMP_LEN];
    zebusr_log_stamp(stamp);
    // Still three writes, but no other thread's line can fall between them.
    flockfile(fp);
    fprintf(fp, "%16s %40s():%3u (%s): ", stamp, func, line, zebusr_level_words[level]);

    va_list ap;
    va_start(ap, fmt);
    vfprintf(fp, fmt, ap);
    va_end(ap);

    fprintf(fp, "\n");
    fflush(fp);
    funlockfile(fp);
}

void zebusr_start_logging(int) {
    ZLOG(HIGH, "Starting verbose logging");
    verbose_log_enabled.store(1, std::memory_order_relaxed);

    // An earlier stream is neither tested nor closed: a second SIGUSR1 simply
    // truncates the capture and starts it over.
    FILE *fp = fopen(ZEBUSR_CSV_PATH, "w+");
    csv_fp.store(fp, std::memory_order_relaxed);
    if (fp) {
        csv_log_enabled.store(1, std::memory_order_relaxed);
        ZLOG(HIGH, "CSV File opened");
        fprintf(fp, ZEBUSR_CSV_HEADER);
        fflush(fp);
    } else {
        csv_log_enabled.store(0, std::memory_order_relaxed);
        ZLOG(ERR, "Unable to open csv logging file");
    }
}

void zebusr_stop_logging(int) {
    ZLOG(HIGH, "Stopping verbose logging");
    verbose_log_enabled.store(0, std::memory_order_relaxed);
    csv_log_enabled.store(0, std::memory_order_relaxed);
    // The stream pointer is forgotten so that a second SIGUSR2, or one before
    // any SIGUSR1, cannot hand fclose a dead or absent stream.
    FILE *fp = csv_fp.exchange(nullptr, std::memory_order_relaxed);
    if (fp)
        fclose(fp);
}
