// Fixtures shared by the unit suites: a captured log, a fake kernel on a
// socketpair, byte writers for wire images, and a virtual sleep().
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace zt {

using Bytes = std::vector<uint8_t>;

// Little-endian writers and readers at explicit offsets; the buffer grows as needed.
void put_u8(Bytes &b, size_t off, uint8_t v);
void put_u16(Bytes &b, size_t off, uint16_t v);
void put_u32(Bytes &b, size_t off, uint32_t v);
void put_u64(Bytes &b, size_t off, uint64_t v);
uint16_t get_u16(const Bytes &b, size_t off);
uint32_t get_u32(const Bytes &b, size_t off);
uint64_t get_u64(const Bytes &b, size_t off);

// A netlink reply as the kernel would send it: 16-byte header, generic
// header, then `payload` as the first attribute (type `attr_type`).
Bytes reply(uint32_t seq, const Bytes &payload, uint16_t type = 0x20, uint16_t attr_type = 1);
// A reply whose first attribute payload is a signed 32-bit code.
Bytes int_reply(uint32_t seq, int32_t code);

struct LogLine {
    std::string stamp;
    std::string func;
    unsigned line;
    std::string level;
    std::string message;
};

// Points log_fp at a temporary file for the life of the object.
class LogCapture {
   public:
    explicit LogCapture(bool verbose = true);
    ~LogCapture();
    std::string text() const;
    std::vector<LogLine> lines() const;  // parsed; lines without a prefix are skipped
    std::vector<std::string> messages() const;
    std::vector<std::string> messages(const std::string &level) const;
    bool contains(const std::string &message) const;
    size_t count(const std::string &message) const;
    void clear();

   private:
    std::string path_;
};

// A kernel stand-in: the daemon end of a SOCK_SEQPACKET socketpair goes into
// the socket global the test names; the test plays the kernel on the other.
class FakeKernel {
   public:
    explicit FakeKernel(int *daemon_fd_global, int recv_timeout_ms = 300);
    ~FakeKernel();
    // Replies are queued before the call under test; each receive takes one.
    void queue(const Bytes &datagram);
    void queue_code(int32_t code);  // an int reply carrying the next sequence number
    // Every datagram the daemon sent since the last call, oldest first.
    std::vector<Bytes> requests();
    int kernel_fd() const { return kernel_fd_; }
    int daemon_fd() const { return daemon_fd_; }
    uint32_t next_seq = 100;

   private:
    int *global_;
    int saved_;
    int daemon_fd_;
    int kernel_fd_;
};

// sleep() is replaced in every test binary: nothing waits, every request is kept.
std::vector<unsigned> &sleep_requests();

}  // namespace zt
