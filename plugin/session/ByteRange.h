// Resumable downloads: the one byte range a client asks for with Range (and
// If-Range), how it travels to the gateway, and what the gateway reports back.
//
// The plug-in reads only the request's syntax; it cannot resolve a range, as
// it learns the body's length from the gateway's first STREAM_INFO, after the
// gateway has chosen what to read. So the gateway resolves the range against
// the file it opened, compares the validator, reads only that part, and says
// in the same STREAM_INFO what it serves; the plug-in writes the 206, 416 or
// 200 head from that report. A gateway that knows nothing of ranges leaves the
// report out and sends the whole body: the plug-in then answers 200 exactly as
// it does without Range, so it never announces bytes it does not get.
//
// To the gateway: one more head of the RTSP request, after the standard ones,
//   Download-Range: bytes=<first>-<last> | bytes=<first>- | bytes=-<suffix length>
// followed by ";if-range=<entity tag>" when the client sent If-Range. A tag
// the gateway cannot have issued (weak, a date, unusual characters) goes as
// an empty value, which matches nothing: the whole body comes back, with the
// current tag.
//
// From the gateway: the range report in the STREAM_INFO block
// (ext/StreamBlockLayout.h), present only when the request carried
// Download-Range; other gateways leave it zero. The entity tag it carries is
// that of this version of the recording (empty: none).
#ifndef HTTPWRAPPER_SESSION_BYTERANGE_H
#define HTTPWRAPPER_SESSION_BYTERANGE_H

#include <stddef.h>

#include <string>

#include <ext/ByteRangeText.h>

namespace HttpWrapper {

// The bounds are read as the gateway reads the Download-Range head.
using CByteRangeRequest = ext::ByteRangeText;

// One "bytes=" range. False for a list, another unit, a last byte before the
// first, or anything malformed: such a header is ignored and the whole body
// sent. A number too large for 64 bits counts as the largest one: a start
// past every body, an end or a suffix that covers all of it.
bool ParseRangeHeader(const std::string& value, CByteRangeRequest& range);

// The value of the Download-Range head.
std::string DownloadRangeHead(const CByteRangeRequest& range, bool hasIfRange, const std::string& ifRange);

struct CServedRange {
    enum Outcome { WHOLE = 0, PART = 1, UNSATISFIABLE = 2 };
    int outcome = WHOLE;
    unsigned long long first = 0;
    unsigned long long last = 0;
    std::string entityTag;
};

enum ServedRangeRecord { RANGE_RECORD_ABSENT, RANGE_RECORD_VALID, RANGE_RECORD_INVALID };

// Reads the gateway's record from a STREAM_INFO block of `length` bytes, for
// a body of bodyLength bytes. A record that is there but does not make sense
// (an unknown outcome, a part outside the body, an unterminated or unprintable
// tag) is INVALID: the body the gateway sends is then unknown.
ServedRangeRecord ReadServedRange(const char* info, size_t length, unsigned long long bodyLength, CServedRange& served);

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_SESSION_BYTERANGE_H
