#include "util/Base64.h"

#include <array>
#include <climits>
#include <cstdlib>

namespace {

// constexpr, not just const: the decoding tables below read it at compile time,
// and the language allows that only for a constexpr array (GCC accepts const).
constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
const char kPad = '=';

// Decoding tables for the codes 0 to 127: an alphabet character maps to its
// value, every other code to -1. The strict codec uses 32-bit entries and the
// lenient one 8-bit entries; both are filled from the alphabet at compile time.
template <typename Entry>
constexpr std::array<Entry, 128> MakeDecodeTable()
{
    std::array<Entry, 128> table{};
    for (std::size_t code = 0; code < table.size(); ++code) {
        table[code] = -1;
    }
    for (int value = 0; value < 64; ++value) {
        table[static_cast<unsigned char>(kAlphabet[value])] = static_cast<Entry>(value);
    }
    return table;
}

constexpr std::array<int, 128> kStrictTable = MakeDecodeTable<int>();
constexpr std::array<signed char, 128> kLenientTable = MakeDecodeTable<signed char>();

// Codes of 128 and above are never looked up: they are not Base64 characters.
int StrictValue(char c)
{
    const unsigned char code = static_cast<unsigned char>(c);
    return code < 128 ? kStrictTable[code] : -1;
}

int LenientValue(unsigned char code)
{
    return code < 128 ? kLenientTable[code] : -1;
}

// Writes 4 characters per group of up to 3 bytes, padding the last group.
// Returns the number of characters written (no terminator).
long long EncodeGroups(const unsigned char* in, int len, char* out)
{
    long long written = 0;
    for (int i = 0; i < len; i += 3) {
        const int remaining = len - i;
        const unsigned int b0 = in[i];
        const unsigned int b1 = remaining > 1 ? in[i + 1] : 0u;
        const unsigned int b2 = remaining > 2 ? in[i + 2] : 0u;
        const unsigned int triple = (b0 << 16) | (b1 << 8) | b2;
        out[written++] = kAlphabet[(triple >> 18) & 0x3F];
        out[written++] = kAlphabet[(triple >> 12) & 0x3F];
        out[written++] = remaining > 1 ? kAlphabet[(triple >> 6) & 0x3F] : kPad;
        out[written++] = remaining > 2 ? kAlphabet[triple & 0x3F] : kPad;
    }
    return written;
}

// The strict decoder behind base64_decode_ex and base64_decode. A negative
// inLen or outSize means "no bound". Each quantum is read as four characters,
// one after the other, and reading stops at the first character that is not
// acceptable, so a zero-terminated input is never read past its terminator.
int DecodeStrict(const char* in, long long inLen, unsigned char* out, long long outSize)
{
    if (in == nullptr || out == nullptr) {
        return -1;
    }
    int written = 0;
    int padding = 0;
    for (long long q = 0;; q += 4) {
        // A quantum that follows a padded one is never decoded: the padding
        // ends the text, whatever comes after it.
        if ((inLen >= 0 && q >= inLen) || padding > 0 || in[q] == '\0') {
            return written;
        }
        const int v0 = StrictValue(in[q]);
        if (v0 < 0) {
            return written;
        }
        const int v1 = StrictValue(in[q + 1]);
        if (v1 < 0) {
            return -1;
        }
        int v2 = 0;
        if (in[q + 2] == kPad) {
            padding = 1;
        } else if ((v2 = StrictValue(in[q + 2])) < 0) {
            return -1;
        }
        int v3 = 0;
        if (in[q + 3] == kPad) {
            ++padding;
        } else if (padding > 0) {
            return -1;  // "x=" followed by data is malformed
        } else if ((v3 = StrictValue(in[q + 3])) < 0) {
            return -1;
        }
        const unsigned int triple = (static_cast<unsigned int>(v0) << 18) | (static_cast<unsigned int>(v1) << 12) |
                                    (static_cast<unsigned int>(v2) << 6) | static_cast<unsigned int>(v3);
        const unsigned char bytes[3] = {static_cast<unsigned char>(triple >> 16),
                                        static_cast<unsigned char>(triple >> 8), static_cast<unsigned char>(triple)};
        const int count = 3 - padding;
        for (int k = 0; k < count; ++k) {
            // Bytes beyond the caller's room are dropped while decoding goes on.
            if (outSize < 0 || written < outSize) {
                out[written++] = bytes[k];
            }
        }
    }
}

// Reads the next character that maps to a sextet. Returns the sextet, -1 at
// the end of the input, or -2 for a "=" when padding ends the text.
int NextSextet(const unsigned char* in, int len, int& i, bool padEnds)
{
    while (i < len) {
        const unsigned char c = in[i++];
        if (padEnds && c == kPad) {
            return -2;
        }
        const int value = LenientValue(c);
        if (value >= 0) {
            return value;
        }
    }
    return -1;
}

}  // namespace

extern "C" {

HPW_EXPORT int base64_encode(const unsigned char* in, int len, char** out)
{
    // A negative length has no encoding; it is refused like a null input.
    if (len < 0 || out == nullptr) {
        return -1;
    }
    const long long size = (4LL * len) / 3 + 4;
    if (size - 1 > INT_MAX) {
        return -1;  // the text length would not fit the result
    }
    char* text = static_cast<char*>(std::malloc(static_cast<std::size_t>(size)));
    if (text == nullptr) {
        return -1;
    }
    if (in == nullptr) {
        std::free(text);
        return -1;
    }
    const long long length = EncodeGroups(in, len, text);
    text[length] = '\0';
    *out = text;
    return static_cast<int>(length);
}

HPW_EXPORT void FreeEncoder(char* p)
{
    std::free(p);
}

HPW_EXPORT int base64_decode_ex(const char* in, int inLen, unsigned char* out, int outSize)
{
    // Negative bounds mean "unbounded" inside; here they count as empty: no
    // quantum starts below a negative length and no byte fits a negative room.
    return DecodeStrict(in, inLen < 0 ? 0 : inLen, out, outSize < 0 ? 0 : outSize);
}

HPW_EXPORT int base64_decode(const char* in, unsigned char* out)
{
    return DecodeStrict(in, -1, out, -1);
}

HPW_EXPORT int Base64Encode(const unsigned char* in, int len, unsigned char* out)
{
    if (in == nullptr || out == nullptr || len <= 0) {
        return 0;
    }
    return static_cast<int>(EncodeGroups(in, len, reinterpret_cast<char*>(out)));
}

HPW_EXPORT int Base64Decode(const unsigned char* in, int len, unsigned char* out)
{
    if (in == nullptr || out == nullptr) {
        return 0;
    }
    int n = 0;
    int i = 0;
    while (i < len) {
        // The first two sextets skip everything outside the alphabet, "="
        // included; from the third on a "=" ends the text.
        const int first = NextSextet(in, len, i, false);
        if (first < 0) {
            return n;
        }
        const int second = NextSextet(in, len, i, false);
        if (second < 0) {
            return n;
        }
        out[n++] = static_cast<unsigned char>((first << 2) | ((second & 0x30) >> 4));
        const int third = NextSextet(in, len, i, true);
        if (third < 0) {
            return n;
        }
        out[n++] = static_cast<unsigned char>(((second & 0x0F) << 4) | ((third & 0x3C) >> 2));
        const int fourth = NextSextet(in, len, i, true);
        if (fourth < 0) {
            return n;
        }
        out[n++] = static_cast<unsigned char>(((third & 0x03) << 6) | fourth);
    }
    return n;
}

}  // extern "C"
