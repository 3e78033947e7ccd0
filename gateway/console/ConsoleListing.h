// What the console's page shows, as JSON: the devices with their recordings,
// talk channels and live counters, and a device's talk captures.
#ifndef GATEWAY_CONSOLE_LISTING_H
#define GATEWAY_CONSOLE_LISTING_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "media/MediaLibrary.h"
#include "talk/TalkDevices.h"

class GatewayMetrics;

// The counters that change while the page is open.
struct ConsoleCounters {
    int64_t openDownloads = 0;  // the gateway's, every client's
    int64_t openTalks = 0;
    std::map<std::string, int> consoleDownloads;  // by devIndex, those through the console
};

// {"devices": [{"devIndex", "name", "address", "rtspPort", "talkChannel", "codec", "talkFromConsole",
//               "talkRunning", "downloadsFromConsole", "recordings": [{"name", "size", "starttime", "endtime"}]}],
//  "openDownloads", "openTalks"}; recordings: false leaves them out (the live updates).
std::string consoleDevicesJson(const MediaLibrary& library, const TalkDeviceSet& talking, TalkOwners& owners,
                               int httpPort, const ConsoleCounters& counters, bool recordings);

struct TalkCapture {
    std::string name;
    uint64_t size = 0;
    int64_t modified = 0;  // seconds since the epoch
};

// The talk captures in a device's folder ("talk-ch<n>-..."), newest first; at most kMaxCaptures.
constexpr size_t kMaxCaptures = 1000;
std::vector<TalkCapture> listTalkCaptures(const std::string& folder);
std::string talkCapturesJson(const std::vector<TalkCapture>& captures);

// The talking device of a devIndex in the set; null when it does not talk.
const TalkDevice* talkDeviceOf(const MediaLibrary& library, const TalkDeviceSet& talking, const std::string& devIndex);

#endif  // GATEWAY_CONSOLE_LISTING_H
