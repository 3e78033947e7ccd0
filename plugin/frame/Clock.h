// The plug-in's millisecond clock. Rules that depend on time (the 60-second
// stall limit of a download, the age of a queued job) read it here, so that a
// test can replace the source instead of waiting a minute.
#ifndef HTTPWRAPPER_FRAME_CLOCK_H
#define HTTPWRAPPER_FRAME_CLOCK_H

#include <zrt/zrt.h>

namespace HttpWrapper {

typedef ZRT_UINT64 (*TickSource)();

// Monotonic milliseconds (ZRT_GetTimeTick64 unless replaced).
ZRT_UINT64 hpwTickMs();
// Replaces the source; null restores the runtime's clock.
void hpwSetTickSource(TickSource source);

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_FRAME_CLOCK_H
