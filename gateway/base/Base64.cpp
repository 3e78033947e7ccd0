#include "base/Base64.h"

#include <openssl/evp.h>

#include <cstring>

// OpenSSL's block coder does the work; its decoder is lenient (blanks, padding
// in the middle), so the text is checked against the strict form first.
std::string base64Encode(const std::string& bytes)
{
    std::string text(4 * ((bytes.size() + 2) / 3) + 1, '\0');
    int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&text[0]),
                                 reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()));
    text.resize(static_cast<size_t>(length));
    return text;
}

bool base64Decode(const std::string& text, std::string& bytes)
{
    static const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    if (text.size() % 4 != 0) {
        return false;
    }
    size_t padding = 0;
    while (padding < 2 && padding < text.size() && text[text.size() - 1 - padding] == '=') {
        ++padding;
    }
    for (size_t i = 0; i < text.size() - padding; ++i) {
        if (text[i] == '\0' || strchr(kAlphabet, text[i]) == nullptr) {
            return false;
        }
    }
    bytes.assign(text.size() / 4 * 3, '\0');
    int length = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(&bytes[0]),
                                 reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()));
    if (length < 0) {
        return false;
    }
    // The block decoder counts the padding as bytes of zero.
    bytes.resize(static_cast<size_t>(length) - padding);
    return true;
}
