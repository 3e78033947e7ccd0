#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "util/Base64.h"

namespace {

std::string Encode(const std::string& bytes, int* result = nullptr)
{
    char* text = nullptr;
    const int length =
        base64_encode(reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()), &text);
    if (result != nullptr) {
        *result = length;
    }
    std::string encoded = text == nullptr ? std::string("<null>") : std::string(text);
    FreeEncoder(text);
    return encoded;
}

// Decodes with the strict bounded decoder; result is the return value.
std::string DecodeEx(const std::string& text, int inLen, int outSize, int& result)
{
    std::vector<unsigned char> out(64, 0xEE);
    result = base64_decode_ex(text.c_str(), inLen, out.data(), outSize);
    return result > 0 ? std::string(out.begin(), out.begin() + result) : std::string();
}

std::string Lenient(const std::string& text)
{
    std::vector<unsigned char> out(text.size() + 3);
    const int n =
        Base64Decode(reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()), out.data());
    return std::string(out.begin(), out.begin() + n);
}

}  // namespace

TEST(StrictBase64, EncodesWithPadding)
{
    int result = 0;
    EXPECT_EQ(Encode("Man", &result), "TWFu");
    EXPECT_EQ(result, 4);
    EXPECT_EQ(Encode("M"), "TQ==");
    EXPECT_EQ(Encode("Ma"), "TWE=");
    EXPECT_EQ(Encode("", &result), "");
    EXPECT_EQ(result, 0);
    EXPECT_EQ(Encode(std::string("\xfb\xff\xbf", 3)), "+/+/");

    char* text = nullptr;
    EXPECT_EQ(base64_encode(nullptr, 3, &text), -1);
    EXPECT_EQ(text, nullptr);
    FreeEncoder(nullptr);
}

TEST(StrictBase64, DecodeStopsAndFailsAsDocumented)
{
    int result = 0;
    EXPECT_EQ(DecodeEx("TWE=", 4, 64, result), "Ma");
    EXPECT_EQ(result, 2);
    DecodeEx("TWE", 3, 64, result);  // the quantum is read past inLen up to the terminator
    EXPECT_EQ(result, -1);
    DecodeEx("TW=E", 4, 64, result);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(DecodeEx("TQ==TWFu", 8, 64, result), "M");  // nothing is decoded behind padding
    EXPECT_EQ(result, 1);
    EXPECT_EQ(DecodeEx("TWFu", 4, 1, result), "M");  // surplus bytes are dropped
    EXPECT_EQ(result, 1);
    DecodeEx(" TWFu", 5, 64, result);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(DecodeEx("TWFuTWFu", 4, 64, result), "Man");  // inLen stops at a quantum start
    DecodeEx("TWF\x80", 4, 64, result);
    EXPECT_EQ(result, -1);
    DecodeEx("T===", 4, 64, result);
    EXPECT_EQ(result, -1);

    unsigned char out[8] = {0};
    EXPECT_EQ(base64_decode("TWFuTQ==", out), 4);
    EXPECT_EQ(std::memcmp(out, "ManM", 4), 0);
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
              "Man");
    EXPECT_EQ(Lenient("TWE=TWFu"), "Ma");
    EXPECT_EQ(Lenient("T"), "");
    EXPECT_EQ(Lenient(""), "");

    unsigned char out[8] = {0};
    EXPECT_EQ(Base64Encode(reinterpret_cast<const unsigned char*>("Ma"), 2, out), 4);
    EXPECT_EQ(std::memcmp(out, "TWE=", 4), 0);
}

TEST(Base64Property, BothCodecsRoundTripRandomBytes)
{
    std::mt19937 random(20240601);
    for (int round = 0; round < 300; ++round) {
        std::string bytes(random() % 64, '\0');
        for (char& c : bytes) {
            c = static_cast<char>(random() & 0xFF);
        }
        int length = 0;
        const std::string text = Encode(bytes, &length);
        ASSERT_EQ(length, static_cast<int>((bytes.size() + 2) / 3 * 4));

        std::vector<unsigned char> out(bytes.size() + 3);
        ASSERT_EQ(base64_decode_ex(text.c_str(), length, out.data(), static_cast<int>(out.size())),
                  static_cast<int>(bytes.size()));
        ASSERT_EQ(std::string(out.begin(), out.begin() + bytes.size()), bytes);
        ASSERT_EQ(base64_decode(text.c_str(), out.data()), static_cast<int>(bytes.size()));

        std::vector<unsigned char> lenientText(text.size());
        ASSERT_EQ(Base64Encode(reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()),
                               lenientText.data()),
                  length);
        ASSERT_EQ(std::string(lenientText.begin(), lenientText.end()), text);
        ASSERT_EQ(Lenient(text), bytes);
    }
}
