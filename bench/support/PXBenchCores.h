// Placing benchmark threads on cores.
//
// Benchmarks that measure two threads talking (a caller and a worker, a client
// and a server) pin them to different cores, as users' threads would mostly
// be, so that the figures do not depend on where the scheduler put them.
#pragma once

#include <sched.h>

#include <vector>

// The cores the process was given, read at the first call (call it before
// pinning any thread).
const cpu_set_t& PXBenchOriginalCores();
// The numbers of those cores, in order.
std::vector<int> PXBenchAllowedCores();
// Pins the calling thread to `core`; false when the system refuses.
bool PXBenchPinCallingThread(int core);
// Lets the calling thread run on every core the process was given again.
void PXBenchUnpinCallingThread();
