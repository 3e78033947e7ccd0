// The exported identity-token functions: a thin layer over the identity
// library that carries tokens as Base64 text. The gateway's other modules call
// Check and Apply; InitializeProtocolWrapper and UnInitializeProtocolWrapper
// call Init and Fini. Every function is switched by the "SupportIdentifyToken"
// setting the caller hands in. No lock is needed: the library is thread-safe
// and the adapter keeps no state.
#include <string.h>

#include <new>

#include <HttpProtocolWrapper.h>
#include <identify/Identify.h>
#include <zrt/zrt.h>

#include "auth/IdentityCodes.h"

using namespace HttpWrapper;

int IdentifyWrapper_Init(bool enabled)
{
    if (!enabled) {
        return 0;
    }
    return Identify_Init();
}

int IdentifyWrapper_Fini(bool enabled)
{
    if (!enabled) {
        return 0;
    }
    return Identify_Fini();
}

int IdentifyWrapper_Check(const char* token, bool enabled)
{
    // With tokens switched off every token passes, a missing one included.
    if (!enabled) {
        return 0;
    }
    if (token == nullptr || token[0] == '\0') {
        return IDW_ERR_NO_TOKEN;
    }
    // Base64 text decodes to at most three bytes per four characters, so the
    // text's length is always room enough.
    const size_t textLength = strlen(token);
    unsigned char* raw = new (std::nothrow) unsigned char[textLength + 1];
    if (raw == nullptr) {
        return IDW_ERR_NO_MEMORY;
    }
    const int rawLength = base64_decode(token, raw);
    if (rawLength < 0) {
        delete[] raw;
        return IDW_ERR_BAD_BASE64;
    }
    const int result = Identify_Check(0, 0, raw, rawLength);
    delete[] raw;
    return result;
}

int IdentifyWrapper_Apply(char* out, int outSize, int& outLen, bool enabled)
{
    // Unlike Check, Apply fails while tokens are switched off: there is no
    // token to hand out. The asymmetry is intended (Q23).
    if (!enabled) {
        return IDW_ERR_TOKENS_OFF;
    }
    if (out == nullptr || outSize <= 0) {
        return IDW_ERR_OUT_BUFFER;
    }
    // About three quarters of outSize: the most raw bytes whose Base64 text
    // can fit into the caller's buffer.
    int rawSize = (outSize >> 1) + (outSize >> 2);
    unsigned char* raw = new (std::nothrow) unsigned char[rawSize];
    if (raw == nullptr) {
        return IDW_ERR_NO_MEMORY;
    }
    const int result = Identify_Apply(0, 0, raw, &rawSize);
    if (result == IDENTIFY_E_BUFFER_SMALL) {
        delete[] raw;
        // Intended (Q23): a positive size, not an error code. The library wrote back
        // the raw length it needs; the caller must offer its Base64 length.
        return (rawSize / 3 + 1) * 4;
    }
    if (result == 0) {
        char* text = nullptr;
        const int textLength = base64_encode(raw, rawSize, &text);
        if (text == nullptr || textLength <= 0) {
            FreeEncoder(text);
            delete[] raw;
            return IDW_ERR_ENCODE;
        }
        if (textLength > outSize) {
            FreeEncoder(text);
            delete[] raw;
            return IDW_ERR_OUT_BUFFER;
        }
        // Exactly the text's length: a text that fills the buffer leaves no
        // room for a terminator, so callers go by outLen.
        ZRT_Strncpy(out, text, static_cast<size_t>(textLength));
        outLen = textLength;
        FreeEncoder(text);
    }
    delete[] raw;
    return result;
}
