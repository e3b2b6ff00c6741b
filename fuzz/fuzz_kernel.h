// What every harness shares: a kernel stand-in on a socketpair, a table
// page behind a memfd, a reader over the fuzz bytes and a log that discards
// its lines. Header only; each harness is one small file.
#pragma once

#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "core/log.h"
#include "netlink/genl_family.h"
#include "netlink/nl_msg.h"
#include "steering/tables.h"

namespace fz {

using Bytes = std::vector<uint8_t>;

// Stays on in release builds, unlike assert().
#define FZ_CHECK(cond)                                                                \
    do {                                                                              \
        if (!(cond)) {                                                                \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            abort();                                                                  \
        }                                                                             \
    } while (0)

constexpr uint16_t kZebFamily = 0x1d;
constexpr uint16_t kCoreFamily = 0x1e;

// A stream that takes everything and writes nothing: like /dev/null, but
// without the system call that each line's flush would cost.
inline FILE *null_stream() {
    cookie_io_functions_t io = {};
    io.write = [](void *, const char *, size_t n) -> ssize_t { return static_cast<ssize_t>(n); };
    FILE *fp = fopencookie(nullptr, "w", io);
    FZ_CHECK(fp);
    return fp;
}

// Every line is formatted, verbose ones too, and thrown away.
inline void quiet_log(bool verbose = true) {
    static FILE *sink = null_stream();
    log_fp = sink;
    log_enabled = 1;
    verbose_log_enabled = verbose ? 1 : 0;
}

inline uint32_t le32(const uint8_t *p) {
    uint32_t v;
    memcpy(&v, p, sizeof(v));
    return v;
}
inline uint16_t le16(const uint8_t *p) {
    uint16_t v;
    memcpy(&v, p, sizeof(v));
    return v;
}

// Takes the fuzz bytes front to back; past the end everything reads as zero.
struct Reader {
    const uint8_t *p;
    size_t n;
    uint8_t u8() { return n ? (n--, *p++) : 0; }
    uint16_t u16() { return static_cast<uint16_t>(u8() | (u8() << 8)); }
    uint32_t u32() { return u16() | (static_cast<uint32_t>(u16()) << 16); }
    // Up to `len` bytes, fewer near the end.
    Bytes take(size_t len) {
        len = std::min(len, n);
        Bytes b(p, p + len);
        p += len;
        n -= len;
        return b;
    }
    Bytes rest() { return take(n); }
};

// A netlink reply: header, generic header, then `payload` as the first attribute.
inline Bytes reply(uint32_t seq, const Bytes &payload, uint16_t type = 0x20) {
    Bytes b(24, 0);
    b.insert(b.end(), payload.begin(), payload.end());
    b.resize((b.size() + 3) & ~size_t{3});
    uint32_t len = static_cast<uint32_t>(b.size());
    uint16_t nla_len = static_cast<uint16_t>(4 + payload.size());
    memcpy(&b[0], &len, 4);
    memcpy(&b[4], &type, 2);
    memcpy(&b[8], &seq, 4);
    b[16] = 1;
    b[17] = 1;
    memcpy(&b[20], &nla_len, 2);
    return b;
}

// The kernel's end of the daemon's socket. The daemon's end is non-blocking,
// so a reply the input did not provide fails the receive at once instead of
// after a time-out; a thread reads every request as it is sent, so that a
// policy trying hundreds of candidates never fills the queue.
class Kernel {
   public:
    Kernel() {
        int sv[2];
        FZ_CHECK(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv) == 0);
        daemon_ = sv[0];
        kernel_ = sv[1];
        FZ_CHECK(fcntl(daemon_, F_SETFL, O_NONBLOCK) == 0);
        // Room for every answer an input may queue.
        int room = 1 << 20;
        setsockopt(kernel_, SOL_SOCKET, SO_SNDBUF, &room, sizeof(room));
        std::thread([this] { drain(); }).detach();
    }
    int daemon_fd() const { return daemon_; }

    // Queued before the call; false when the queue is full.
    bool queue(const Bytes &datagram) {
        return send(kernel_, datagram.data(), datagram.size(), MSG_DONTWAIT) >= 0;
    }


    // Every request sent since the last call, oldest first. A one-byte
    // marker, which the daemon never sends, tells when the thread has them all.
    std::vector<Bytes> requests() {
        std::unique_lock<std::mutex> lock(mu_);
        marked_ = false;
        lock.unlock();
        uint8_t mark = 0;
        while (send(daemon_, &mark, 1, 0) != 1) FZ_CHECK(errno == EAGAIN);
        lock.lock();
        cv_.wait(lock, [this] { return marked_; });
        std::vector<Bytes> out;
        out.swap(seen_);
        return out;
    }

    // Replies the daemon left unread, and requests, are thrown away.
    void reset() {
        uint8_t buf[2048];
        while (recv(daemon_, buf, sizeof(buf), MSG_DONTWAIT) >= 0) {
        }
        (void)requests();
        next_seq = 100;
    }

    uint32_t next_seq = 100;

   private:
    void drain() {
        uint8_t buf[2048];
        for (;;) {
            ssize_t len = recv(kernel_, buf, sizeof(buf), 0);
            if (len < 0)
                continue;
            std::lock_guard<std::mutex> lock(mu_);
            if (len == 1) {
                marked_ = true;
                cv_.notify_all();
            } else {
                seen_.emplace_back(buf, buf + len);
            }
        }
    }

    int daemon_, kernel_;
    std::mutex mu_;
    std::condition_variable cv_;
    bool marked_ = false;
    std::vector<Bytes> seen_;
};

// The answers to a table reader's requests, five input bytes each: a kind
// and a code. Returns how many were queued and, in `first_yes`, the index of
// the first one that accepts (code 0 in a well-formed reply), or -1.
inline int queue_answers(Kernel &k, Reader &in, int *first_yes, int max = 128) {
    *first_yes = -1;
    int n = 0;
    for (; n < max && in.n; n++) {
        uint8_t kind = in.u8() & 3;
        int32_t code = static_cast<int32_t>(in.u32());
        Bytes p(kind == 1 ? 16 : 4, 0);  // an error carries its request's header
        memcpy(p.data(), &code, 4);
        Bytes b = reply(k.next_seq++, p, kind == 1 ? ZEBUSR_NLMSG_ERROR : 0x20);
        if (kind == 2) {  // a whole message, too short to hold a code
            b.resize(ZEBUSR_GENL_HDR_LEN);
            b[0] = ZEBUSR_GENL_HDR_LEN;
        }
        FZ_CHECK(k.queue(b));
        if (kind != 1 && kind != 2 && code == 0 && *first_yes < 0)
            *first_yes = n;
    }
    return n;
}

// A steering request as the daemon must frame it.
inline void check_zeb_request(const Bytes &r, uint8_t cmd, uint16_t nla_len, uint16_t nla_type) {
    FZ_CHECK(r.size() == 20u + nla_len);
    FZ_CHECK(le32(&r[0]) == r.size());
    FZ_CHECK(le16(&r[4]) == kZebFamily);
    FZ_CHECK(le16(&r[6]) == ZEBUSR_NLM_F_REQUEST);
    FZ_CHECK(r[16] == cmd && r[17] == ZEBUSR_GENL_VERSION);
    FZ_CHECK(le16(&r[20]) == nla_len && le16(&r[22]) == nla_type);
}

// One table page behind a memfd, so the daemon's own mmap runs on it. The
// bytes past the image are zero, as in a fresh kernel page.
class Table {
   public:
    explicit Table(std::atomic<int> *fd_global) : global_(fd_global) {
        page_ = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        fd_ = memfd_create("zebusr-fuzz-table", MFD_CLOEXEC);
        FZ_CHECK(fd_ >= 0 && ftruncate(fd_, static_cast<off_t>(page_)) == 0);
    }
    void load(const Bytes &image) {
        page_image_.assign(page_, 0);
        std::copy_n(image.begin(), std::min(image.size(), page_), page_image_.begin());
        FZ_CHECK(pwrite(fd_, page_image_.data(), page_, 0) == static_cast<ssize_t>(page_));
        page_size = page_;
        global_->store(fd_);
    }
    size_t page() const { return page_; }

   private:
    std::atomic<int> *global_;
    int fd_;
    size_t page_;
    Bytes page_image_;
};

}  // namespace fz
