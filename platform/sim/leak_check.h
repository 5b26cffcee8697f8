// End-of-run leak check of a slave built with the address sanitizer.
#pragma once

// When TARVO_SIM_LEAK_CHECK=1 and the slave is built with the address
// sanitizer: blocks SIGTERM in the calling thread (and so in every thread
// started after it) and starts the thread "sim_leak_check", which waits for
// SIGTERM, runs the leak sanitizer over the live process, prints
// "sim: leak check: no leaks" or "sim: leak check: leaks found" (after the
// sanitizer's own report) on stderr, and then ends the process by SIGTERM as
// before. The slave itself never exits, so this is where a long run learns
// what it leaked. Does nothing otherwise. Returns 0, or -1 if the thread
// could not be started.
int sim_leak_check_arm();
