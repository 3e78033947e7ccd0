// Resumable downloads on the gateway's side. A client's Range reaches us as
// the "Download-Range" head the plug-in adds to the download's RTSP request:
//   bytes=<first>-<last> | bytes=<first>- | bytes=-<suffix length>   [;if-range=<entity tag>]
// The plug-in checked the syntax but cannot resolve the range: the body's
// length (the 40-byte stream head, then the file) and the file's version are
// known here, once the file is open. So the range is resolved here, only that
// part of the body is read and sent, and STREAM_INFO reports what is served
// (StreamBlocks.h) for the plug-in to write its 206, 416 or 200 head from.
#ifndef GATEWAY_DOWNLOAD_RANGE_H
#define GATEWAY_DOWNLOAD_RANGE_H

#include <cstddef>
#include <cstdint>
#include <string>

#include <ext/ByteRangeText.h>

// The bounds, read as the plug-in reads the client's Range, and the condition.
struct DownloadRange : ext::ByteRangeText {
    bool hasIfRange = false;
    std::string ifRange;  // the client's entity tag; empty matches nothing
};

// False for anything the plug-in does not write (the range is then not served).
bool parseDownloadRange(const std::string& head, DownloadRange& range);

struct ServedPart {
    enum Outcome { kWhole = 0, kPart = 1, kUnsatisfiable = 2 };
    Outcome outcome = kWhole;
    uint64_t first = 0;  // body offsets of a part, both included
    uint64_t last = 0;
};

// What to send of a body of bodyLength bytes whose current tag is entityTag:
// the whole body when the client's If-Range names another version.
ServedPart resolveRange(const DownloadRange& range, uint64_t bodyLength, const std::string& entityTag);

// Where a part's bytes come from: the stream head, then the file.
struct BodySlices {
    size_t headOffset = 0;
    size_t headLength = 0;
    uint64_t fileOffset = 0;
    uint64_t fileLength = 0;
};
BodySlices sliceBody(const ServedPart& part, size_t streamHeadLength, uint64_t fileLength);

// The validator of one version of a recording's body: the file's size and
// modification time, and the stream head, whose times and block size come
// from the index and the configuration and may change while the file stays.
std::string entityTagOf(uint64_t fileSize, int64_t modifiedNs, const unsigned char* streamHead, size_t headLength);

// "bytes 100-1039/1040" and the like, for the log.
std::string describeServed(const ServedPart& part, uint64_t bodyLength);

#endif  // GATEWAY_DOWNLOAD_RANGE_H
