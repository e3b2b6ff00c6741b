// The flow history again, for the ss_flows harness only, with its node
// allocations going through that harness: nodes orphaned by a head removal,
// which the daemon keeps on purpose, can then be freed after each input.
// Everything the source includes comes first, so only its own body is renamed.
#include <cstdlib>
#include <cstring>

#include "core/log.h"
#include "segmentation/flow_history.h"

extern "C" void *fz_node_malloc(size_t size);
extern "C" void fz_node_free(void *p);
#define malloc fz_node_malloc
#define free fz_node_free

#include "segmentation/flow_history.cpp"
