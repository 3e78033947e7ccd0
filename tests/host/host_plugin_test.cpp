// Drives the plug-in the way a gateway does: dlopen by path, then only the
// exported entry points and the interfaces of include/.
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <HttpProtocolWrapper.h>

namespace {

class RecordingSink : public IProtocolWrapperUtilitySink {
public:
    const char* GetGatewayName() override { return "host-test"; }
    int GetConfigValue(const std::string& key, std::string& value) override
    {
        auto found = config.find(key);
        if (found == config.end()) {
            return -1;
        }
        value = found->second;
        return 0;
    }
    int SetConfigValue(const std::string& key, const std::string& value) override { return -1; }
    int GetLogLevel() override { return 2; }
    void OutputLog(int level, const char* module, const char* text) override
    {
        std::lock_guard<std::mutex> guard(lock);
        lines.push_back(std::string(module) + "|" + text);
    }
    size_t lineCount()
    {
        std::lock_guard<std::mutex> guard(lock);
        return lines.size();
    }

    std::map<std::string, std::string> config;
    std::mutex lock;
    std::vector<std::string> lines;
};

class AcceptAllFilter : public PROTOCOL_FILTER::IProtocolFilter {
public:
    int Request(PROTOCOL_FILTER::IProtocolRequest*, int, PROTOCOL_FILTER::IConnectContext*) override { return 0; }
    int Response(PROTOCOL_FILTER::IProtocolResponse*, int, PROTOCOL_FILTER::IConnectContext*) override { return 0; }
};

class NullServerSink : public PROTOCOL_WRAPPER::IServerSink {
public:
    int OnOpen(const char*, const char*, PROTOCOL_WRAPPER::IServerData*, void**) override { return -1; }
    int OnClose(void*) override { return 0; }
    int pushStream(void*) override { return 0; }
    int OnStart(void*, int) override { return 0; }
    int OnStop(void*, int) override { return 0; }
    int OnInputData(void*, int, int, void*, int) override { return 0; }
};

// The plug-in, loaded once for the whole suite as a gateway does.
class Plugin {
public:
    Plugin()
    {
        handle = dlopen(PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL);
        if (handle == nullptr) {
            fprintf(stderr, "dlopen: %s\n", dlerror());
        }
    }
    template <typename T>
    T sym(const char* name)
    {
        return reinterpret_cast<T>(dlsym(handle, name));
    }
    void* handle = nullptr;
};

Plugin& plugin()
{
    static Plugin loaded;
    return loaded;
}

std::set<std::string> exportedSymbols()
{
    std::set<std::string> names;
    std::string command = std::string("nm -D --defined-only --demangle ") + PLUGIN_PATH;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return names;
    }
    char line[1024];
    while (fgets(line, sizeof line, pipe) != nullptr) {
        std::string text = line;
        if (!text.empty() && text.back() == '\n') {
            text.pop_back();
        }
        // "<address> <type> <name>": the name may contain blanks once demangled.
        size_t first = text.find(' ');
        size_t second = first == std::string::npos ? first : text.find(' ', first + 1);
        if (second != std::string::npos) {
            names.insert(text.substr(second + 1));
        }
    }
    pclose(pipe);
    return names;
}

}  // namespace

TEST(PluginHost, ExportTableIsExactlyTheGatewayInterface)
{
    std::set<std::string> expected = {
        "InitializeProtocolWrapper",
        "UnInitializeProtocolWrapper",
        "ProtocolWrapper_GetLastError",
        "GetSupportServerProtocols",
        "GetSupportClientProtocols",
        "GetServerConnectCount",
        "GetClientConnectCount",
        "CreateServer",
        "DestroyServer",
        "CreateClient",
        "DestroyClient",
        "base64_encode",
        "base64_decode",
        "base64_decode_ex",
        "Base64Encode",
        "Base64Decode",
        "FreeEncoder",
        "g_pHttpProtocolWrapperUtilitySink",
        "g_identifyConfig",
        "g_iIocpDeepNum",
        "PROTOCOL_WRAPPER::SetLogCB(void (*)(int, char const*, char const*))",
        "PROTOCOL_WRAPPER::pfnLogCB(int, char const*, char const*)",
        "IdentifyWrapper_Init(bool)",
        "IdentifyWrapper_Fini(bool)",
        "IdentifyWrapper_Check(char const*, bool)",
        "IdentifyWrapper_Apply(char*, int, int&, bool)",
    };
    EXPECT_EQ(exportedSymbols(), expected);
}

TEST(PluginHost, LifecycleThroughTheExportedInterface)
{
    ASSERT_NE(plugin().handle, nullptr);
    auto initialize = plugin().sym<PFN_InitializeProtocolWrapper>("InitializeProtocolWrapper");
    auto uninitialize = plugin().sym<PFN_UnInitializeProtocolWrapper>("UnInitializeProtocolWrapper");
    auto lastError = plugin().sym<PFN_ProtocolWrapper_GetLastError>("ProtocolWrapper_GetLastError");
    auto serverProtocols = plugin().sym<PFN_GetSupportProtocols>("GetSupportServerProtocols");
    auto clientProtocols = plugin().sym<PFN_GetSupportProtocols>("GetSupportClientProtocols");
    auto createServer = plugin().sym<PFN_CreateServer>("CreateServer");
    auto destroyServer = plugin().sym<PFN_DestroyServer>("DestroyServer");
    auto connectCount = plugin().sym<PFN_GetServerConnectCount>("GetServerConnectCount");
    auto clientCount = plugin().sym<PFN_GetClientConnectCount>("GetClientConnectCount");
    auto createClient = plugin().sym<PFN_CreateClient>("CreateClient");
    auto destroyClient = plugin().sym<PFN_DestroyClient>("DestroyClient");
    auto* identifyConfig = plugin().sym<IdentifyConfig*>("g_identifyConfig");
    auto logForward = plugin().sym<void (*)(int, const char*, const char*)>("_ZN16PROTOCOL_WRAPPER8pfnLogCBEiPKcS1_");
    auto apply = plugin().sym<int (*)(char*, int, int&, bool)>("_Z21IdentifyWrapper_ApplyPciRib");
    auto check = plugin().sym<int (*)(const char*, bool)>("_Z21IdentifyWrapper_CheckPKcb");
    ASSERT_TRUE(initialize && uninitialize && lastError && serverProtocols && clientProtocols && createServer &&
                destroyServer && connectCount && clientCount && createClient && destroyClient && identifyConfig &&
                logForward && apply && check);

    EXPECT_EQ(initialize(nullptr), 0x193085E);

    char keyFile[] = "/tmp/host_identify_key_XXXXXX";
    int fd = mkstemp(keyFile);
    ASSERT_GE(fd, 0);
    close(fd);
    unlink(keyFile);  // the identity library creates it on first use
    setenv("IDENTIFY_KEY_FILE", keyFile, 1);

    RecordingSink sink;
    sink.config["SupportSEPAuthMethod"] = "true";  // only "TRUE" switches it on
    sink.config["SupportIdentifyToken"] = "TRUE";
    ASSERT_EQ(initialize(&sink), 0);
    EXPECT_FALSE(identifyConfig->SupportSEP);
    EXPECT_TRUE(identifyConfig->SupportIdentifyToken);

    char** protocols = nullptr;
    ASSERT_EQ(serverProtocols(&protocols), 1);
    EXPECT_STREQ(protocols[0], "http");
    char** none = nullptr;
    EXPECT_EQ(clientProtocols(&none), 0);
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(clientCount(nullptr), 0);

    // The last error is per thread: CreateClient sets it on its own thread only.
    EXPECT_EQ(createClient("x", nullptr, nullptr), nullptr);
    EXPECT_EQ(lastError(), 0x19308C3);
    int otherThreadError = -1;
    std::thread other([&] { otherThreadError = lastError(); });
    other.join();
    EXPECT_EQ(otherThreadError, 0);
    EXPECT_EQ(destroyClient(nullptr), 0x19308C3);

    // Identity tokens round-trip through the exported adapter.
    char token[512];
    int tokenLength = 0;
    ASSERT_EQ(apply(token, sizeof token, tokenLength, true), 0);
    ASSERT_GT(tokenLength, 0);
    EXPECT_EQ(check(std::string(token, tokenLength).c_str(), true), 0);

    // Log lines of other gateway modules reach the sink until DestroyServer.
    logForward(3, "TEST", "before");
    EXPECT_EQ(sink.lineCount(), 1u);

    AcceptAllFilter filter;
    NullServerSink serverSink;
    EXPECT_EQ(createServer("http://127.0.0.1:0", &serverSink, nullptr), nullptr);
    PROTOCOL_WRAPPER::IServer* server = createServer("http://127.0.0.1:0?work_thread=2", &serverSink, &filter);
    ASSERT_NE(server, nullptr);
    EXPECT_EQ(connectCount(server), 0);
    EXPECT_EQ(server->Start(), 0);
    EXPECT_EQ(server->Send(nullptr, 0, 2, nullptr, 0), 0x1930811);
    EXPECT_EQ(destroyServer(server), 0);
    logForward(3, "TEST", "after");
    EXPECT_EQ(sink.lineCount(), 1u);

    EXPECT_EQ(uninitialize(), 0);
    unlink(keyFile);
}
