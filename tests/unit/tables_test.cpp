// The three table files: open, close and unmap, their messages, and the
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
#include "test_support.h"

// The procfs files of the module do not exist here: every open of
// "/proc/zeb/<name>" goes to `<proc_zeb_dir>/<name>`, or fails with ENOENT
// while no directory is set. Every other path opens as usual.
static std::string proc_zeb_dir;

extern "C" int open(const char *path, int flags, ...) {
    mode_t mode = 0;
    if (flags & (O_CREAT | O_TMPFILE)) {
        va_list ap;
        va_start(ap, flags);
        mode = static_cast<mode_t>(va_arg(ap, int));
        va_end(ap);
    }
    std::string redirected;
    const char prefix[] = "/proc/zeb/";
    if (strncmp(path, prefix, sizeof(prefix) - 1) == 0) {
        if (proc_zeb_dir.empty()) {
            errno = ENOENT;
            return -1;
        }
        redirected = proc_zeb_dir + "/" + (path + sizeof(prefix) - 1);
        path = redirected.c_str();
    }
    return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

namespace {

struct Table {
    const char *name;
    const char *word;
    const char *path;
    int *fd;
    int (*init)();
    int (*deinit)();
    int (*unmap)();
    void (*set_mapping)(void *);
};
void PrintTo(const Table &t, std::ostream *os) {
    *os << t.name;
}

const Table kTables[] = {
    {"Caps", "cap", "/proc/zeb/dulox_zeb_caps", &cap_fd, zebusr_init_cap_file,
     zebusr_deinit_cap_file, zebusr_munmap_caps,
     [](void *p) { cap_list = static_cast<zebusr_cap_info *>(p); }},
    {"GoldFlows", "gflow", "/proc/zeb/dulox_zeb_flows", &gflow_fd, zebusr_init_gflow_file,
     zebusr_deinit_gflow_file, zebusr_munmap_gflows,
     [](void *p) { gflow_list = static_cast<zebusr_flow_table *>(p); }},
    {"SlowStartFlows", "ssflow", "/proc/zeb/dulox_zeb_ss_flows", &ssflow_fd,
     zebusr_init_ssflow_file, zebusr_deinit_ssflow_file, zebusr_munmap_ssflows,
     [](void *p) { ssflow_list = static_cast<zebusr_flow_table *>(p); }},
};

void *map_page() {
    return mmap(nullptr, page_size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
}

// Where the redirected open finds a table's file.
std::string file_in(const std::string &dir, const char *proc_path) {
    return dir + "/" + (proc_path + strlen("/proc/zeb/"));
}

bool is_mapped(void *p) {
    return msync(p, page_size, MS_ASYNC) == 0;
}

// An address no page starts at: munmap refuses it with EINVAL.
void *const kBadMapping = reinterpret_cast<void *>(0x1001);

class TableFiles : public ::testing::TestWithParam<Table> {
   protected:
    void SetUp() override {
        page_size = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
        char tmpl[] = "/tmp/zebusr-proc-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
    }
    void TearDown() override {
        proc_zeb_dir.clear();
        for (const Table &t : kTables) {
            unlink(file_in(dir_, t.path).c_str());
            t.set_mapping(nullptr);
        }
        rmdir(dir_.c_str());
    }
    void create_files() {
        proc_zeb_dir = dir_;
        for (const Table &t : kTables)
            close(::open(file_in(dir_, t.path).c_str(), O_CREAT | O_RDWR, 0600));
    }
    std::string dir_;
};

TEST_P(TableFiles, OpenFailureLeavesANegativeDescriptor) {
    const Table &t = GetParam();
    zt::LogCapture log(false);
    *t.fd = 55;

    EXPECT_EQ(t.init(), -1);
    EXPECT_LT(*t.fd, 0);
    std::vector<std::string> expected = {std::string("HIGH open pathname = ") + t.path,
                                         "ERR open: No such file or directory"};
    std::vector<std::string> got;
    for (const auto &l : log.lines()) got.push_back(l.level + " " + l.message);
    EXPECT_EQ(got, expected);

    // Closing what never opened is harmless and still logged.
    log.clear();
    EXPECT_EQ(t.deinit(), 0);
    EXPECT_EQ(log.messages("HIGH"),
              std::vector<std::string>{std::string("closing ") + t.word + " file"});
}

TEST_P(TableFiles, OpenIsReadWriteSynchronousAndCloseReleasesIt) {
    const Table &t = GetParam();
    create_files();
    zt::LogCapture log(false);

    ASSERT_EQ(t.init(), 0);
    int fd = *t.fd;
    ASSERT_GE(fd, 0);
    int flags = fcntl(fd, F_GETFL);
    EXPECT_EQ(flags & O_ACCMODE, O_RDWR);
    EXPECT_EQ(flags & O_SYNC, O_SYNC);
    EXPECT_EQ(flags & O_CREAT, 0);
    std::vector<std::string> expected = {
        std::string("open pathname = ") + t.path,
        std::string(t.word) + "_fd = " + std::to_string(fd) +
            " page size = " + std::to_string(page_size),
    };
    EXPECT_EQ(log.messages("HIGH"), expected);

    log.clear();
    EXPECT_EQ(t.deinit(), 0);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(*t.fd, fd);  // never reset after closing
    EXPECT_EQ(log.messages(), std::vector<std::string>{std::string("closing ") + t.word + " file"});
}

TEST_P(TableFiles, UnmapReleasesThePageAndLeavesThePointer) {
    const Table &t = GetParam();
    zt::LogCapture log(false);
    void *page = map_page();
    ASSERT_NE(page, MAP_FAILED);
    t.set_mapping(page);

    EXPECT_EQ(t.unmap(), 0);
    EXPECT_FALSE(is_mapped(page));
    EXPECT_TRUE(log.messages().empty());
}

TEST_P(TableFiles, UnmapFailureEndsTheProcessWithStatusZero) {
    const Table &t = GetParam();
    zt::LogCapture log(false);
    t.set_mapping(kBadMapping);

    EXPECT_EXIT(t.unmap(), ::testing::ExitedWithCode(0), "");
    // The file stays open: the exit handler closes it.
    EXPECT_EQ(log.messages(), std::vector<std::string>{std::string("munmap ") + t.word +
                                                       " file: Invalid argument"});
}

INSTANTIATE_TEST_SUITE_P(Tables, TableFiles, ::testing::ValuesIn(kTables),
                         [](const auto &info) { return std::string(info.param.name); });

class UnmapAll : public TableFiles {};

TEST_F(UnmapAll, ReleasesAllThree) {
    void *pages[3];
    for (int i = 0; i < 3; i++) {
        pages[i] = map_page();
        ASSERT_NE(pages[i], MAP_FAILED);
        kTables[i].set_mapping(pages[i]);
    }

    EXPECT_EQ(zebusr_munmap_all(), 0);
    for (void *p : pages) EXPECT_FALSE(is_mapped(p));
}

// With all three unmappable, only the first in order gets to report.
TEST_F(UnmapAll, StopsAtTheFirstFailureInCapsGoldSlowStartOrder) {
    zt::LogCapture log(false);
    for (const Table &t : kTables) t.set_mapping(kBadMapping);
    EXPECT_EXIT(zebusr_munmap_all(), ::testing::ExitedWithCode(0), "");
    EXPECT_EQ(log.messages(), std::vector<std::string>{"munmap cap file: Invalid argument"});

    log.clear();
    void *caps = map_page();
    cap_list = static_cast<zebusr_cap_info *>(caps);
    EXPECT_EXIT(zebusr_munmap_all(), ::testing::ExitedWithCode(0), "");
    EXPECT_EQ(log.messages(), std::vector<std::string>{"munmap gflow file: Invalid argument"});
    munmap(caps, page_size);
}

}  // namespace
