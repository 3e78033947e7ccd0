#include "auth/Identity.h"

#include <new>

#include <HttpProtocolWrapper.h>

#include "frame/ErrorCodes.h"
#include "frame/Log.h"

namespace HttpWrapper {

namespace {

const char kIdentifyLibrary[] = "libIdentify.so";
// Far larger than any token the library issues; its size answer is not used.
constexpr int kApplyBufferSize = 10240;

}  // namespace

CIdentity::~CIdentity()
{
    Fini();
}

bool CIdentity::Init()
{
    ZRT_Guard guard(m_mutex);
    if (m_bInit) {
        return true;
    }
    HPW_LOGD("desc: load Identify [%s]", kIdentifyLibrary);
    // A library left loaded by a failed attempt is used again rather than
    // loaded a second time, so one unload in Fini balances it.
    if (m_hIdentifyDll == nullptr) {
        // The bare name: the system's library search path picks the folder.
        m_hIdentifyDll = ZRT_LoadDSo(kIdentifyLibrary);
        if (m_hIdentifyDll == nullptr) {
            HPW_LOGE(HPW_ERR_IDENTIFY_LOAD, "desc: load Identify.dll/so error, errcode_e: %d",
                     ZRT_GetSystemLastError());
            return false;
        }
    }
    m_fpIdentify_Init = reinterpret_cast<PFN_Identify_Init>(ZRT_GetDsoSym(m_hIdentifyDll, "Identify_Init"));
    m_fpIdentify_Fini = reinterpret_cast<PFN_Identify_Fini>(ZRT_GetDsoSym(m_hIdentifyDll, "Identify_Fini"));
    m_fpIdentify_Apply = reinterpret_cast<PFN_Identify_Apply>(ZRT_GetDsoSym(m_hIdentifyDll, "Identify_Apply"));
    m_fpIdentify_Check = reinterpret_cast<PFN_Identify_Check>(ZRT_GetDsoSym(m_hIdentifyDll, "Identify_Check"));
    if (m_fpIdentify_Init == nullptr || m_fpIdentify_Fini == nullptr || m_fpIdentify_Apply == nullptr ||
        m_fpIdentify_Check == nullptr) {
        HPW_LOGE(HPW_ERR_IDENTIFY_SYMBOL, "desc: GetDllAddr error, errcode_e: %d", ZRT_GetSystemLastError());
        return false;
    }
    const int result = m_fpIdentify_Init();
    if (result != 0) {
        HPW_LOGE(HPW_ERR_IDENTIFY_CALL, "Init Identify.dll error, errcode_e: %d", result);
        return false;
    }
    m_bInit = true;
    return true;
}

bool CIdentity::Fini()
{
    ZRT_Guard guard(m_mutex);
    if (!m_bInit) {
        return true;
    }
    if (m_fpIdentify_Fini != nullptr) {
        m_fpIdentify_Fini();
    }
    // Every entry point dies with the unloaded library, not only Fini's:
    // Apply and Check must find none rather than call into freed code.
    m_fpIdentify_Init = nullptr;
    m_fpIdentify_Fini = nullptr;
    m_fpIdentify_Apply = nullptr;
    m_fpIdentify_Check = nullptr;
    ZRT_UnloadDSo(m_hIdentifyDll);
    m_hIdentifyDll = nullptr;
    m_bInit = false;
    return true;
}

bool CIdentity::Apply(std::string& token)
{
    ZRT_Guard guard(m_mutex);
    if (m_fpIdentify_Apply == nullptr) {
        return false;
    }
    unsigned char raw[kApplyBufferSize];
    int rawLength = kApplyBufferSize;
    if (m_fpIdentify_Apply(0, 0, raw, &rawLength) != 0) {
        HPW_LOGE(HPW_ERR_IDENTIFY_CALL, "m_fpIdentify_Apply error");
        return false;
    }
    char* text = nullptr;
    const int textLength = base64_encode(raw, rawLength, &text);
    // A token the encoder could not turn into text is no token at all.
    if (text == nullptr || textLength <= 0) {
        FreeEncoder(text);
        return false;
    }
    token.assign(text, static_cast<size_t>(textLength));
    FreeEncoder(text);
    return true;
}

bool CIdentity::Check(const std::string& token)
{
    ZRT_Guard guard(m_mutex);
    unsigned char* raw = new (std::nothrow) unsigned char[token.size() + 1]();
    if (raw == nullptr) {
        return false;
    }
    const int rawLength = base64_decode(token.c_str(), raw);
    const bool accepted =
        rawLength > 0 && m_fpIdentify_Check != nullptr && m_fpIdentify_Check(0, 0, raw, rawLength) == 0;
    delete[] raw;
    return accepted;
}

}  // namespace HttpWrapper
