// The three table files: open, close and unmap with their messages, and the
// exit with status 0 when an unmapping fails.
#include "steering/tables.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdarg.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "core/log.h"
#include "steering_tables.h"
#include "test_support.h"

// The module's procfs files do not exist here: while `proc_zeb_present` is
// false an open of "/proc/zeb/..." fails with ENOENT, else it opens
// /dev/null with the same flags. Every other path opens as usual.
static bool proc_zeb_present = false;

extern "C" int open(const char *path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    mode_t mode = (flags & (O_CREAT | O_TMPFILE)) ? static_cast<mode_t>(va_arg(ap, int)) : 0;
    va_end(ap);
    if (strncmp(path, "/proc/zeb/", 10) == 0) {
        if (!proc_zeb_present) {
            errno = ENOENT;
            return -1;
        }
        path = "/dev/null";
    }
    return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

namespace {

struct Table {
    const char *word;
    const char *path;
    int *fd;
    int (*init)();
    int (*deinit)();
    int (*unmap)();
    void (*set_mapping)(void *);
};
void PrintTo(const Table &t, std::ostream *os) {
    *os << t.word;
}

const Table kTables[] = {
    {"cap", "/proc/zeb/dulox_zeb_caps", &cap_fd, zebusr_init_cap_file, zebusr_deinit_cap_file,
     zebusr_munmap_caps, [](void *p) { cap_list = static_cast<zebusr_cap_info *>(p); }},
    {"gflow", "/proc/zeb/dulox_zeb_flows", &gflow_fd, zebusr_init_gflow_file,
     zebusr_deinit_gflow_file, zebusr_munmap_gflows,
     [](void *p) { gflow_list = static_cast<zebusr_flow_table *>(p); }},
    {"ssflow", "/proc/zeb/dulox_zeb_ss_flows", &ssflow_fd, zebusr_init_ssflow_file,
     zebusr_deinit_ssflow_file, zebusr_munmap_ssflows,
     [](void *p) { ssflow_list = static_cast<zebusr_flow_table *>(p); }},
};

void *map_page() {
    return mmap(nullptr, page_size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
}
bool is_mapped(void *p) {
    return msync(p, page_size, MS_ASYNC) == 0;
}
// An address no page starts at: munmap refuses it with EINVAL.
void *const kBadMapping = reinterpret_cast<void *>(0x1001);

class TableFiles : public ::testing::TestWithParam<Table> {};

TEST_P(TableFiles, OpenCloseAndUnmap) {
    const Table &t = GetParam();
    const std::string word = t.word;
    zt::LogCapture log(false);
    page_size = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    proc_zeb_present = false;
    *t.fd = 55;
    EXPECT_EQ(t.init(), -1);
    EXPECT_LT(*t.fd, 0);
    EXPECT_EQ(t.deinit(), 0);  // closing what never opened is harmless
    EXPECT_EQ(zt::log_lines(log),
              (std::vector<std::string>{"HIGH open pathname = " + std::string(t.path),
                                        "ERR open: No such file or directory",
                                        "HIGH closing " + word + " file"}));

    proc_zeb_present = true;
    log.clear();
    ASSERT_EQ(t.init(), 0);
    int fd = *t.fd;
    EXPECT_EQ(fcntl(fd, F_GETFL) & (O_ACCMODE | O_SYNC), O_RDWR | O_SYNC);
    EXPECT_EQ(t.deinit(), 0);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);  // closed, yet the descriptor is kept
    EXPECT_EQ(*t.fd, fd);
    EXPECT_EQ(log.messages(),
              (std::vector<std::string>{"open pathname = " + std::string(t.path),
                                        word + "_fd = " + std::to_string(fd) +
                                            " page size = " + std::to_string(page_size),
                                        "closing " + word + " file"}));

    log.clear();
    void *page = map_page();
    t.set_mapping(page);
    EXPECT_EQ(t.unmap(), 0);
    EXPECT_FALSE(is_mapped(page));
    EXPECT_TRUE(log.messages().empty());
}

INSTANTIATE_TEST_SUITE_P(Tables, TableFiles, ::testing::ValuesIn(kTables),
                         [](const auto &info) { return std::string(info.param.word); });

// Unmapped in the order caps, gold flows, slow-start flows; the first failure
// ends the process at once with status 0, leaving the rest mapped.
TEST(UnmapAll, ReleasesAllThreeOrExitsAtTheFirstFailure) {
    page_size = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    for (size_t bad = 0; bad <= 3; bad++) {
        zt::LogCapture log(false);
        void *pages[3];
        for (size_t i = 0; i < 3; i++) {
            pages[i] = i < bad ? map_page() : kBadMapping;
            kTables[i].set_mapping(pages[i]);
        }
        if (bad == 3) {
            EXPECT_EQ(zebusr_munmap_all(), 0);
            for (void *p : pages) EXPECT_FALSE(is_mapped(p));
            continue;
        }
        EXPECT_EXIT(zebusr_munmap_all(), ::testing::ExitedWithCode(0), "");
        EXPECT_EQ(log.messages(),
                  std::vector<std::string>{"munmap " + std::string(kTables[bad].word) +
                                           " file: Invalid argument"});
        for (size_t i = 0; i < bad; i++) munmap(pages[i], page_size);
    }
}

}  // namespace
