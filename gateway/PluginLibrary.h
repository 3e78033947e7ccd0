// The protocol plug-in, loaded by path with dlopen and used only through its
// exported entry points (include/HttpProtocolWrapper.h).
#ifndef GATEWAY_PLUGIN_LIBRARY_H
#define GATEWAY_PLUGIN_LIBRARY_H

#include <HttpProtocolWrapper.h>

#include <string>

class PluginLibrary {
public:
    PluginLibrary() = default;
    ~PluginLibrary();
    PluginLibrary(const PluginLibrary&) = delete;
    PluginLibrary& operator=(const PluginLibrary&) = delete;

    // False with the loader's message, or with the name of a missing entry point.
    bool load(const std::string& path, std::string& error);

    PFN_InitializeProtocolWrapper initialize = nullptr;
    PFN_UnInitializeProtocolWrapper uninitialize = nullptr;
    PFN_ProtocolWrapper_GetLastError lastError = nullptr;
    PFN_GetSupportProtocols supportedServerProtocols = nullptr;
    PFN_GetServerConnectCount serverConnectCount = nullptr;
    PFN_CreateServer createServer = nullptr;
    PFN_DestroyServer destroyServer = nullptr;

private:
    void* m_handle = nullptr;
};

#endif  // GATEWAY_PLUGIN_LIBRARY_H
