#include "test_support.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "core/log.h"

namespace zt {

void put_u8(Bytes &b, size_t off, uint8_t v) {
    if (b.size() < off + 1)
        b.resize(off + 1);
    b[off] = v;
}

void put_u16(Bytes &b, size_t off, uint16_t v) {
    for (size_t i = 0; i < 2; i++) put_u8(b, off + i, static_cast<uint8_t>(v >> (8 * i)));
}

void put_u32(Bytes &b, size_t off, uint32_t v) {
    for (size_t i = 0; i < 4; i++) put_u8(b, off + i, static_cast<uint8_t>(v >> (8 * i)));
}

void put_u64(Bytes &b, size_t off, uint64_t v) {
    for (size_t i = 0; i < 8; i++) put_u8(b, off + i, static_cast<uint8_t>(v >> (8 * i)));
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
uint64_t get_u64(const Bytes &b, size_t off) {
    return get_le(b, off, 8);
}

Bytes reply(uint32_t seq, const Bytes &payload, uint16_t type, uint16_t attr_type) {
    Bytes b;
    uint32_t nla_len = 4 + static_cast<uint32_t>(payload.size());
    uint32_t total = 20 + ((nla_len + 3) & ~3U);
    put_u32(b, 0, total);
    put_u16(b, 4, type);
    put_u16(b, 6, 0);
    put_u32(b, 8, seq);
    put_u32(b, 12, 0);
    put_u8(b, 16, 1);
    put_u8(b, 17, 1);
    put_u16(b, 20, static_cast<uint16_t>(nla_len));
    put_u16(b, 22, attr_type);
    for (size_t i = 0; i < payload.size(); i++) put_u8(b, 24 + i, payload[i]);
    b.resize(total);
    return b;
}

Bytes int_reply(uint32_t seq, int32_t code) {
    Bytes p;
    put_u32(p, 0, static_cast<uint32_t>(code));
    return reply(seq, p);
}

LogCapture::LogCapture(bool verbose) {
    char tmpl[] = "/tmp/zebusr-log-XXXXXX";
    int fd = mkstemp(tmpl);
    if (fd < 0)
        throw std::runtime_error("mkstemp");
    close(fd);
    path_ = tmpl;
    log_enabled = 1;
    verbose_log_enabled = verbose ? 1 : 0;
    log_fp = fopen(path_.c_str(), "w+");
}

LogCapture::~LogCapture() {
    FILE *fp = log_fp.exchange(nullptr);
    if (fp)
        fclose(fp);
    verbose_log_enabled = 0;
    unlink(path_.c_str());
}

std::string LogCapture::text() const {
    std::ifstream in(path_);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// Prefix: "%16s %40s():%3u (%s): "
std::vector<LogLine> LogCapture::lines() const {
    std::vector<LogLine> out;
    std::istringstream in(text());
    std::string raw;
    while (std::getline(in, raw)) {
        size_t paren = raw.find("():");
        size_t lvl_open = raw.find(" (", paren);
        size_t lvl_close = raw.find("): ", lvl_open);
        if (raw.size() < 17 || paren == std::string::npos || lvl_open == std::string::npos ||
            lvl_close == std::string::npos)
            continue;
        LogLine l;
        l.stamp = raw.substr(0, 16);
        size_t fstart = raw.find_first_not_of(' ', 17);
        l.func = raw.substr(fstart, paren - fstart);
        l.line = static_cast<unsigned>(std::stoul(raw.substr(paren + 3, lvl_open - paren - 3)));
        l.level = raw.substr(lvl_open + 2, lvl_close - lvl_open - 2);
        l.message = raw.substr(lvl_close + 3);
        out.push_back(l);
    }
    return out;
}

std::vector<std::string> LogCapture::messages() const {
    std::vector<std::string> out;
    for (const auto &l : lines()) out.push_back(l.message);
    return out;
}

std::vector<std::string> LogCapture::messages(const std::string &level) const {
    std::vector<std::string> out;
    for (const auto &l : lines())
        if (l.level == level)
            out.push_back(l.message);
    return out;
}

bool LogCapture::contains(const std::string &message) const {
    return count(message) > 0;
}

size_t LogCapture::count(const std::string &message) const {
    size_t n = 0;
    for (const auto &m : messages()) n += (m == message);
    return n;
}

void LogCapture::clear() {
    FILE *fp = log_fp.load();
    if (fp) {
        fflush(fp);
        if (ftruncate(fileno(fp), 0) != 0)
            throw std::runtime_error("ftruncate");
        rewind(fp);
    }
}

FakeKernel::FakeKernel(int *daemon_fd_global, int recv_timeout_ms) : global_(daemon_fd_global) {
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sv) < 0)
        throw std::runtime_error("socketpair");
    daemon_fd_ = sv[0];
    kernel_fd_ = sv[1];
    // A missing reply fails the exchange quickly instead of after 3 seconds.
    struct timeval tv = {recv_timeout_ms / 1000, (recv_timeout_ms % 1000) * 1000};
    setsockopt(daemon_fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    saved_ = *global_;
    *global_ = daemon_fd_;
}

FakeKernel::~FakeKernel() {
    *global_ = saved_;
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

std::vector<unsigned> &sleep_requests() {
    static std::vector<unsigned> requests;
    return requests;
}

}  // namespace zt

extern "C" unsigned int sleep(unsigned int seconds) {
    zt::sleep_requests().push_back(seconds);
    return 0;
}
