/*
 * Exports of the HTTP protocol plug-in (libHttpProtocolWrapper.so).
 *
 * A gateway loads the library with dlopen and looks these symbols up; the
 * typedefs below are the function types to cast them to. Expected order of
 * calls: InitializeProtocolWrapper, GetSupportServerProtocols, CreateServer,
 * any number of GetServerConnectCount, DestroyServer, UnInitializeProtocolWrapper.
 */
#ifndef HTTP_PROTOCOL_WRAPPER_H
#define HTTP_PROTOCOL_WRAPPER_H

#include "ProtocolFilter.h"
#include "ProtocolWrapper.h"

#define HPW_EXPORT __attribute__((visibility("default")))

// Identity switches read from the gateway at initialisation.
struct IdentifyConfig {
    bool SupportSEP;            // "SupportSEPAuthMethod" == "TRUE"
    bool SupportIdentifyToken;  // "SupportIdentifyToken" == "TRUE"
    IdentifyConfig() : SupportSEP(false), SupportIdentifyToken(false) {}
};

extern "C" {
HPW_EXPORT int InitializeProtocolWrapper(IProtocolWrapperUtilitySink* sink);
HPW_EXPORT int UnInitializeProtocolWrapper();
HPW_EXPORT int ProtocolWrapper_GetLastError();
HPW_EXPORT int GetSupportServerProtocols(char*** protocols);
HPW_EXPORT int GetSupportClientProtocols(char*** protocols);
HPW_EXPORT int GetServerConnectCount(PROTOCOL_WRAPPER::IServer* server);
HPW_EXPORT int GetClientConnectCount(void* client);
HPW_EXPORT PROTOCOL_WRAPPER::IServer* CreateServer(const char* url, PROTOCOL_WRAPPER::IServerSink* sink,
                                                   PROTOCOL_FILTER::IProtocolFilter* filterChain);
HPW_EXPORT int DestroyServer(PROTOCOL_WRAPPER::IServer* server);
HPW_EXPORT void* CreateClient(const char* url, void* sink, void* filterChain);
HPW_EXPORT int DestroyClient(void* client);

// Base64: strict codec with an allocated encoder output ...
HPW_EXPORT int base64_encode(const unsigned char* in, int len, char** out);
HPW_EXPORT void FreeEncoder(char* p);
HPW_EXPORT int base64_decode_ex(const char* in, int inLen, unsigned char* out, int outSize);
HPW_EXPORT int base64_decode(const char* in, unsigned char* out);
// ... and lenient codec on caller buffers.
HPW_EXPORT int Base64Encode(const unsigned char* in, int len, unsigned char* out);
HPW_EXPORT int Base64Decode(const unsigned char* in, int len, unsigned char* out);

HPW_EXPORT extern IProtocolWrapperUtilitySink* g_pHttpProtocolWrapperUtilitySink;
HPW_EXPORT extern IdentifyConfig g_identifyConfig;
// Process-wide send backlog limit of the audio transmitters; 65535 = not set.
HPW_EXPORT extern unsigned short g_iIocpDeepNum;
}

namespace PROTOCOL_WRAPPER {
typedef void (*LogCallback)(int level, const char* module, const char* text);
// Stores the first callback given; later calls change nothing.
HPW_EXPORT void SetLogCB(LogCallback cb);
// Forwards a log line to the gateway's utility sink while one is installed.
HPW_EXPORT void pfnLogCB(int level, const char* module, const char* text);
}  // namespace PROTOCOL_WRAPPER

// Identity tokens (Base64 text), switched by "SupportIdentifyToken".
HPW_EXPORT int IdentifyWrapper_Init(bool enabled);
HPW_EXPORT int IdentifyWrapper_Fini(bool enabled);
HPW_EXPORT int IdentifyWrapper_Check(const char* token, bool enabled);
HPW_EXPORT int IdentifyWrapper_Apply(char* out, int outSize, int& outLen, bool enabled);

// Function types for dlsym.
typedef int (*PFN_InitializeProtocolWrapper)(IProtocolWrapperUtilitySink*);
typedef int (*PFN_UnInitializeProtocolWrapper)();
typedef int (*PFN_ProtocolWrapper_GetLastError)();
typedef int (*PFN_GetSupportProtocols)(char***);
typedef int (*PFN_GetServerConnectCount)(PROTOCOL_WRAPPER::IServer*);
typedef int (*PFN_GetClientConnectCount)(void*);
typedef PROTOCOL_WRAPPER::IServer* (*PFN_CreateServer)(const char*, PROTOCOL_WRAPPER::IServerSink*,
                                                       PROTOCOL_FILTER::IProtocolFilter*);
typedef int (*PFN_DestroyServer)(PROTOCOL_WRAPPER::IServer*);
typedef void* (*PFN_CreateClient)(const char*, void*, void*);
typedef int (*PFN_DestroyClient)(void*);

#endif  // HTTP_PROTOCOL_WRAPPER_H
