// The gateway's configuration and its recordings indexes, read as at start
// and on every SIGHUP: the first byte says which, the rest is the file. Either
// is refused with a message or read; nothing throws, aborts or overflows. The
// reader runs on a request worker's stack, far smaller than the gateway's
// main thread's, so that depth the bounds let through shows here first.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "config/ConfigFile.h"
#include "FuzzCheck.h"
#include "base/JsonFile.h"
#include "media/MediaLibrary.h"
#include "OnWorkerStack.h"

static void FuzzOneInput(const uint8_t* data, size_t size)
{
    if (size == 0) {
        return;
    }
    const bool isIndex = (data[0] & 1) != 0;
    const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
    Json::Value root;
    std::string error;
    if (!parseJsonText(text, isIndex ? kMaxIndexOpenings : kMaxConfigOpenings, root, error)) {
        FUZZ_CHECK(!error.empty());
        return;
    }
    if (isIndex) {
        std::vector<Recording> recordings;
        std::vector<std::string> skipped;
        // No such folder: every entry that passes the text checks fails on its file.
        if (readRecordingEntries(root, "/nonexistent-fuzz-folder", recordings, error, &skipped)) {
            FUZZ_CHECK(recordings.empty());
        }
        return;
    }
    GatewayConfig config;
    if (parseGatewayConfig(root, ConfigSource::kFile, config, error)) {
        FUZZ_CHECK(!config.users.empty());
        FUZZ_CHECK(config.maxTalksPerUser >= 1 && config.maxTalksPerUser <= 100);
    } else {
        FUZZ_CHECK(!error.empty());
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    OnWorkerStack::run([&] { FuzzOneInput(data, size); });
    return 0;
}
