#include "frame/Clock.h"

#include <atomic>

namespace HttpWrapper {

namespace {
std::atomic<TickSource> g_tickSource{ZRT_GetTimeTick64};
}

ZRT_UINT64 hpwTickMs()
{
    return g_tickSource.load(std::memory_order_relaxed)();
}

void hpwSetTickSource(TickSource source)
{
    g_tickSource.store(source != nullptr ? source : ZRT_GetTimeTick64);
}

}  // namespace HttpWrapper
