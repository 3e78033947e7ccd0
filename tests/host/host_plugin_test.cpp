// Drives the plug-in the way a gateway does: dlopen by path, then only the
// exported entry points and the interfaces of include/.
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <set>
#include <string>
#include <thread>

#include "FakeGateway.h"  // its utility sink only: header-only

namespace {

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
void* plugin()
{
    static void* const handle = dlopen(PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL);
    return handle;
}

template <typename T>
T sym(const char* name)
{
    return reinterpret_cast<T>(dlsym(plugin(), name));
}

// The names of the dynamic symbol table, demangled, one a line.
std::set<std::string> exportedSymbols()
{
    std::set<std::string> names;
    FILE* pipe =
        popen((std::string("nm -D --defined-only --demangle --format=just-symbols ") + PLUGIN_PATH).c_str(), "r");
    char line[1024];
    while (pipe != nullptr && fgets(line, sizeof line, pipe) != nullptr) {
        names.insert(std::string(line, strcspn(line, "\n")));
    }
    if (pipe != nullptr) {
        pclose(pipe);
    }
    return names;
}

}  // namespace

TEST(PluginHost, ExportTableIsExactlyTheGatewayInterface)
{
    std::set<std::string> expected = {"InitializeProtocolWrapper",
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
                                      "IdentifyWrapper_Apply(char*, int, int&, bool)"};
    EXPECT_EQ(exportedSymbols(), expected);
}

TEST(PluginHost, LifecycleThroughTheExportedInterface)
{
    ASSERT_NE(plugin(), nullptr) << dlerror();
    auto initialize = sym<PFN_InitializeProtocolWrapper>("InitializeProtocolWrapper");
    auto uninitialize = sym<PFN_UnInitializeProtocolWrapper>("UnInitializeProtocolWrapper");
    auto lastError = sym<PFN_ProtocolWrapper_GetLastError>("ProtocolWrapper_GetLastError");
    auto createServer = sym<PFN_CreateServer>("CreateServer");
    auto destroyServer = sym<PFN_DestroyServer>("DestroyServer");
    auto connectCount = sym<PFN_GetServerConnectCount>("GetServerConnectCount");
    auto createClient = sym<PFN_CreateClient>("CreateClient");
    auto* identifyConfig = sym<IdentifyConfig*>("g_identifyConfig");
    auto logForward = sym<void (*)(int, const char*, const char*)>("_ZN16PROTOCOL_WRAPPER8pfnLogCBEiPKcS1_");
    auto apply = sym<int (*)(char*, int, int&, bool)>("_Z21IdentifyWrapper_ApplyPciRib");
    auto check = sym<int (*)(const char*, bool)>("_Z21IdentifyWrapper_CheckPKcb");
    ASSERT_TRUE(initialize && uninitialize && lastError && createServer && destroyServer && connectCount &&
                createClient && identifyConfig && logForward && apply && check);

    EXPECT_EQ(initialize(nullptr), 0x193085E);

    // The identity library creates its key file on first use.
    const std::string keyFile = ::testing::TempDir() + "host-identify-key-" + std::to_string(getpid());
    setenv("IDENTIFY_KEY_FILE", keyFile.c_str(), 1);

    TestUtilitySink sink;
    sink.config["SupportSEPAuthMethod"] = "true";  // only "TRUE" switches it on
    sink.config["SupportIdentifyToken"] = "TRUE";
    ASSERT_EQ(initialize(&sink), 0);
    EXPECT_FALSE(identifyConfig->SupportSEP);
    EXPECT_TRUE(identifyConfig->SupportIdentifyToken);

    // The last error is per thread: CreateClient sets it on its own thread only.
    EXPECT_EQ(createClient("x", nullptr, nullptr), nullptr);
    EXPECT_EQ(lastError(), 0x19308C3);
    int otherThreadError = -1;
    std::thread other([&] { otherThreadError = lastError(); });
    other.join();
    EXPECT_EQ(otherThreadError, 0);
    // DestroyClient answers the same code but leaves the last error alone
    // (docs/compatibility.md, Q22).
    auto destroyClient = sym<PFN_DestroyClient>("DestroyClient");
    std::thread destroying([&] { otherThreadError = destroyClient(nullptr) == 0x19308C3 ? lastError() : -1; });
    destroying.join();
    EXPECT_EQ(otherThreadError, 0);

    // "SupportIdentifyToken" started the identity library: a token round-trips.
    char token[512];
    int tokenLength = 0;
    ASSERT_EQ(apply(token, sizeof token, tokenLength, true), 0);
    EXPECT_EQ(check(std::string(token, tokenLength).c_str(), true), 0);

    // Log lines of other gateway modules reach the sink until DestroyServer.
    logForward(3, "TEST", "before");
    EXPECT_EQ(sink.lines.load(), 1);

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
    EXPECT_EQ(sink.lines.load(), 1);

    EXPECT_EQ(uninitialize(), 0);
    unlink(keyFile.c_str());
}
