// ISO 8601 times as clients put them into playback URIs: the basic form
// 20260101T000000Z and the extended form 2026-01-01T00:00:00Z, both in UTC
// (a missing "Z" is read as UTC too).
#ifndef GATEWAY_ISO_TIME_H
#define GATEWAY_ISO_TIME_H

#include <cstdint>
#include <string>

// Seconds since the epoch; false for any other form or an impossible date.
bool parseIsoTime(const std::string& text, int64_t& seconds);

// The basic form, e.g. 20260101T000000Z.
std::string formatIsoTime(int64_t seconds);

#endif  // GATEWAY_ISO_TIME_H
