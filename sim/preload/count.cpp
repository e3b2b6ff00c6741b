// LD_PRELOAD library for the whole-process benchmark and the soak: counts
// heap allocations per thread, records each thread's id and keeps the live
// heap (usable bytes and blocks of every block not yet freed), in the page
// "counters" of the run directory (ZEBUSR_SIM_RUNDIR) when that file exists.
// Slot 0 is the main thread, slot n the thread of the n-th pthread_create.
// Kept apart from the simulator's preload: an ASan daemon brings its own
// malloc, which this one would shadow.
#include <dlfcn.h>
#include <fcntl.h>
#include <malloc.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>

extern "C" {
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);
void *__libc_memalign(size_t, size_t);
void __libc_free(void *);
}

namespace {

constexpr int kSlots = 8;

// Readers map this layout; new fields go at the end.
struct Counters {
    uint64_t allocs[kSlots];
    int32_t tids[kSlots];
    int64_t live_bytes;
    int64_t live_blocks;
    uint64_t frees;
};

// Counted from the first allocation, before the page exists, so that a
// block allocated early and freed late does not skew the live figures.
Counters early;
Counters *page = &early;
__thread int slot __attribute__((tls_model("initial-exec"))) = 0;

inline void counted() {
    __atomic_add_fetch(&page->allocs[slot], 1, __ATOMIC_RELAXED);
}

inline void *born(void *p) {
    if (p) {
        __atomic_add_fetch(&page->live_bytes, int64_t(malloc_usable_size(p)), __ATOMIC_RELAXED);
        __atomic_add_fetch(&page->live_blocks, 1, __ATOMIC_RELAXED);
    }
    return p;
}

inline void dying(void *p) {
    if (p) {
        __atomic_sub_fetch(&page->live_bytes, int64_t(malloc_usable_size(p)), __ATOMIC_RELAXED);
        __atomic_sub_fetch(&page->live_blocks, 1, __ATOMIC_RELAXED);
        __atomic_add_fetch(&page->frees, 1, __ATOMIC_RELAXED);
    }
}

__attribute__((constructor)) void map_counters() {
    const char *dir = getenv("ZEBUSR_SIM_RUNDIR");
    if (!dir)
        return;
    char path[4096];
    snprintf(path, sizeof path, "%s/counters", dir);
    int fd = open(path, O_RDWR | O_CLOEXEC);
    if (fd < 0)
        return;
    void *m = mmap(nullptr, sizeof(Counters), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (m == MAP_FAILED)
        return;
    // Still one thread: nothing counts between the copy and the switch.
    __builtin_memcpy(m, &early, sizeof early);
    page = static_cast<Counters *>(m);
    page->tids[0] = int32_t(syscall(SYS_gettid));
}

struct Start {
    void *(*fn)(void *);
    void *arg;
    int slot;
};
Start starts[kSlots];
int created = 0;

void *tagged(void *p) {
    Start *s = static_cast<Start *>(p);
    slot = s->slot;
    __atomic_store_n(&page->tids[slot], int32_t(syscall(SYS_gettid)), __ATOMIC_RELEASE);
    return s->fn(s->arg);
}

}  // namespace

extern "C" {

void *malloc(size_t n) {
    counted();
    return born(__libc_malloc(n));
}
void *calloc(size_t n, size_t size) {
    counted();
    return born(__libc_calloc(n, size));
}
void *realloc(void *p, size_t n) {
    counted();
    // A moved or shrunk block leaves the old size; realloc(p, 0) frees p.
    size_t old = p ? malloc_usable_size(p) : 0;
    void *q = __libc_realloc(p, n);
    if (q) {
        __atomic_add_fetch(&page->live_bytes, int64_t(malloc_usable_size(q)) - int64_t(old),
                           __ATOMIC_RELAXED);
        if (!p)
            __atomic_add_fetch(&page->live_blocks, 1, __ATOMIC_RELAXED);
    } else if (p && n == 0) {
        __atomic_sub_fetch(&page->live_bytes, int64_t(old), __ATOMIC_RELAXED);
        __atomic_sub_fetch(&page->live_blocks, 1, __ATOMIC_RELAXED);
        __atomic_add_fetch(&page->frees, 1, __ATOMIC_RELAXED);
    }
    return q;
}
void free(void *p) {
    dying(p);
    __libc_free(p);
}
void *memalign(size_t align, size_t n) {
    counted();
    return born(__libc_memalign(align, n));
}
void *aligned_alloc(size_t align, size_t n) {
    counted();
    return born(__libc_memalign(align, n));
}
int posix_memalign(void **out, size_t align, size_t n) {
    counted();
    void *p = born(__libc_memalign(align, n));
    if (!p)
        return 12;  // ENOMEM
    *out = p;
    return 0;
}

using CreateFn = int (*)(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *);

int pthread_create(pthread_t *t, const pthread_attr_t *attr, void *(*fn)(void *), void *arg) {
    static CreateFn real = reinterpret_cast<CreateFn>(dlsym(RTLD_NEXT, "pthread_create"));
    int n = __atomic_add_fetch(&created, 1, __ATOMIC_RELAXED);
    if (n >= kSlots)
        return real(t, attr, fn, arg);
    starts[n] = {fn, arg, n};
    return real(t, attr, tagged, &starts[n]);
}

}  // extern "C"
