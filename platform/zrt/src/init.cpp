// Runtime start and stop. The runtime keeps no global resources of its own yet
// beyond the count; the count lets several modules of one process start and stop
// it independently.
#include "zrt/zrt.h"

#include <atomic>
#include <signal.h>

namespace {
std::atomic<int> g_initCount{0};
}

extern "C" {

ZRT_INT32 ZRT_InitEx(void)
{
    if (g_initCount.fetch_add(1) == 0) {
        // A peer that closes a socket while we write to it must produce EPIPE,
        // not kill the host process.
        signal(SIGPIPE, SIG_IGN);
    }
    return 0;
}

ZRT_INT32 ZRT_FiniEx(void)
{
    int count = g_initCount.load();
    while (count > 0 && !g_initCount.compare_exchange_weak(count, count - 1)) {
    }
    return 0;
}

ZRT_INT32 ZRT_InitCount(void)
{
    return g_initCount.load();
}

}  // extern "C"
