// The embedded server's request framing, fed through its in-memory entry point.
//
// The first input byte chooses how the rest is cut into reads; the same bytes are
// also fed in one piece. TCP may deliver a request in any cut, so both parsers must
// come to the same decision, and a complete request must read the same either way.
// Which refusal (400, 413 or 505) comes first may depend on where a read ends, so
// refusals only have to agree on being refusals.
#include "FuzzCheck.h"
#include "OnWorkerStack.h"
#include "RequestParser.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

using netutils::RequestParser;
using Result = RequestParser::Result;

namespace {

bool refused(Result result)
{
    return result == Result::BadRequest || result == Result::TooLarge || result == Result::VersionNotSupported;
}

// The header lookups the server and the plug-in make.
const char* const kHeaders[] = {"Host",   "Authorization",   "Content-Length", "Transfer-Encoding",
                                "Expect", "X-Forwarded-For", "Content-Type"};

void checkSameRequest(const RequestParser& whole, const RequestParser& pieces)
{
    FUZZ_CHECK(whole.url() == pieces.url());
    FUZZ_CHECK(whole.methodCode() == pieces.methodCode());
    FUZZ_CHECK(whole.body() == pieces.body());
    for (const char* name : kHeaders) {
        const std::string* a = whole.findHeader(name, strlen(name));
        const std::string* b = pieces.findHeader(name, strlen(name));
        FUZZ_CHECK((a == nullptr) == (b == nullptr));
        FUZZ_CHECK(a == nullptr || *a == *b);
    }
    // The block is static-sized (about 5 KB): keep two off the fuzzer's stack frames.
    static NET_HTTPSERVER_REQUEST_PARAM a;
    static NET_HTTPSERVER_REQUEST_PARAM b;
    whole.fillRequestParam(a);
    pieces.fillRequestParam(b);
    FUZZ_CHECK(memcmp(&a, &b, sizeof a) == 0);
    FUZZ_CHECK(strnlen(a.szUrl, sizeof a.szUrl) < sizeof a.szUrl);
}

}  // namespace

static int FuzzOneInput(const uint8_t* data, size_t size)
{
    if (size == 0) {
        return 0;
    }
    const unsigned cut = data[0];
    const char* bytes = reinterpret_cast<const char*>(data + 1);
    const size_t length = size - 1;

    RequestParser whole;
    const Result wholeResult = whole.feed(bytes, length);

    // Reads of 1 to 32 bytes, varying so that boundaries fall everywhere.
    RequestParser pieces;
    Result piecesResult = Result::Incomplete;
    for (size_t offset = 0, i = 0; offset < length; ++i) {
        const size_t piece = std::min(length - offset, static_cast<size_t>((cut + i * 7) % 32 + 1));
        piecesResult = pieces.feed(bytes + offset, piece);
        offset += piece;
    }
    // A decision stands whatever is fed afterwards.
    if (piecesResult != Result::Incomplete) {
        FUZZ_CHECK(pieces.feed("X", 1) == piecesResult);
    }

    if (refused(wholeResult) || refused(piecesResult)) {
        FUZZ_CHECK(refused(wholeResult) && refused(piecesResult));
        return 0;
    }
    FUZZ_CHECK(wholeResult == piecesResult);
    if (wholeResult == Result::Complete) {
        FUZZ_CHECK(whole.body().size() <= netutils::kMaxBody);
        checkSameRequest(whole, pieces);
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    OnWorkerStack::run([&] { FuzzOneInput(data, size); });
    return 0;
}
