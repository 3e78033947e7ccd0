// The REST error numbers the plug-in answers with, named once. Each is a row
// of the error table: its top four bits give the status group, which gives the
// HTTP status of the ResponseStatus answer.
#ifndef HTTPWRAPPER_ERRORS_RESTERRORCODES_H
#define HTTPWRAPPER_ERRORS_RESTERRORCODES_H

#include <zrt/zrt.h>

namespace HttpWrapper {

constexpr ZRT_UINT32 kRestSuccess = 1;                 // "ok": a talk closed
constexpr ZRT_UINT32 kRestInternalError = 0x30000014;  // the general fallback of every answer
// "badAuthorization": the one number whose HTTP status differs between the
// lookups (401 from getHttpStatusCodeByErrorNo, 403 from the group).
constexpr ZRT_UINT32 kRestBadAuthorization = 0x40000003;
constexpr ZRT_UINT32 kRestInvalidOperation = 0x40000006;    // unknown URL, talk already open or not found
constexpr ZRT_UINT32 kRestReachDownloadLimit = 0x4000A009;  // 400 downloads running
constexpr ZRT_UINT32 kRestReachTalkLimit = 0x4000118A;      // 100 talks open
constexpr ZRT_UINT32 kRestBadJsonFormat = 0x50000002;
constexpr ZRT_UINT32 kRestBadUrlFormat = 0x50000003;
constexpr ZRT_UINT32 kRestBadParameters = 0x60000001;

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_ERRORS_RESTERRORCODES_H
