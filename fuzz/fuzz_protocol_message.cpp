// The filter chain's message text: parse a request and a response from the same
// bytes, then build each back.
//
// The builder must never write past the buffer it is given, must report the whole
// length when the buffer is too small, and must fill a buffer of that length with
// the whole message. What it built must parse again into the same first line, the
// same body and the same heads, each value trimmed once more as the parser trims
// every value (the trimming is not idempotent for some blank and CR mixtures, so
// the values are compared, not the texts).
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "FuzzCheck.h"
#include "OnWorkerStack.h"
#include "protocol/ProtocolRequest.h"
#include "protocol/ProtocolResponse.h"
#include "util/StringUtils.h"

using HttpWrapper::CProtocolRequest;
using HttpWrapper::CProtocolResponse;

namespace {

// The parser cuts the header block into at most 65 lines, the first line and 64
// heads; beyond that it keeps the surplus in the last head, line breaks included.
const size_t kComparableHeads = 64;

struct Message {
    std::vector<std::string> firstLine;
    std::vector<std::pair<std::string, std::string>> heads;
    std::string body;
};

std::vector<std::string> FirstLine(CProtocolRequest& request)
{
    PROTOCOL_FILTER::IProtocolRequestLine* line = request.GetProtocolRequestLine();
    return {line->GetProtocolMethod(), line->GetProtocolURL(), line->GetProtocolName(), line->GetProtocolVersion()};
}

std::vector<std::string> FirstLine(CProtocolResponse& response)
{
    PROTOCOL_FILTER::IProtocolStatusLine* line = response.GetProtocolStatusLine();
    return {line->GetProtocolName(), line->GetProtocolVersion(), line->GetStatusCode(), line->GetStatusDescribe()};
}

template <typename Parsed>
Message Read(Parsed& parsed)
{
    Message message;
    message.firstLine = FirstLine(parsed);
    for (PROTOCOL_FILTER::IProtocolHead* head = parsed.GetFirstHead(); head != nullptr; head = parsed.GetNextHead()) {
        message.heads.emplace_back(head->GetHeadName(), head->GetHeadValue());
    }
    char* content = nullptr;
    const int length = parsed.GetProtocolBody()->GetBodyContent(&content);
    if (length > 0) {
        message.body.assign(content, static_cast<size_t>(length));
    }
    return message;
}

// Builds into a buffer one byte larger than the announced size, after a try into a
// smaller buffer (its size chosen by the input) that must leave the bytes behind it
// alone. Every piece is written the way snprintf writes, keeping a byte for its
// terminator, so a message without a body arrives whole only with that one byte
// more; the gateway's callers always give far more room.
template <typename Parsed, typename Build>
std::string BuildText(Parsed& parsed, Build build, size_t smallSize)
{
    const int length = (parsed.*build)(nullptr, 0);
    FUZZ_CHECK(length >= 0);
    if (smallSize < static_cast<size_t>(length)) {
        std::vector<char> small(smallSize + 16, '\x5A');
        FUZZ_CHECK((parsed.*build)(small.data(), static_cast<int>(smallSize)) == length);
        for (size_t i = smallSize; i < small.size(); ++i) {
            FUZZ_CHECK(small[i] == '\x5A');
        }
    }
    std::vector<char> roomy(static_cast<size_t>(length) + 1, '\x5A');
    FUZZ_CHECK((parsed.*build)(roomy.data(), length + 1) == length);
    return std::string(roomy.begin(), roomy.begin() + length);
}

// The parsers take zero-terminated text and its length (the body may hold zeros).
template <typename Parsed, typename Parse>
int ParseText(Parsed& parsed, Parse parse, const std::string& text)
{
    std::vector<char> copy(text.begin(), text.end());
    copy.push_back('\0');
    return (parsed.*parse)(copy.data(), static_cast<int>(text.size()));
}

bool HasLineBreak(const std::string& text)
{
    return text.find('\n') != std::string::npos;
}

// A surplus head (see kComparableHeads) is written back with its line breaks: it
// reads back as several heads, and a value ending in a line break even ends the
// header block early. Such messages are only checked for being built safely.
bool Comparable(const Message& message)
{
    if (message.heads.size() > kComparableHeads) {
        return false;
    }
    for (const auto& head : message.heads) {
        if (HasLineBreak(head.first) || HasLineBreak(head.second)) {
            return false;
        }
    }
    return true;
}

template <typename Parsed, typename Parse, typename Build>
void RoundTrip(const std::string& input, size_t smallSize, Parse parse, Build build)
{
    Parsed first;
    if (ParseText(first, parse, input) != 1) {
        return;
    }
    const Message original = Read(first);
    const std::string built = BuildText(first, build, smallSize);
    Parsed second;
    FUZZ_CHECK(ParseText(second, parse, built) == 1);
    const Message again = Read(second);
    FUZZ_CHECK(again.firstLine == original.firstLine);
    if (!Comparable(original)) {
        return;
    }
    FUZZ_CHECK(again.body == original.body);
    FUZZ_CHECK(again.heads.size() == original.heads.size());
    for (size_t i = 0; i < again.heads.size(); ++i) {
        FUZZ_CHECK(again.heads[i].first == original.heads[i].first);
        std::string value = " " + original.heads[i].second;  // written behind ": "
        FUZZ_CHECK(again.heads[i].second == HttpWrapper::RemoveSpace(value));
    }
}

}  // namespace

static int FuzzOneInput(const uint8_t* data, size_t size)
{
    if (size == 0) {
        return 0;
    }
    const size_t smallSize = data[0];
    const std::string input(reinterpret_cast<const char*>(data + 1), size - 1);
    RoundTrip<CProtocolRequest>(input, smallSize, &CProtocolRequest::ParseRequest, &CProtocolRequest::BuildRequest);
    RoundTrip<CProtocolResponse>(input, smallSize, &CProtocolResponse::ParseResponse,
                                 &CProtocolResponse::BuildResponse);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    OnWorkerStack::run([&] { FuzzOneInput(data, size); });
    return 0;
}
