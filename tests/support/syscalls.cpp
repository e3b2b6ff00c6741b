// The system calls the daemon makes, as the unit suites see them: fixed
// paths moved into the sandbox, sleeps that do not wait, netlink sockets that
// lead to a fake kernel, failures on demand, and the calls that matter noted
// as events.
#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <set>

#include "netlink/genl_family.h"
#include "segmentation/flow_history.h"
#include "steering/tables.h"
#include "test_support.h"

namespace zt {

int fake_netlink = -1;
Bytes last_bind_addr, last_send_addr;
static std::vector<Fault> faults;

void fail(const Fault &f) {
    faults.push_back(f);
}

void clear_faults() {
    faults.clear();
}

// Only the first pending fault of a call is looked at.
static bool take(const char *call, const std::string &what, long *result) {
    for (auto it = faults.begin(); it != faults.end(); ++it) {
        if (it->call != call)
            continue;
        if (what.find(it->match) == std::string::npos)
            return false;
        if (it->skip > 0) {
            it->skip--;
            return false;
        }
        errno = it->err;
        *result = it->result;
        if (--it->times == 0)
            faults.erase(it);
        return true;
    }
    return false;
}

static std::string redirect(const char *path) {
    for (const char *prefix : {"/proc/zeb/", "/data/vendor/zebusr/"})
        if (strncmp(path, prefix, strlen(prefix)) == 0)
            return sandbox() + path;
    return path;
}

static const char *table_of_fd(int fd) {
    return fd == cap_fd      ? "caps"
           : fd == gflow_fd  ? "gflows"
           : fd == ssflow_fd ? "ssflows"
                             : nullptr;
}

static const char *table_of_map(void *addr) {
    return addr == cap_list      ? "caps"
           : addr == gflow_list  ? "gflows"
           : addr == ssflow_list ? "ssflows"
                                 : nullptr;
}

static bool is_fake(int fd) {
    int domain = 0;
    socklen_t len = sizeof(domain);
    return fake_netlink >= 0 && getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &len) == 0 &&
           domain == AF_UNIX;
}

static std::string request_kind(const Bytes &b) {
    if (b.size() < 20)
        return "short request";
    if (get_u16(b, 4) == 16)
        return "lookup";
    if (b[16] == 4)
        return "sync";
    if (b[16] == 2 && b.size() >= 36)
        return "sugg " + std::to_string(get_u32(b, 28)) + " " + std::to_string(get_u16(b, 32)) +
               ">" + std::to_string(get_u16(b, 34));
    return "cmd " + std::to_string(b[16]);
}

}  // namespace zt

using namespace zt;

bool zt::real_sleeps = false;

extern "C" unsigned int sleep(unsigned int seconds) {
    note("sleep " + std::to_string(seconds));
    if (real_sleeps) {
        struct timespec pause = {static_cast<time_t>(seconds), 0};
        nanosleep(&pause, nullptr);
    }
    return 0;
}

extern "C" int open(const char *path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    mode_t mode = (flags & (O_CREAT | O_TMPFILE)) ? static_cast<mode_t>(va_arg(ap, int)) : 0;
    va_end(ap);
    long fd;
    if (!take("open", path, &fd))
        fd = syscall(SYS_openat, AT_FDCWD, redirect(path).c_str(), flags, mode);
    const char *word = strstr(path, "ss_flows") ? "ssflows"
                       : strstr(path, "flows")  ? "gflows"
                                                : "caps";
    if (fd >= 0 && strncmp(path, "/proc/zeb/dulox_zeb_", 20) == 0)
        note(std::string("open ") + word + (flags == (O_RDWR | O_SYNC) ? "" : " other flags"));
    return static_cast<int>(fd);
}

// Streams on files in the sandbox: the daemon's log and capture, and the
// suites' stand-in logs. Their flushes and closes are checked below.
static std::mutex watched_mu;
static std::set<FILE *> watched_streams;

extern "C" FILE *fopen(const char *path, const char *mode) {
    using fopen_fn = FILE *(*)(const char *, const char *);
    static fopen_fn real = reinterpret_cast<fopen_fn>(dlsym(RTLD_NEXT, "fopen"));
    std::string where = redirect(path);
    FILE *fp = real(where.c_str(), mode);
    std::lock_guard<std::mutex> lock(watched_mu);
    if (fp && where.starts_with(sandbox()))
        watched_streams.insert(fp);
    return fp;
}

extern "C" int socket(int domain, int type, int protocol) {
    long fd;
    if (take("socket", "", &fd))
        return static_cast<int>(fd);
    if (domain != AF_NETLINK || fake_netlink < 0)
        return static_cast<int>(syscall(SYS_socket, domain, type, protocol));
    note("socket");
    return dup(fake_netlink);
}

extern "C" int bind(int fd, const sockaddr *addr, socklen_t len) {
    last_bind_addr.assign(reinterpret_cast<const uint8_t *>(addr),
                          reinterpret_cast<const uint8_t *>(addr) + len);
    long result;
    if (take("bind", "", &result))
        return static_cast<int>(result);
    if (!is_fake(fd))
        return static_cast<int>(syscall(SYS_bind, fd, addr, len));
    // The daemon joins no multicast group.
    if (last_bind_addr.size() != 12 || get_u32(last_bind_addr, 8) != 0)
        note("bind to groups");
    return 0;
}

// A fake socket keeps its short time-out.
extern "C" int setsockopt(int fd, int level, int name, const void *val, socklen_t len) {
    long result;
    if (take("setsockopt", "", &result))
        return static_cast<int>(result);
    return is_fake(fd) ? 0 : static_cast<int>(syscall(SYS_setsockopt, fd, level, name, val, len));
}

extern "C" ssize_t sendto(int fd, const void *buf, size_t n, int flags, const sockaddr *addr,
                          socklen_t len) {
    last_send_addr.assign(reinterpret_cast<const uint8_t *>(addr),
                          reinterpret_cast<const uint8_t *>(addr) + len);
    long result;
    if (take("sendto", "", &result))
        return result;
    if (fake_netlink >= 0)
        note("send " + request_kind(Bytes(static_cast<const uint8_t *>(buf),
                                          static_cast<const uint8_t *>(buf) + n)));
    return syscall(SYS_sendto, fd, buf, n, flags, addr, len);
}

extern "C" int close(int fd) {
    if (const char *t = table_of_fd(fd))
        note(std::string("close ") + t);
    else if (is_fake(fd) && fd != fake_netlink)
        note("close socket");
    return static_cast<int>(syscall(SYS_close, fd));
}

// The unit suites link with --wrap=malloc: a flow history node can be refused.
extern "C" void *__real_malloc(size_t n);
extern "C" void *__wrap_malloc(size_t n) {
    long refused;
    return n == sizeof(zebusr_ht_node) && take("malloc", "", &refused) ? nullptr : __real_malloc(n);
}

// --wrap too: the daemon flushes and closes its streams only under the
// streams' lock, which holds the handled signals off. The suites' own
// closes and flushes of a stand-in log go through the zt:: calls below.
static void check_stream_locked(FILE *fp, const char *call, bool closing) {
    std::lock_guard<std::mutex> lock(watched_mu);
    if (!watched_streams.count(fp))
        return;
    watched_streams.erase(closing ? fp : nullptr);  // a null stream is never watched
    sigset_t now;
    pthread_sigmask(SIG_SETMASK, nullptr, &now);
    if (!sigismember(&now, SIGTERM) || !sigismember(&now, SIGINT) || !sigismember(&now, SIGUSR1) ||
        !sigismember(&now, SIGUSR2)) {
        fprintf(stderr, "%s of a stream outside the streams' lock\n", call);
        abort();
    }
}

extern "C" int __real_fflush(FILE *fp);
extern "C" int __wrap_fflush(FILE *fp) {
    check_stream_locked(fp, "fflush", false);
    return __real_fflush(fp);
}

extern "C" int __real_fclose(FILE *fp);
extern "C" int __wrap_fclose(FILE *fp) {
    check_stream_locked(fp, "fclose", true);
    return __real_fclose(fp);
}

namespace zt {
int close_own_stream(FILE *fp) {
    std::lock_guard<std::mutex> lock(watched_mu);
    watched_streams.erase(fp);
    return __real_fclose(fp);
}
int flush_own_stream(FILE *fp) {
    return __real_fflush(fp);
}
}  // namespace zt

extern "C" void *mmap(void *addr, size_t len, int prot, int flags, int fd, off_t off) {
    const char *t = table_of_fd(fd);
    long result;
    if (t) {
        bool usual = !addr && len == page_size && prot == (PROT_READ | PROT_WRITE) &&
                     flags == MAP_SHARED && off == 0;
        note(std::string("mmap ") + t + (usual ? "" : " with other arguments"));
        if (take("mmap", t, &result))
            return MAP_FAILED;
    }
    return reinterpret_cast<void *>(syscall(SYS_mmap, addr, len, prot, flags, fd, off));
}

extern "C" int munmap(void *addr, size_t len) {
    const char *t = table_of_map(addr);
    long result;
    if (t) {
        note(std::string("munmap ") + t + (len == page_size ? "" : " with another length"));
        if (take("munmap", t, &result))
            return static_cast<int>(result);
    }
    return static_cast<int>(syscall(SYS_munmap, addr, len));
}
