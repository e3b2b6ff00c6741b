// Slow-start flows: rate history, stability and segmentation requests.
#pragma once

#include <cstdint>

int zebusr_read_ss_flows(void);
int zebusr_set_flow_segmentation(uint32_t hash, uint32_t seg_enable);
