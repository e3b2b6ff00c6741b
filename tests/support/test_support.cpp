#include "test_support.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <ftw.h>
#include <gtest/gtest.h>
#include <stdarg.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <regex>
#include <sstream>
#include <stdexcept>

#include "core/log.h"
#include "log_check.h"

namespace zt {

void put_u8(Bytes &b, size_t off, uint8_t v) {
    if (b.size() < off + 1)
        b.resize(off + 1);
    b[off] = v;
}
static void put_le(Bytes &b, size_t off, uint64_t v, size_t n) {
    for (size_t i = 0; i < n; i++) put_u8(b, off + i, static_cast<uint8_t>(v >> (8 * i)));
}
void put_u16(Bytes &b, size_t off, uint16_t v) {
    put_le(b, off, v, 2);
}
void put_u32(Bytes &b, size_t off, uint32_t v) {
    put_le(b, off, v, 4);
}
void put_u64(Bytes &b, size_t off, uint64_t v) {
    put_le(b, off, v, 8);
}

static uint64_t get_le(const Bytes &b, size_t off, size_t n) {
    if (off + n > b.size())
        throw std::out_of_range("read past the end of a test buffer");
    uint64_t v = 0;
    for (size_t i = 0; i < n; i++) v |= static_cast<uint64_t>(b[off + i]) << (8 * i);
    return v;
}
uint16_t get_u16(const Bytes &b, size_t off) {
    return static_cast<uint16_t>(get_le(b, off, 2));
}
uint32_t get_u32(const Bytes &b, size_t off) {
    return static_cast<uint32_t>(get_le(b, off, 4));
}

size_t open_fds() {
    size_t n = 0;
    for (int fd = 0; fd < 1024; fd++) n += fcntl(fd, F_GETFD) != -1;
    return n;
}

size_t count(const std::string &text, const std::string &needle) {
    size_t n = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1))
        n++;
    return n;
}

// Appends one attribute at `off`, padded to 4; returns the next offset.
static size_t put_attr(Bytes &b, size_t off, uint16_t type, const Bytes &payload) {
    put_u16(b, off, static_cast<uint16_t>(4 + payload.size()));
    put_u16(b, off + 2, type);
    for (size_t i = 0; i < payload.size(); i++) put_u8(b, off + 4 + i, payload[i]);
    b.resize(off + ((4 + payload.size() + 3) & ~size_t{3}));
    return b.size();
}

Bytes reply(uint32_t seq, const Bytes &payload, uint16_t type, uint16_t attr_type) {
    Bytes b(20, 0);
    put_u16(b, 4, type);
    put_u32(b, 8, seq);
    put_u8(b, 16, 1);
    put_u8(b, 17, 1);
    put_u32(b, 0, static_cast<uint32_t>(put_attr(b, 20, attr_type, payload)));
    return b;
}

Bytes int_reply(uint32_t seq, int32_t code) {
    Bytes p;
    put_u32(p, 0, static_cast<uint32_t>(code));
    return reply(seq, p);
}

Bytes family_reply(uint32_t seq, const char *name, uint16_t id, uint16_t id_type) {
    Bytes b = reply(seq, Bytes(name, name + strlen(name) + 1), 16, 2);
    size_t off = b.size();
    off = put_attr(b, off, id_type, Bytes{static_cast<uint8_t>(id), static_cast<uint8_t>(id >> 8)});
    off = put_attr(b, off, 3, Bytes{1, 0, 0, 0});
    put_u32(b, 0, static_cast<uint32_t>(off));
    return b;
}

Bytes request_image(uint32_t len, uint16_t family, uint32_t seq, uint8_t cmd, uint16_t nla_len,
                    uint16_t nla_type) {
    Bytes b(len, 0);
    put_u32(b, 0, len);
    put_u16(b, 4, family);
    put_u16(b, 6, 1);
    put_u32(b, 8, seq);
    put_u32(b, 12, static_cast<uint32_t>(getpid()));
    put_u8(b, 16, cmd);
    put_u8(b, 17, 1);
    put_u16(b, 20, nla_len);
    put_u16(b, 22, nla_type);
    return b;
}

LogCapture::LogCapture(bool verbose) {
    static int made = 0;
    path_ = sandbox() + "/log" + std::to_string(made++);
    log_enabled = 1;
    verbose_log_enabled = verbose ? 1 : 0;
    log_fp = fopen(path_.c_str(), "w+");
}

LogCapture::~LogCapture() {
    EXPECT_EQ(check_log(text()), "");
    FILE *fp = log_fp.exchange(nullptr);
    if (fp)
        close_own_stream(fp);
    verbose_log_enabled = 0;
    unlink(path_.c_str());
}

std::string LogCapture::text() const {
    std::ifstream in(path_);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::string LogCapture::messages() const {
    return messages(".*");
}

std::string LogCapture::messages(const std::string &func) const {
    const std::regex wanted(func);
    std::istringstream in(text());
    std::string out;
    LogLine l;
    bool blank_after = false;  // an empty line belongs to the line before it
    for (std::string raw; std::getline(in, raw);) {
        if (split_log_line(raw, &l)) {
            blank_after = std::regex_match(l.func, wanted);
            if (blank_after)
                out += l.message + "\n";
        } else if (raw.empty() && blank_after) {
            out += "\n";
        }
    }
    return out;
}

// What is cleared away has been checked all the same.
void LogCapture::clear() {
    EXPECT_EQ(check_log(text()), "");
    FILE *fp = log_fp.load();
    if (fp) {
        flush_own_stream(fp);
        if (ftruncate(fileno(fp), 0) != 0)
            throw std::runtime_error("ftruncate");
        rewind(fp);
    }
}

static int socketpair_daemon_end(int *kernel_fd) {
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sv) < 0)
        throw std::runtime_error("socketpair");
    // A missing reply fails the exchange quickly instead of after 3 seconds.
    struct timeval tv = {0, 300000};
    setsockopt(sv[0], SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    *kernel_fd = sv[1];
    return sv[0];
}

FakeKernel::FakeKernel(std::atomic<int> *global) : atomic_(global) {
    daemon_fd_ = socketpair_daemon_end(&kernel_fd_);
    saved_ = atomic_->exchange(daemon_fd_);
}

FakeKernel::FakeKernel(int *global) : plain_(global) {
    daemon_fd_ = socketpair_daemon_end(&kernel_fd_);
    saved_ = *plain_;
    *plain_ = daemon_fd_;
}

FakeKernel::~FakeKernel() {
    if (atomic_)
        atomic_->store(saved_);
    else
        *plain_ = saved_;
    close(daemon_fd_);
    close(kernel_fd_);
}

void FakeKernel::queue(const Bytes &datagram) {
    if (send(kernel_fd_, datagram.data(), datagram.size(), 0) < 0)
        throw std::runtime_error("queue reply");
}

void FakeKernel::queue_code(int32_t code) {
    queue(int_reply(next_seq++, code));
}

std::vector<Bytes> FakeKernel::requests() {
    std::vector<Bytes> out;
    for (;;) {
        uint8_t buf[4096];
        ssize_t n = recv(kernel_fd_, buf, sizeof(buf), MSG_DONTWAIT);
        if (n < 0)
            break;
        out.emplace_back(buf, buf + n);
    }
    return out;
}

namespace {

int remove_entry(const char *path, const struct stat *, int, struct FTW *) {
    return remove(path);
}

// Never destroyed: a daemon thread may still note a pause while its
// process exits. Only the process that made the folder removes it.
struct Sandbox {
    std::string root;
    pid_t owner;
};

Sandbox &the_sandbox() {
    static Sandbox *s = [] {
        const char *tmp = getenv("TMPDIR");  // a device has no /tmp
        std::string tmpl = std::string(tmp ? tmp : "/tmp") + "/zebusr-sandbox-XXXXXX";
        if (!mkdtemp(tmpl.data()))
            throw std::runtime_error("mkdtemp");
        auto *made = new Sandbox{tmpl, getpid()};
        for (const char *d : {"/proc", "/proc/zeb", "/data", "/data/vendor", "/data/vendor/zebusr"})
            mkdir((made->root + d).c_str(), 0755);
        atexit([] {
            if (getpid() == the_sandbox().owner)
                nftw(the_sandbox().root.c_str(), remove_entry, 8, FTW_DEPTH | FTW_PHYS);
        });
        return made;
    }();
    return *s;
}

}  // namespace

std::string sandbox() {
    return the_sandbox().root;
}

void write_table(const std::string &name, const Bytes &content) {
    Bytes page = content;
    page.resize(4096);
    std::ofstream out(sandbox() + "/proc/zeb/" + name, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char *>(page.data()),
              static_cast<std::streamsize>(page.size()));
}

static std::string events_path() {
    return sandbox() + "/events";
}

void note(const std::string &event) {
    std::ofstream(events_path(), std::ios::app) << event << "\n";
}

Lines events() {
    Lines out;
    std::ifstream in(events_path());
    for (std::string l; std::getline(in, l);) out.push_back(l);
    remove(events_path().c_str());
    return out;
}

}  // namespace zt
