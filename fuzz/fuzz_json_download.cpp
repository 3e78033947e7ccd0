// The JSON body of a download request (POST .../download?format=json), read the
// way the session reads it, on a request worker's stack.
//
// Deep nesting is refused before the reader runs; should the reader still
// throw, the POST handler catches std::exception and answers "bad JSON", so
// anything else escaping is a fault the fuzzer reports.
// A URI that was read has had its first "playback" turned into "download", so no
// "playback" may come before the first "download".
#include <cstddef>
#include <cstdint>
#include <exception>
#include <string>

#include "FuzzCheck.h"
#include "OnWorkerStack.h"
#include "session/DownloadUri.h"

static int FuzzOneInput(const uint8_t* data, size_t size)
{
    // The session hands over the received body as it is: not terminated.
    const char* body = reinterpret_cast<const char*>(data);
    std::string uri = "unchanged";
    bool read = false;
    try {
        read = HttpWrapper::ReadJsonDownloadUri(body, static_cast<int>(size), uri);
    } catch (const std::exception&) {
        FUZZ_CHECK(uri == "unchanged");
        return 0;
    }
    if (!read) {
        FUZZ_CHECK(uri == "unchanged");
        return 0;
    }
    const size_t playback = uri.find("playback");
    FUZZ_CHECK(playback == std::string::npos || uri.find("download") < playback);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    OnWorkerStack::run([&] { FuzzOneInput(data, size); });
    return 0;
}
