// Fixtures shared by the unit suites: byte writers for wire images, a
// captured log, a fake kernel on a socketpair, a sandbox for the daemon's
// fixed paths, and the system calls the suites stand in for (syscalls.cpp).
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

namespace zt {

using Bytes = std::vector<uint8_t>;
using Lines = std::vector<std::string>;

// Little-endian writers and readers at explicit offsets; the buffer grows as needed.
void put_u8(Bytes &b, size_t off, uint8_t v);
void put_u16(Bytes &b, size_t off, uint16_t v);
void put_u32(Bytes &b, size_t off, uint32_t v);
void put_u64(Bytes &b, size_t off, uint64_t v);
uint16_t get_u16(const Bytes &b, size_t off);
uint32_t get_u32(const Bytes &b, size_t off);

// Descriptors open in this process.
size_t open_fds();
// How often `needle` occurs in `text`.
size_t count(const std::string &text, const std::string &needle);

// A netlink reply as the kernel sends it: 16-byte header, generic header,
// then `payload` as the first attribute.
Bytes reply(uint32_t seq, const Bytes &payload, uint16_t type = 0x20, uint16_t attr_type = 1);
Bytes int_reply(uint32_t seq, int32_t code);
// The controller's answer to a family lookup, as Linux sends it: the name,
// then the id (under attribute type `id_type`), then more attributes.
Bytes family_reply(uint32_t seq, const char *name, uint16_t id, uint16_t id_type = 1);
// A zero-filled request as the daemon must send it: netlink header (flags
// 1, this process's pid), generic header (version 1) and attribute header.
Bytes request_image(uint32_t len, uint16_t family, uint32_t seq, uint8_t cmd, uint16_t nla_len,
                    uint16_t nla_type);

// Points log_fp at a temporary file for the life of the object; at the end
// every line must pass check_log (log_check.h).
class LogCapture {
   public:
    explicit LogCapture(bool verbose = true);
    ~LogCapture();
    std::string text() const;
    // Each line without its prefix and with its newline; the empty line
    // after a message that ends in "\n" stays.
    std::string messages() const;
    // Only the lines of functions whose names match `func` (a regex).
    std::string messages(const std::string &func) const;
    void clear();

   private:
    std::string path_;
};

// A kernel stand-in: the daemon end of a SOCK_SEQPACKET socketpair goes into
// the socket global; the test plays the kernel on the other end.
class FakeKernel {
   public:
    explicit FakeKernel(std::atomic<int> *global);
    explicit FakeKernel(int *global);
    ~FakeKernel();
    void queue(const Bytes &datagram);
    void queue_code(int32_t code);  // an int reply with the next sequence number
    std::vector<Bytes> requests();  // sent since the last call, oldest first
    int daemon_fd() const { return daemon_fd_; }
    uint32_t next_seq = 100;

   private:
    std::atomic<int> *atomic_ = nullptr;
    int *plain_ = nullptr;
    int saved_;
    int daemon_fd_;
    int kernel_fd_;
};

// Opens of "/proc/zeb/..." and "/data/vendor/zebusr/..." land under this
// per-process folder (both subfolders exist at start), never on the machine's.
std::string sandbox();
// Writes a 4096-byte table file under sandbox()/proc/zeb.
void write_table(const std::string &name, const Bytes &content);

// Whether sleep() waits (for a whole daemon left running in a death test).
extern bool real_sleeps;
// A suite's own streams, which the check on the daemon's (syscalls.cpp) leaves alone.
int close_own_stream(FILE *fp);
int flush_own_stream(FILE *fp);

// Events a test wants in order, even from a death test's child: kept in a
// file under the sandbox. sleep() never waits and notes "sleep N".
void note(const std::string &event);
Lines events();  // and forgets them

// A failure no kernel can be asked for. The first pending fault of a call
// ("open", "socket", "bind", "setsockopt", "sendto", "mmap", "munmap", and
// "malloc" of a flow history node) is
// looked at when `match` is part of the call's path or table word ("caps",
// "gflows", "ssflows"): it lets `skip` such calls pass, then fails `times`
// of them with `err`, returning `result`.
struct Fault {
    std::string call, match;
    int err = 0, skip = 0, times = 1;
    long result = -1;
};
void fail(const Fault &f);
void clear_faults();

// While this is a descriptor, netlink sockets are duplicates of it (a fake
// kernel's end) and are noted as events: "socket", "send <kind>", "close
// socket". Table opens, closes, mappings and unmappings are always noted.
extern int fake_netlink;
extern Bytes last_bind_addr, last_send_addr;

}  // namespace zt
