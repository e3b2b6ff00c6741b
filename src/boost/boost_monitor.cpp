#include <pthread.h>

#include "boost/boost.h"
#include "core/log.h"

// Minimal body until the boost monitor lands.
void *dulox_freq_boost_monitor(void *) {
    ZLOG(HIGH, "Dulox Core Driver Thread Started");
    pthread_exit(nullptr);
}
