// LD_PRELOAD shim that lets the unmodified daemon run against the simulator.
// It redirects only: the generic netlink socket (to the simulator's unix
// seqpacket socket), opens of /proc/zeb/... and fopens of /data/vendor/zebusr/...
// (into the run directory), sleep() and SO_RCVTIMEO (scaled and recorded), and,
// for fault tests, the n-th pthread_create. Everything else passes through.
//
// Environment:
//   ZEBUSR_SIM_SOCKET       simulator socket ("@name" = abstract namespace)
//   ZEBUSR_SIM_RUNDIR       run directory; also receives preload.jsonl
//   ZEBUSR_SIM_TIME_FACTOR  real seconds per requested second (default 1)
//   ZEBUSR_SIM_FAIL_PTHREAD_CREATE  n: the n-th pthread_create fails with EAGAIN
// When the run directory holds the simulator's clock page, sleep() waits for
// simulated time, which stops at the next sync reply's tick while the daemon
// is slower than the module's tick.
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>

namespace {

constexpr int kNetlink = 16;  // AF_NETLINK and NETLINK_GENERIC
constexpr char kProcPrefix[] = "/proc/zeb/";
constexpr char kDataPrefix[] = "/data/vendor/zebusr/";

template <class F>
F next(const char *name) {
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

using OpenFn = int (*)(const char *, int, ...);
using CreateFn = int (*)(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *);
using SocketFn = int (*)(int, int, int);
using ConnectFn = int (*)(int, const sockaddr *, socklen_t);
using BindFn = ConnectFn;
using SetsockoptFn = int (*)(int, int, int, const void *, socklen_t);
using FopenFn = FILE *(*)(const char *, const char *);

#define REAL(name, Type)                           \
    static std::atomic<Type> real_##name{nullptr}; \
    if (!real_##name)                              \
        real_##name = next<Type>(#name);

double time_factor() {
    const char *v = getenv("ZEBUSR_SIM_TIME_FACTOR");
    double f = v ? strtod(v, nullptr) : 1.0;
    return f > 0 ? f : 1.0;
}

double now_s() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

// One JSON line per event, appended with a single write so threads don't mix.
void note(const char *fmt, ...) {
    const char *dir = getenv("ZEBUSR_SIM_RUNDIR");
    if (!dir)
        return;
    char path[4096];
    snprintf(path, sizeof path, "%s/preload.jsonl", dir);
    char line[1024];
    int n = snprintf(line, sizeof line, "{\"mono\":%.6f,\"tid\":%ld,", now_s(),
                     long(syscall(SYS_gettid)));
    va_list ap;
    va_start(ap, fmt);
    n += vsnprintf(line + n, sizeof line - size_t(n) - 2, fmt, ap);
    va_end(ap);
    if (n > int(sizeof line) - 3)
        n = int(sizeof line) - 3;
    line[n++] = '}';
    line[n++] = '\n';
    int fd =
        int(syscall(SYS_openat, AT_FDCWD, path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644));
    if (fd < 0)
        return;
    ssize_t w = write(fd, line, size_t(n));
    (void)w;
    close(fd);
}

// Maps a daemon path under `prefix` into the run directory; nullptr to pass through.
const char *redirect(const char *path, const char *prefix, size_t plen, char *buf, size_t cap) {
    const char *dir = getenv("ZEBUSR_SIM_RUNDIR");
    if (!dir || !path || strncmp(path, prefix, plen) != 0)
        return nullptr;
    snprintf(buf, cap, "%s%s", dir, path);
    return buf;
}

bool is_sim_socket(int fd) {
    int dom = 0, type = 0;
    socklen_t l = sizeof dom;
    if (getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &dom, &l) != 0 || dom != AF_UNIX)
        return false;
    l = sizeof type;
    return getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &l) == 0 && type == SOCK_SEQPACKET;
}

int connect_sim(int type_flags) {
    REAL(socket, SocketFn);
    REAL(connect, ConnectFn);
    const char *name = getenv("ZEBUSR_SIM_SOCKET");
    int fd = real_socket(AF_UNIX, SOCK_SEQPACKET | type_flags, 0);
    if (fd < 0)
        return fd;
    sockaddr_un a;
    memset(&a, 0, sizeof a);
    a.sun_family = AF_UNIX;
    size_t n = strlen(name);
    if (n >= sizeof a.sun_path)
        n = sizeof a.sun_path - 1;
    memcpy(a.sun_path, name, n);
    if (name[0] == '@')
        a.sun_path[0] = '\0';
    socklen_t len = socklen_t(offsetof(sockaddr_un, sun_path) + n + (name[0] == '@' ? 0 : 1));
    if (real_connect(fd, reinterpret_cast<sockaddr *>(&a), len) != 0) {
        int e = errno;
        close(fd);
        note("\"call\":\"socket\",\"redirected\":true,\"connected\":false,\"errno\":%d", e);
        errno = e;
        return -1;
    }
    note("\"call\":\"socket\",\"redirected\":true,\"connected\":true,\"fd\":%d", fd);
    return fd;
}

int open_redirected(const char *path, int flags, mode_t mode, OpenFn real) {
    char buf[4096];
    const char *p = redirect(path, kProcPrefix, sizeof kProcPrefix - 1, buf, sizeof buf);
    return real(p ? p : path, flags, mode);
}

void real_sleep(double s) {
    timespec ts;
    ts.tv_sec = time_t(s);
    ts.tv_nsec = long((s - double(ts.tv_sec)) * 1e9);
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

// The simulator's clock page: i64 start (CLOCK_MONOTONIC ns), f64 factor, i64
// held ns, i64 cap ns (INT64_MAX: none).
const uint8_t *map_clock() {
    const char *dir = getenv("ZEBUSR_SIM_RUNDIR");
    if (!dir)
        return nullptr;
    char path[4096];
    snprintf(path, sizeof path, "%s/clock", dir);
    int fd = int(syscall(SYS_openat, AT_FDCWD, path, O_RDONLY | O_CLOEXEC));
    if (fd < 0)
        return nullptr;
    void *m = mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0);
    close(fd);
    return m == MAP_FAILED ? nullptr : static_cast<const uint8_t *>(m);
}

const uint8_t *sim_clock() {
    static const uint8_t *page = map_clock();
    return page;
}

double clock_factor(const uint8_t *c) {
    double f;
    memcpy(&f, c + 8, 8);
    return f > 0 ? f : 1.0;
}

double clock_now(const uint8_t *c) {
    int64_t start;
    memcpy(&start, c, 8);
    int64_t held = __atomic_load_n(reinterpret_cast<const int64_t *>(c + 16), __ATOMIC_ACQUIRE);
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    double real = double(int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec - start) / 1e9;
    double now = real / clock_factor(c) - double(held) / 1e9;
    int64_t cap = __atomic_load_n(reinterpret_cast<const int64_t *>(c + 24), __ATOMIC_ACQUIRE);
    return cap == INT64_MAX ? now : std::min(now, double(cap) / 1e9);
}

bool wants_mode(int flags) {
    return (flags & O_CREAT) || (flags & __O_TMPFILE) == __O_TMPFILE;
}

// The mode argument exists only when the flags ask for one.
mode_t mode_arg(int flags, va_list ap) {
    return wants_mode(flags) ? mode_t(va_arg(ap, int)) : 0;
}

using Open2Fn = int (*)(const char *, int);

// The fortified entry points take no mode.
int open2_redirected(const char *path, int flags, const char *name, std::atomic<Open2Fn> &real) {
    if (!real)
        real = next<Open2Fn>(name);
    char buf[4096];
    const char *p = redirect(path, kProcPrefix, sizeof kProcPrefix - 1, buf, sizeof buf);
    return real.load()(p ? p : path, flags);
}

}  // namespace

extern "C" {

int socket(int domain, int type, int protocol) {
    REAL(socket, SocketFn);
    if (domain == kNetlink && (type & 0xf) == SOCK_RAW && protocol == kNetlink &&
        getenv("ZEBUSR_SIM_SOCKET"))
        return connect_sim(type & (SOCK_CLOEXEC | SOCK_NONBLOCK));
    return real_socket(domain, type, protocol);
}

int bind(int fd, const sockaddr *addr, socklen_t len) {
    REAL(bind, BindFn);
    if (addr && addr->sa_family == kNetlink && is_sim_socket(fd))
        return 0;
    return real_bind(fd, addr, len);
}

int setsockopt(int fd, int level, int name, const void *val, socklen_t len) {
    REAL(setsockopt, SetsockoptFn);
    if (level != SOL_SOCKET || name != SO_RCVTIMEO || !val || len < socklen_t(sizeof(timeval)) ||
        !is_sim_socket(fd))
        return real_setsockopt(fd, level, name, val, len);
    timeval tv = *static_cast<const timeval *>(val);
    double asked = double(tv.tv_sec) + double(tv.tv_usec) / 1e6;
    double scaled = asked * time_factor();
    timeval s;
    s.tv_sec = time_t(scaled);
    s.tv_usec = suseconds_t((scaled - double(s.tv_sec)) * 1e6);
    if (asked > 0 && s.tv_sec == 0 && s.tv_usec == 0)
        s.tv_usec = 1;  // 0 would mean "no timeout"
    note("\"call\":\"SO_RCVTIMEO\",\"fd\":%d,\"seconds\":%.6f,\"scaled_s\":%.6f", fd, asked,
         scaled);
    return real_setsockopt(fd, level, name, &s, sizeof s);
}

unsigned int sleep(unsigned int seconds) {
    const uint8_t *clock = sim_clock();
    double factor = clock ? clock_factor(clock) : time_factor();
    note("\"call\":\"sleep\",\"seconds\":%u,\"scaled_s\":%.6f", seconds, double(seconds) * factor);
    if (!clock) {
        real_sleep(double(seconds) * factor);
        return 0;
    }
    double until = clock_now(clock) + seconds;
    // Short naps: the clock may stand still at its cap for a while.
    for (double left; (left = until - clock_now(clock)) > 0;)
        real_sleep(std::min(left * factor, 0.005));
    return 0;
}

int pthread_create(pthread_t *t, const pthread_attr_t *attr, void *(*fn)(void *), void *arg) {
    REAL(pthread_create, CreateFn);
    static std::atomic<int> calls{0};
    int n = ++calls;
    const char *v = getenv("ZEBUSR_SIM_FAIL_PTHREAD_CREATE");
    if (v && atoi(v) == n) {
        note("\"call\":\"pthread_create\",\"n\":%d,\"failed\":true,\"rc\":%d", n, EAGAIN);
        return EAGAIN;
    }
    return real_pthread_create(t, attr, fn, arg);
}

int open(const char *path, int flags, ...) {
    REAL(open, OpenFn);
    va_list ap;
    va_start(ap, flags);
    mode_t mode = mode_arg(flags, ap);
    va_end(ap);
    return open_redirected(path, flags, mode, real_open);
}

int open64(const char *path, int flags, ...) {
    REAL(open64, OpenFn);
    va_list ap;
    va_start(ap, flags);
    mode_t mode = mode_arg(flags, ap);
    va_end(ap);
    return open_redirected(path, flags, mode, real_open64);
}

int __open_2(const char *path, int flags) {
    static std::atomic<Open2Fn> real{nullptr};
    return open2_redirected(path, flags, "__open_2", real);
}

int __open64_2(const char *path, int flags) {
    static std::atomic<Open2Fn> real{nullptr};
    return open2_redirected(path, flags, "__open64_2", real);
}

FILE *fopen(const char *path, const char *mode) {
    REAL(fopen, FopenFn);
    char buf[4096];
    const char *p = redirect(path, kDataPrefix, sizeof kDataPrefix - 1, buf, sizeof buf);
    return real_fopen(p ? p : path, mode);
}

FILE *fopen64(const char *path, const char *mode) {
    REAL(fopen64, FopenFn);
    char buf[4096];
    const char *p = redirect(path, kDataPrefix, sizeof kDataPrefix - 1, buf, sizeof buf);
    return real_fopen64(p ? p : path, mode);
}

}  // extern "C"
