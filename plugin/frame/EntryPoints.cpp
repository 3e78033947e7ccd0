// The plug-in's exported entry points: what the gateway calls to initialise the
// plug-in, create and destroy its one HTTP server, and count its connections.
#include <HttpProtocolWrapper.h>

#include <string>

#include <zrt/zrt.h>

#include "frame/ErrorCodeManager.h"
#include "frame/ErrorCodes.h"
#include "frame/HttpServerWrapper.h"
#include "frame/Log.h"

using HttpWrapper::CErrorCodeManager;
using HttpWrapper::CHttpServerWrapper;
using HttpWrapper::singleton;

IProtocolWrapperUtilitySink* g_pHttpProtocolWrapperUtilitySink = nullptr;
IdentifyConfig g_identifyConfig;

namespace {

char g_httpProtocolName[] = "http";
char* g_serverProtocols[] = {g_httpProtocolName};

// The sink pointer is read by any thread that forwards a log line.
void setUtilitySink(IProtocolWrapperUtilitySink* sink)
{
    __atomic_store_n(&g_pHttpProtocolWrapperUtilitySink, sink, __ATOMIC_RELEASE);
}

// Reads one "TRUE"/other switch from the gateway. A key the gateway does not
// know leaves the flag as it was. The value string is shared between reads on
// purpose: it is not cleared in between.
void readSwitch(IProtocolWrapperUtilitySink* sink, const char* key, std::string& value, bool& flag)
{
    if (sink->GetConfigValue(key, value) == 0) {
        flag = (value == "TRUE");
    }
}

}  // namespace

extern "C" {

int InitializeProtocolWrapper(IProtocolWrapperUtilitySink* sink)
{
    singleton<CErrorCodeManager>::instance()->Init();
    if (sink == nullptr) {
        return HttpWrapper::HPW_ERR_NO_SINK;
    }
    setUtilitySink(sink);
    PROTOCOL_WRAPPER::SetLogCB(PROTOCOL_WRAPPER::pfnLogCB);

    if (ZRT_InitEx() != 0) {
        HPW_LOGE(HttpWrapper::HPW_ERR_RUNTIME_INIT,
                 "HttpProtocolWrapper InitializeProtocolWrapper fail, ZRT_InitEx fail, error:%d",
                 ZRT_GetSystemLastError());
        return HttpWrapper::HPW_ERR_RUNTIME_INIT;
    }

    std::string value;
    readSwitch(sink, "SupportSEPAuthMethod", value, g_identifyConfig.SupportSEP);
    readSwitch(sink, "SupportIdentifyToken", value, g_identifyConfig.SupportIdentifyToken);
    HPW_LOGD("Http InitializeProtocolWrapper, Identify SupportSEP=%d, SupportIdentifyToken=%d",
             g_identifyConfig.SupportSEP ? 1 : 0, g_identifyConfig.SupportIdentifyToken ? 1 : 0);

    int result = IdentifyWrapper_Init(g_identifyConfig.SupportIdentifyToken);
    if (result != 0) {
        // A failing identity library never fails the plug-in's initialisation.
        HPW_LOGE(HttpWrapper::HPW_ERR_IDENTIFY_INIT,
                 "Http InitializeProtocolWrapper fail, IdentifyWrapper_Init fail, error:%d", result);
    } else {
        HPW_LOGD("Http InitializeProtocolWrapper success");
    }
    return 0;
}

int UnInitializeProtocolWrapper()
{
    if (IdentifyWrapper_Fini(g_identifyConfig.SupportIdentifyToken) != 0) {
        HPW_LOGE(HttpWrapper::HPW_ERR_IDENTIFY_FINI, "IdentifyWrapper_Fini failed");
    }
    ZRT_FiniEx();
    HPW_LOGD("Http UnInitializeProtocolWrapper success");
    setUtilitySink(nullptr);
    singleton<CErrorCodeManager>::instance()->Fini();
    return 0;
}

int ProtocolWrapper_GetLastError()
{
    return singleton<CErrorCodeManager>::instance()->GetErrCode();
}

int GetSupportServerProtocols(char*** protocols)
{
    if (protocols != nullptr) {
        *protocols = g_serverProtocols;
    }
    return 1;
}

int GetSupportClientProtocols(char*** protocols)
{
    return 0;
}

int GetServerConnectCount(PROTOCOL_WRAPPER::IServer* server)
{
    return singleton<CHttpServerWrapper>::instance()->getSessionCount();
}

int GetClientConnectCount(void* client)
{
    return 0;
}

PROTOCOL_WRAPPER::IServer* CreateServer(const char* url, PROTOCOL_WRAPPER::IServerSink* sink,
                                        PROTOCOL_FILTER::IProtocolFilter* filterChain)
{
    if (filterChain == nullptr) {
        HPW_LOGE(HttpWrapper::HPW_ERR_NO_FILTER, "Http CreateServer fail, pFilterChain == NULL, pServerURL:%s",
                 url != nullptr ? url : "");
        return nullptr;
    }
    CHttpServerWrapper* server = singleton<CHttpServerWrapper>::instance();
    server->setProtocolFilterChain(filterChain);
    int result = server->startServer(url, sink);
    if (result != 0) {
        // What startServer started stays until DestroyServer cleans it up.
        HPW_LOGE(result, "Http CreateServer fail, start server fail, pServerURL:%s", url != nullptr ? url : "");
        return nullptr;
    }
    HPW_LOGD("Http CreateServer success");
    return server;
}

int DestroyServer(PROTOCOL_WRAPPER::IServer* server)
{
    singleton<CHttpServerWrapper>::instance()->stopServer();
    singleton<CHttpServerWrapper>::free();
    HPW_LOGD("Http DestroyServer success");
    // From here pfnLogCB forwards nothing until the next initialisation, though
    // the runtime is still started: the gateway expects this order.
    setUtilitySink(nullptr);
    return 0;
}

void* CreateClient(const char* url, void* sink, void* filterChain)
{
    HPW_LOGE(HttpWrapper::HPW_ERR_NO_CLIENT, "Http CreateClient fail, No Support");
    // The only writer of the last-error register.
    singleton<CErrorCodeManager>::instance()->SetErrCode(HttpWrapper::HPW_ERR_NO_CLIENT);
    return nullptr;
}

int DestroyClient(void* client)
{
    // Unlike CreateClient, the last error is left alone: the asymmetry is intended (Q22).
    HPW_LOGE(HttpWrapper::HPW_ERR_NO_CLIENT, "Http DestroyClient fail, No Support");
    return HttpWrapper::HPW_ERR_NO_CLIENT;
}

}  // extern "C"
