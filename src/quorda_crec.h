// quorda_crec.h - process-wide state and the process shell.
//
// fAppTerminate is the one stop trigger: the signal handler sets it and
// every loop of the program polls it. It is a lock-free atomic because a
// signal handler writes it and many threads read it.
#ifndef QUORDA_CREC_H
#define QUORDA_CREC_H

#include <atomic>
#include <string>

extern std::atomic<bool> fAppTerminate;
extern std::atomic<int> g_DebugMode;  // 1: lg() prints to stdout
extern bool g_fClustering;            // main thread only
extern std::string g_cfgPrefix;       // main thread only

// The whole program; main() only calls this.
int quorda_crec_main(int argc, char** argv);

int spawn_me();
void setSignalHandlers();
bool CheckCardDriver();
void InitCluster();
std::string ReadSN();
void OnKnowSN(const std::string& sn);

#endif
