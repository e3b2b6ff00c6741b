#include "steering/eval_loop.h"

#include <unistd.h>

#include "core/log.h"

// Minimal body until the evaluation loop lands.
void *zebusr_evaluate(void *) {
    ZLOG(HIGH, "ZEB Evaluation Thread Started");
    for (;;)
        pause();
}
