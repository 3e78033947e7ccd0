// The log callback of other gateway modules: text handed to pfnLogCB goes to the
// gateway's utility sink while one is installed.
#include <HttpProtocolWrapper.h>

#include <atomic>

namespace {
// Set once by SetLogCB; kept for the life of the process. The plug-in's own
// lines go through wlog_format, so nothing here reads it back.
std::atomic<PROTOCOL_WRAPPER::LogCallback> g_logCallback{nullptr};
}  // namespace

namespace PROTOCOL_WRAPPER {

void SetLogCB(LogCallback cb)
{
    LogCallback none = nullptr;
    g_logCallback.compare_exchange_strong(none, cb);
}

void pfnLogCB(int level, const char* module, const char* text)
{
    // The gateway must not tear the sink down while a call may run; the pointer
    // is read once so the check and the call see the same sink.
    IProtocolWrapperUtilitySink* sink = __atomic_load_n(&g_pHttpProtocolWrapperUtilitySink, __ATOMIC_ACQUIRE);
    if (sink != nullptr) {
        sink->OutputLog(level, module, text);
    }
}

}  // namespace PROTOCOL_WRAPPER
