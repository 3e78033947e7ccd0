// The protocol plug-in, loaded by path with dlopen and used only through its
// exported entry points (include/HttpProtocolWrapper.h).
#ifndef GATEWAY_PLUGIN_LIBRARY_H
#define GATEWAY_PLUGIN_LIBRARY_H

#include <HttpProtocolWrapper.h>

#include <string>

class Logger;

class PluginLibrary {
public:
    PluginLibrary() = default;
    ~PluginLibrary();
    PluginLibrary(const PluginLibrary&) = delete;
    PluginLibrary& operator=(const PluginLibrary&) = delete;

    // False with the loader's message, or with the name of a missing entry point.
    bool load(const std::string& path, std::string& error);

    // Sends the lines of the plug-in's logging library to log (escaped there
    // like every line), until the library is unloaded; false when the plug-in
    // brings no such library, whose lines then go where WLOG_FILE says.
    bool routeLogTo(Logger& log);

    PFN_InitializeProtocolWrapper initialize = nullptr;
    PFN_UnInitializeProtocolWrapper uninitialize = nullptr;
    PFN_ProtocolWrapper_GetLastError lastError = nullptr;
    PFN_GetSupportProtocols supportedServerProtocols = nullptr;
    PFN_GetServerConnectCount serverConnectCount = nullptr;
    PFN_CreateServer createServer = nullptr;
    PFN_DestroyServer destroyServer = nullptr;

private:
    using LogOutput = void (*)(int level, const char* module, const char* text, void* user);
    using SetLogOutput = void (*)(LogOutput output, void* user);

    void* m_handle = nullptr;
    SetLogOutput m_setLogOutput = nullptr;  // set while the plug-in's lines come to a Logger
};

#endif  // GATEWAY_PLUGIN_LIBRARY_H
