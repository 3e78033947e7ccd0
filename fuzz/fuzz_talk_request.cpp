// The raw audio channel's request parser, fed what a client may send on the
// audio port: the framing, the request line's limits, the header map and the
// Digest user name, checked against the properties the raw session relies on.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "FuzzCheck.h"
#include "OnWorkerStack.h"
#include "talk/HttpParser.h"

using HttpWrapper::CHttpParser;

static int FuzzOneInput(const uint8_t* data, size_t size)
{
    // The session hands the parser a zero-terminated buffer.
    std::string text(reinterpret_cast<const char*>(data), size);
    const unsigned int length = static_cast<unsigned int>(text.size());

    CHttpParser framing;
    const int simple = framing.SimpleParse(text.c_str(), length);
    FUZZ_CHECK(simple == 0 || simple == 1);

    CHttpParser parser;
    const int result = parser.Parse(text.c_str(), length);
    FUZZ_CHECK(result >= -1 && result <= 1);
    if (result == 0) {
        // A request the session goes on with: whole, within the channel's limit,
        // with a method and a URL inside their bounds, found by the framing too.
        FUZZ_CHECK(simple == 0);
        FUZZ_CHECK(parser.GetHeadLen() >= 12 && parser.GetHeadLen() <= parser.GetTotalLen());
        FUZZ_CHECK(parser.GetTotalLen() <= CHttpParser::kMaxRequestSize);
        FUZZ_CHECK(static_cast<unsigned int>(parser.GetTotalLen()) <= length);
        FUZZ_CHECK(!parser.getMethod().empty() && parser.getMethod().size() <= 64);
        FUZZ_CHECK(!parser.getURL().empty() && parser.getURL().size() <= 512);
        FUZZ_CHECK(parser.getMethod().find(' ') == std::string::npos);
        FUZZ_CHECK(text.compare(0, parser.getMethod().size(), parser.getMethod()) == 0);
    }

    std::string name;
    if (parser.getAuthName(name, parser.getHttpHeadValue("Authorization"))) {
        FUZZ_CHECK(name.size() == 65);
        FUZZ_CHECK(std::strlen(name.c_str()) < 64);
    }
    std::string direct;
    if (parser.getAuthName(direct, text)) {
        FUZZ_CHECK(direct.size() == 65);
    }
    parser.Clear();
    FUZZ_CHECK(parser.GetHeadLen() == 0 && parser.getURL().empty() && parser.getMethod().empty());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    OnWorkerStack::run([&] { FuzzOneInput(data, size); });
    return 0;
}
