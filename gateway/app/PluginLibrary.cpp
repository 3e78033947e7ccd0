#include "app/PluginLibrary.h"

#include <dlfcn.h>

#include "base/Logger.h"

namespace {

void writeToLogger(int level, const char* module, const char* text, void* logger)
{
    static_cast<Logger*>(logger)->write(level, module, text);
}

template <typename Function>
bool resolve(void* handle, const char* name, Function& function, std::string& error)
{
    function = reinterpret_cast<Function>(dlsym(handle, name));
    if (!function) {
        error = std::string("entry point ") + name + " is missing";
        return false;
    }
    return true;
}

}  // namespace

PluginLibrary::~PluginLibrary()
{
    if (m_setLogOutput) {
        m_setLogOutput(nullptr, nullptr);  // the Logger may go before the library's last line
    }
    if (m_handle) {
        dlclose(m_handle);
    }
}

bool PluginLibrary::load(const std::string& path, std::string& error)
{
    // NODELETE keeps the plug-in mapped until exit, so that leak reports at exit can still name its code.
    m_handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    if (!m_handle) {
        const char* reason = dlerror();
        error = reason ? reason : path + ": cannot be loaded";
        return false;
    }
    return resolve(m_handle, "InitializeProtocolWrapper", initialize, error) &&
           resolve(m_handle, "UnInitializeProtocolWrapper", uninitialize, error) &&
           resolve(m_handle, "ProtocolWrapper_GetLastError", lastError, error) &&
           resolve(m_handle, "GetSupportServerProtocols", supportedServerProtocols, error) &&
           resolve(m_handle, "GetServerConnectCount", serverConnectCount, error) &&
           resolve(m_handle, "CreateServer", createServer, error) &&
           resolve(m_handle, "DestroyServer", destroyServer, error);
}

bool PluginLibrary::routeLogTo(Logger& log)
{
    // Looked up through the plug-in's handle, which also searches the libraries it was linked with.
    m_setLogOutput = m_handle ? reinterpret_cast<SetLogOutput>(dlsym(m_handle, "wlog_set_output")) : nullptr;
    if (!m_setLogOutput) {
        return false;
    }
    m_setLogOutput(&writeToLogger, &log);
    return true;
}
