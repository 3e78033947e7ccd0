#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "util/Base64.h"

namespace {

const unsigned char* Bytes(const std::string& s)
{
    return reinterpret_cast<const unsigned char*>(s.data());
}

std::string Encode(const std::string& bytes, int* result = nullptr)
{
    char* text = nullptr;
    const int length = base64_encode(Bytes(bytes), static_cast<int>(bytes.size()), &text);
    if (result != nullptr) {
        *result = length;
    }
    const std::string encoded = text == nullptr ? "<null>" : text;
    FreeEncoder(text);
    return encoded;
}

std::string Lenient(const std::string& text)
{
    std::vector<unsigned char> out(text.size() + 3);
    const int n = Base64Decode(Bytes(text), static_cast<int>(text.size()), out.data());
    return std::string(out.begin(), out.begin() + n);
}

}  // namespace

TEST(StrictBase64, EncodesTheStandardAlphabetWithPadding)
{
    EXPECT_EQ(Encode("M"), "TQ==");
    EXPECT_EQ(Encode("Ma"), "TWE=");
    EXPECT_EQ(Encode(std::string("\xfb\xff\xbf", 3)), "+/+/");
    char* text = nullptr;
    EXPECT_EQ(base64_encode(nullptr, 3, &text), -1);
    EXPECT_EQ(text, nullptr);
}

// The strict decoders stop at the first character that cannot start a quantum,
// refuse a malformed one with -1, and never decode behind padding.
TEST(StrictBase64, DecodeStopsAndFailsAsDocumented)
{
    const struct {
        const char* text;
        int inLen, outSize, result;
        const char *bytes, *why;
    } cases[] = {
        {"TWE=", 4, 64, 2, "Ma", "padded"},
        {"TWE", 3, 64, -1, "", "the quantum is read past inLen up to the terminator"},
        {"TW=E", 4, 64, -1, "", "data behind padding in a quantum"},
        {"TQ==TWFu", 8, 64, 1, "M", "nothing is decoded behind padding"},
        {"TWFu", 4, 1, 1, "M", "surplus bytes are dropped"},
        {" TWFu", 5, 64, 0, "", "no quantum starts at a blank"},
        {"TWFuTWFu", 4, 64, 3, "Man", "inLen stops at a quantum start"},
        {"TWF\x80", 4, 64, -1, "", "not ASCII"},
        {"T===", 4, 64, -1, "", "padding too early"},
    };
    for (const auto& c : cases) {
        std::vector<unsigned char> out(64, 0xEE);
        const int result = base64_decode_ex(c.text, c.inLen, out.data(), c.outSize);
        EXPECT_EQ(result, c.result) << c.why;
        EXPECT_EQ(std::string(out.begin(), out.begin() + (result > 0 ? result : 0)), c.bytes) << c.why;
    }
    unsigned char out[8] = {0};
    EXPECT_EQ(base64_decode("TWFuTQ==", out), 4);
    EXPECT_EQ(std::string(out, out + 4), "ManM");
    EXPECT_EQ(base64_decode("", out), 0);
    EXPECT_EQ(base64_decode("TWFuT", out), -1);
    EXPECT_EQ(base64_decode(nullptr, out), -1);
}

TEST(LenientBase64, SkipsNoiseAndStopsAtPadding)
{
    EXPECT_EQ(Lenient("TW\nFu"), "Man");
    EXPECT_EQ(Lenient("TQ=="), "M");
    EXPECT_EQ(Lenient("=T W\x80\xff"
                      "Fu"),
              "Man");  // a "=" before the second sextet is noise, not padding
    EXPECT_EQ(Lenient("TWE=TWFu"), "Ma");
    EXPECT_EQ(Lenient("T"), "");
}

TEST(Base64Property, BothCodecsRoundTripRandomBytes)
{
    std::mt19937 random(20240601);
    for (int round = 0; round < 300; ++round) {
        std::string bytes(random() % 64, '\0');
        for (char& c : bytes) {
            c = static_cast<char>(random() & 0xFF);
        }
        const int size = static_cast<int>(bytes.size());
        int length = 0;
        const std::string text = Encode(bytes, &length);
        ASSERT_EQ(length, (size + 2) / 3 * 4);

        std::vector<unsigned char> out(bytes.size() + 3);
        ASSERT_EQ(base64_decode_ex(text.c_str(), length, out.data(), static_cast<int>(out.size())), size);
        ASSERT_EQ(std::string(out.begin(), out.begin() + size), bytes);
        ASSERT_EQ(base64_decode(text.c_str(), out.data()), size);

        std::vector<unsigned char> lenientText(text.size());
        ASSERT_EQ(Base64Encode(Bytes(bytes), size, lenientText.data()), length);
        ASSERT_EQ(std::string(lenientText.begin(), lenientText.end()), text);
        ASSERT_EQ(Lenient(text), bytes);
    }
}
