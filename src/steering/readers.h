// Per-cycle readers of the capacity and gold flow tables.
#pragma once

int zebusr_read_capacities(void);
int zebusr_read_gold_flows(void);
