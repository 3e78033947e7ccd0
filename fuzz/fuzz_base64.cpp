// Both Base64 codecs of the plug-in.
//
// The input is decoded as text by the strict decoders (bounded and unbounded, into
// buffers of exactly the size the codec can fill) and by the lenient decoder, and
// encoded as bytes by both encoders, whose output must decode back to the input.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "FuzzCheck.h"
#include "OnWorkerStack.h"
#include "util/Base64.h"

namespace {

// Exactly n bytes on the heap, so that the sanitizer sees a write past them.
std::vector<unsigned char> Room(size_t n)
{
    return std::vector<unsigned char>(n);
}

void StrictDecode(const uint8_t* data, size_t size)
{
    if (size == 0) {
        return;
    }
    // The first byte bounds the output of the bounded decoder; the rest is the text.
    const int outSize = data[0];
    std::vector<char> text(reinterpret_cast<const char*>(data + 1), reinterpret_cast<const char*>(data + size));
    text.push_back('\0');
    const size_t textLength = strlen(text.data());

    // A quantum of four characters gives at most three bytes, and only whole quanta decode.
    const size_t most = textLength / 4 * 3;
    std::vector<unsigned char> unbounded = Room(most == 0 ? 1 : most);
    const int all = base64_decode(text.data(), unbounded.data());
    FUZZ_CHECK(all >= -1 && all <= static_cast<int>(most));

    std::vector<unsigned char> bounded = Room(outSize == 0 ? 1 : outSize);
    const int some = base64_decode_ex(text.data(), static_cast<int>(textLength), bounded.data(), outSize);
    // Bounded by the whole text, the decoder reads what the unbounded one reads and
    // keeps as many of those bytes as fit.
    if (all < 0) {
        FUZZ_CHECK(some == -1);
    } else {
        FUZZ_CHECK(some == std::min(all, outSize));
        FUZZ_CHECK(memcmp(bounded.data(), unbounded.data(), static_cast<size_t>(some)) == 0);
    }
}

void StrictRoundTrip(const uint8_t* data, size_t size)
{
    char* text = nullptr;
    const int length = base64_encode(data, static_cast<int>(size), &text);
    FUZZ_CHECK(length == static_cast<int>((size + 2) / 3 * 4) && text != nullptr);
    FUZZ_CHECK(strlen(text) == static_cast<size_t>(length));
    std::vector<unsigned char> back = Room(size == 0 ? 1 : size);
    FUZZ_CHECK(base64_decode(text, back.data()) == static_cast<int>(size));
    FUZZ_CHECK(memcmp(back.data(), data, size) == 0);
    FreeEncoder(text);
}

void LenientDecode(const uint8_t* data, size_t size)
{
    // Every byte is skipped or a sextet; four sextets give three bytes.
    const size_t most = size * 3 / 4;
    std::vector<unsigned char> out = Room(most == 0 ? 1 : most);
    const int n = Base64Decode(data, static_cast<int>(size), out.data());
    FUZZ_CHECK(n >= 0 && static_cast<size_t>(n) <= most);
}

void LenientRoundTrip(const uint8_t* data, size_t size)
{
    const size_t textLength = (size + 2) / 3 * 4;
    std::vector<unsigned char> text = Room(textLength == 0 ? 1 : textLength);
    FUZZ_CHECK(Base64Encode(data, static_cast<int>(size), text.data()) == static_cast<int>(textLength));
    std::vector<unsigned char> back = Room(size == 0 ? 1 : size);
    FUZZ_CHECK(Base64Decode(text.data(), static_cast<int>(textLength), back.data()) == static_cast<int>(size));
    FUZZ_CHECK(memcmp(back.data(), data, size) == 0);
}

}  // namespace

static int FuzzOneInput(const uint8_t* data, size_t size)
{
    StrictDecode(data, size);
    StrictRoundTrip(data, size);
    LenientDecode(data, size);
    LenientRoundTrip(data, size);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    OnWorkerStack::run([&] { FuzzOneInput(data, size); });
    return 0;
}
