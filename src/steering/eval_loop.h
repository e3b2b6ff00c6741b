// The connection to the steering module and the evaluation loop.
#pragma once

void *zebusr_evaluate(void *arg);
int zebusr_connect_loop(void);
int zebusr_connect_to_dulox_zeb(void);
int zebusr_sync(void);
