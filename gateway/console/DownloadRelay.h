// A recording downloaded through the console: the console asks the plug-in
// for it as any client does (the JSON download form, Digest as the signed-in
// user) and hands the browser the recording alone. The stream head the
// plug-in puts first is never asked for: the browser's byte range, counted in
// the recording, becomes a range past the head on the plug-in's side, so a
// download the browser resumes is resumed there too. The plug-in's ETag
// travels both ways (as ETag, and back as If-Range), so a recording that
// changed between the parts comes whole.
#ifndef GATEWAY_DOWNLOAD_RELAY_H
#define GATEWAY_DOWNLOAD_RELAY_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

#include "console/PluginClient.h"
#include "media/MediaLibrary.h"

constexpr uint64_t kStreamHeadBytes = 40;

struct RelayRequest {
    int httpPort = 0;
    DeviceConfig device;
    Recording recording;
    std::string range;    // the browser's Range header, "" when none
    std::string ifRange;  // the browser's If-Range header
    PluginCredentials credentials;
};

// Writes to the browser, blocking until written; false when the browser is gone.
using BrowserWrite = std::function<bool(const char* data, size_t size)>;

// Runs the download, writing the whole reply (head and body) through write;
// returns what happened, for the log. stop ends it early.
std::string relayDownload(const RelayRequest& request, const std::atomic<bool>* stop, const BrowserWrite& write);

// The plug-in's Range for a browser's: one range in the recording of the
// given size, moved past the stream head. A missing, malformed or multiple
// range asks for the whole recording ("bytes=40-"); asked is then false.
std::string deviceRange(const std::string& browserRange, uint64_t size, bool& asked);

// A file name safe inside a quoted Content-Disposition parameter.
std::string dispositionName(const std::string& name);

#endif  // GATEWAY_DOWNLOAD_RELAY_H
