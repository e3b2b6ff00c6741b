// The floor of one evaluation cycle: only the system calls a cycle must make.
// The sync exchange on the steering socket; the three tables mapped, touched
// and unmapped in the daemon's order while their files stay open; and, given
// a file of line lengths, that many log lines of those lengths, each written
// and flushed on its own. Runs under the simulator's preload until killed.
//
//   cycle_floor [LINE_LENGTHS_FILE]
#include <fcntl.h>
#include <linux/netlink.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "netlink/genl_family.h"
#include "netlink/nl_msg.h"
#include "netlink/zeb_family.h"
#include "steering/tables.h"

namespace {

void *map_touch(int fd) {
    void *m = mmap(nullptr, page_size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (m == MAP_FAILED) {
        std::perror("mmap");
        std::exit(1);
    }
    *static_cast<volatile uint16_t *>(m);
    return m;
}

}  // namespace

int main(int argc, char **argv) {
    std::vector<size_t> lens;
    if (argc > 1) {
        std::ifstream f(argv[1]);
        for (size_t n; f >> n;) lens.push_back(n);
    }
    // Setup, outside the cycle: the daemon's own connection code.
    int fd = zebusr_genl_open_sock(ZEBUSR_NETLINK_GENERIC, 0);
    if (fd < 0 || zebusr_genl_init_sock(fd, ZEBUSR_GENL_FAMILY_ZEB) != 0) {
        std::fprintf(stderr, "cycle_floor: no steering family\n");
        return 1;
    }
    page_size = uint64_t(sysconf(_SC_PAGESIZE));
    int caps = open(ZEBUSR_CAP_PATH, O_RDWR | O_SYNC);
    int gold = open(ZEBUSR_GFLOW_PATH, O_RDWR | O_SYNC);
    int ss = open(ZEBUSR_SSFLOW_PATH, O_RDWR | O_SYNC);
    if (caps < 0 || gold < 0 || ss < 0) {
        std::perror("cycle_floor: open");
        return 1;
    }
    zebusr_nl_msg msg = {};
    zebusr_sugg_info info = {};
    zebusr_create_genl_msg(&msg, zeb_family_id, ZEBUSR_GENL_CMD_SYNC);
    zebusr_genl_set_sugg_attr(&msg, &info);
    sockaddr_nl dest = {};
    dest.nl_family = AF_NETLINK;
    FILE *log = lens.empty() ? nullptr : std::fopen("/data/vendor/zebusr/floor_log.txt", "w+");
    size_t longest = 0;
    for (size_t n : lens) longest = std::max(longest, n);
    std::string text = std::string(longest ? longest - 1 : 0, 'x') + '\n';
    for (;;) {
        if (sendto(fd, &msg, msg.n.nlmsg_len, 0, reinterpret_cast<sockaddr *>(&dest), sizeof dest) <
            0)
            return 1;
        zebusr_nl_msg reply;
        if (recvfrom(fd, &reply, sizeof reply, MSG_WAITALL, nullptr, nullptr) <= 0)
            return 1;
        void *s = map_touch(ss);
        void *c = map_touch(caps);
        void *g = map_touch(gold);
        if (log)
            for (size_t n : lens) {
                std::fwrite(text.data() + text.size() - n, 1, n, log);
                std::fflush(log);
            }
        munmap(c, page_size);
        munmap(g, page_size);
        munmap(s, page_size);
    }
}
