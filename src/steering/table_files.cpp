#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "core/log.h"
#include "steering/tables.h"

uint64_t page_size = 0;

std::atomic<int> cap_fd{0};
std::atomic<int> gflow_fd{0};
std::atomic<int> ssflow_fd{0};

zebusr_cap_info *cap_list = nullptr;
zebusr_flow_table *gflow_list = nullptr;
zebusr_flow_table *ssflow_list = nullptr;

// The three tables share one scheme; their messages differ only in `word`.
struct zebusr_table_file {
    const char *path;
    const char *word;
    std::atomic<int> *fd;
    void *(*mapping)(void);
};

enum { ZEBUSR_TABLE_CAP, ZEBUSR_TABLE_GFLOW, ZEBUSR_TABLE_SSFLOW, ZEBUSR_NUM_TABLES };

static const zebusr_table_file zebusr_tables[ZEBUSR_NUM_TABLES] = {
    {ZEBUSR_CAP_PATH, "cap", &cap_fd, []() -> void * { return cap_list; }},
    {ZEBUSR_GFLOW_PATH, "gflow", &gflow_fd, []() -> void * { return gflow_list; }},
    {ZEBUSR_SSFLOW_PATH, "ssflow", &ssflow_fd, []() -> void * { return ssflow_list; }},
};

// `func` is the table's own operation, whose name its lines carry.
static int zebusr_table_open(const zebusr_table_file *t, const char *func) {
    ZLOG_AS(HIGH, func, "open pathname = %s", t->path);
    int fd = open(t->path, O_RDWR | O_SYNC);
    t->fd->store(fd, std::memory_order_relaxed);
    if (fd >= 0) {
        ZLOG_AS(HIGH, func, "%s_fd = %d page size = %lu", t->word, fd, page_size);
        return 0;
    }
    ZLOG_AS(ERR, func, "open: %s", strerror(errno));
    return -1;
}

static int zebusr_table_close(const zebusr_table_file *t, const char *func) {
    ZLOG_AS(HIGH, func, "closing %s file", t->word);
    close(t->fd->load(std::memory_order_relaxed));
    return 0;
}

static int zebusr_table_munmap(const zebusr_table_file *t, const char *func) {
    if (munmap(t->mapping(), page_size) == 0)
        return 0;
    // The file stays open; the exit handler closes it.
    ZLOG_AS(ERR, func, "munmap %s file: %s", t->word, strerror(errno));
    exit(0);
}

void *zebusr_table_mmap(int fd) {
    return mmap(nullptr, page_size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
}

int zebusr_init_cap_file(void) {
    return zebusr_table_open(&zebusr_tables[ZEBUSR_TABLE_CAP], __func__);
}
int zebusr_init_gflow_file(void) {
    return zebusr_table_open(&zebusr_tables[ZEBUSR_TABLE_GFLOW], __func__);
}
int zebusr_init_ssflow_file(void) {
    return zebusr_table_open(&zebusr_tables[ZEBUSR_TABLE_SSFLOW], __func__);
}

int zebusr_deinit_cap_file(void) {
    return zebusr_table_close(&zebusr_tables[ZEBUSR_TABLE_CAP], __func__);
}
int zebusr_deinit_gflow_file(void) {
    return zebusr_table_close(&zebusr_tables[ZEBUSR_TABLE_GFLOW], __func__);
}
int zebusr_deinit_ssflow_file(void) {
    return zebusr_table_close(&zebusr_tables[ZEBUSR_TABLE_SSFLOW], __func__);
}

int zebusr_munmap_caps(void) {
    return zebusr_table_munmap(&zebusr_tables[ZEBUSR_TABLE_CAP], __func__);
}
int zebusr_munmap_gflows(void) {
    return zebusr_table_munmap(&zebusr_tables[ZEBUSR_TABLE_GFLOW], __func__);
}
int zebusr_munmap_ssflows(void) {
    return zebusr_table_munmap(&zebusr_tables[ZEBUSR_TABLE_SSFLOW], __func__);
}

int zebusr_munmap_all(void) {
    zebusr_munmap_caps();
    zebusr_munmap_gflows();
    return zebusr_munmap_ssflows();
}
