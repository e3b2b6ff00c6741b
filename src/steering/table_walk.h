// Reading the live capacity and gold flow tables the same way everywhere.
#pragma once

#include "steering/tables.h"

// Copies each entry's two capacities into the slot its `cpu` names (a later
// entry naming the same CPU wins; an unnamed CPU keeps what `by_cpu` held).
// Returns -1 after an ERR line when an entry names a CPU of 8 or more.
int zebusr_caps_fill_by_cpu(zebusr_cap_info by_cpu[ZEBUSR_NUM_CPUS], const char *func,
                            unsigned line);

// True when a walk of the gold flow table, `n` entries long by its header,
// must stop before entry i: past n, at the 128th entry, or at a zero hash
// (the last two with an ERR line). Reads no entry past the 128th.
bool zebusr_gflow_walk_ends(int i, uint16_t n, const char *func, unsigned line);

// Their ERR lines carry the calling function and line, so a log tells the
// reader's stop from each policy's.
#define ZEBUSR_CAPS_FILL_BY_CPU(by_cpu) zebusr_caps_fill_by_cpu(by_cpu, __func__, __LINE__)
#define ZEBUSR_GFLOW_WALK_ENDS(i, n) zebusr_gflow_walk_ends(i, n, __func__, __LINE__)
