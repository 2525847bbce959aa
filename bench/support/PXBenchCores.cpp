#include "support/PXBenchCores.h"

#include <pthread.h>

const cpu_set_t& PXBenchOriginalCores() {
  static const cpu_set_t set = [] {
    cpu_set_t cores;
    CPU_ZERO(&cores);
    if (sched_getaffinity(0, sizeof cores, &cores) != 0) CPU_ZERO(&cores);
    return cores;
  }();
  return set;
}

std::vector<int> PXBenchAllowedCores() {
  std::vector<int> cores;
  for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
    if (CPU_ISSET(cpu, &PXBenchOriginalCores())) cores.push_back(cpu);
  }
  return cores;
}

bool PXBenchPinCallingThread(int core) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(core, &set);
  return pthread_setaffinity_np(pthread_self(), sizeof set, &set) == 0;
}

void PXBenchUnpinCallingThread() {
  (void)pthread_setaffinity_np(pthread_self(), sizeof(cpu_set_t), &PXBenchOriginalCores());
}
