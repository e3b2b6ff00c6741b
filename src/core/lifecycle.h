// Start-up, signals and clean-up of the daemon process.
#pragma once

#include <signal.h>

// The whole of main: opens the log, installs the handlers, starts and joins
// the two worker threads. Returns the exit status (0 or -1).
int zebusr_run(int argc, char **argv);

void zebusr_sig_handler(int signum);
void zebusr_cleanup(void);

// SIGTERM, SIGINT, SIGUSR1 and SIGUSR2.
void zebusr_handled_signals(sigset_t *set);
