// Configuration checks: every refusal names the field, so a user can fix it.
#include <gtest/gtest.h>

#include "config/CommandLine.h"
#include "config/ConfigFile.h"

namespace {

// The error for a document given as JSON text, or "" when it was accepted.
std::string refusalOf(const std::string& json)
{
    Json::Value root;
    Json::Reader().parse(json, root);
    GatewayConfig config;
    std::string error;
    return parseGatewayConfig(root, ConfigSource::kDefaults, config, error) ? std::string() : error;
}

}  // namespace

TEST(GatewayConfigFile, NoDocumentGivesOneUserOneDeviceAndTheServerUrl)
{
    GatewayConfig config;
    std::string error;
    ASSERT_TRUE(parseGatewayConfig(Json::Value(), ConfigSource::kDefaults, config, error));
    ASSERT_EQ(config.users.size(), 1u);
    ASSERT_EQ(config.devices.size(), 1u);
    EXPECT_TRUE(config.loopDelivery);
    const std::string optIns =
        "&checkTalkBacklog=1&checkRequestText=1&sendRequestTarget=1&requireTalkSessionId=1"
        "&talkGatewayRefusal=1&strictSendTimeout=1&streamAbort=1";
    const std::string bounds = "&headTimeout=10000&maxConnections=2048&maxConnectionsPerAddress=512&reserveFds=256";
    EXPECT_EQ(buildServerUrl(config),
              "http://127.0.0.1:8080?work_thread=8&sendTimeout=5000&recvTimeout=30000&audioTalkPort=8081" + optIns +
                  "&ioThreads=" + std::to_string(config.ioThreads()) + bounds);
    config.loopSendfile = true;  // loop-sendfile
    EXPECT_NE(buildServerUrl(config).find("&sendfile=1&ioThreads="), std::string::npos);
}

// Clients must know the audio port: it is never left for the plug-in to pick.
TEST(GatewayConfigFile, TheAudioPortIsTheNextOneUnlessGiven)
{
    const struct {
        std::string json;
        int http;
        int audio;
    } cases[] = {
        {"{}", 8080, 8081},
        {R"({"server":{"work_thread":2}})", 8080, 8081},
        {R"({"server":{"httpPort":9090}})", 9090, 9091},
        {R"({"server":{"httpPort":9090,"audioTalkPort":7000}})", 9090, 7000},
    };
    for (const auto& c : cases) {
        Json::Value root;
        Json::Reader().parse(c.json, root);
        root["auth"]["users"][0]["name"] = "operator";  // a file must name its users
        root["auth"]["users"][0]["password"] = "secret";
        GatewayConfig config;
        std::string error;
        ASSERT_TRUE(parseGatewayConfig(root, ConfigSource::kFile, config, error)) << c.json << ": " << error;
        EXPECT_EQ(config.httpPort, c.http) << c.json;
        EXPECT_EQ(config.audioTalkPort, c.audio) << c.json;
        EXPECT_NE(buildServerUrl(config).find("&audioTalkPort=" + std::to_string(c.audio) + "&"), std::string::npos);
    }
}

TEST(GatewayConfigFile, TheAdminEndpointOffLoopbackNeedsAToken)
{
    const std::string token = "0123456789abcdef0123";
    EXPECT_EQ(refusalOf(R"({"admin":{"listen":"127.0.0.2:9464"}})"), "");
    EXPECT_EQ(refusalOf(R"({"admin":{"listen":"[::1]:9464"}})"), "");
    EXPECT_EQ(refusalOf(R"({"admin":{"listen":"0.0.0.0:9464","token":")" + token + R"("}})"), "");
    EXPECT_EQ(refusalOf(R"({"admin":{"listen":"[::]:9464","tokenFile":"/etc/token"}})"), "");
    EXPECT_EQ(refusalOf(R"({"admin":{"listen":"0.0.0.0:9464"}})"),
              "admin.listen: 0.0.0.0:9464 is not a loopback address: set admin.token or admin.tokenFile");
    EXPECT_EQ(refusalOf(R"({"admin":{"listen":"[::]:9464"}})").compare(0, 13, "admin.listen:"), 0);
    EXPECT_EQ(refusalOf(R"({"admin":{"listen":"10.0.0.1:9464","token":"short"}})").compare(0, 12, "admin.token:"), 0);
    EXPECT_EQ(refusalOf(R"({"admin":{"listen":"0.0.0.0:9464","token":"0123456789abcdef\"x"}})")
                  .compare(0, 12, "admin.token:"),
              0);
    EXPECT_EQ(refusalOf(R"({"admin":{"listen":"0.0.0.0:9464","token":")" + token + R"(","tokenFile":"/t"}})")
                  .compare(0, 16, "admin.tokenFile:"),
              0);
}

// The console carries passwords and session cookies: off loopback only over TLS, on a port of its own.
TEST(GatewayConfigFile, ConsoleOffLoopbackNeedsACertificateAndKey)
{
    EXPECT_EQ(refusalOf(R"({"console":{"listen":"127.0.0.1:8090"}})"), "");
    EXPECT_EQ(refusalOf(R"({"console":{"listen":"0.0.0.0:8443","certificate":"/c.pem","key":"/k.pem"}})"), "");
    EXPECT_EQ(refusalOf(R"({"console":{"listen":"0.0.0.0:8443"}})"),
              "console.listen: 0.0.0.0:8443 is not a loopback address: set console.certificate and console.key");
    EXPECT_EQ(refusalOf(R"({"console":{"listen":"0.0.0.0:8443","certificate":"/c.pem"}})"),
              "console.key: give console.certificate and console.key together");
    EXPECT_EQ(refusalOf(R"({"console":{"certificate":"/c.pem"}})"),
              "console.listen: is required to turn the console on");
    EXPECT_EQ(refusalOf(R"({"console":{"listen":"127.0.0.1:8080"}})"),
              "console.listen: port 8080 is taken by another listener");
    EXPECT_EQ(refusalOf(R"({"console":{"listen":"127.0.0.1:8090","sessionMinutes":0}})")
                  .compare(0, 22, "console.sessionMinutes"),
              0);
}

TEST(GatewayConfigFile, RefusalsNameTheOffendingField)
{
    const std::string device = R"({"devIndex":"8c5b1a2e-0f4d-4e7a-9b3c-6d2e1f0a7b41")";
    const struct {
        std::string json;
        std::string expectedPrefix;
    } cases[] = {
        {R"({"server":{"htpPort":1}})", "server.htpPort: unknown field"},
        {R"({"verbose":true})", "verbose: unknown field"},
        {R"({"server":{"httpPort":70000}})", "server.httpPort: must be an integer"},
        {R"({"server":{"httpPort":"8080"}})", "server.httpPort: must be an integer"},
        {R"({"server":{"httpPort":9000,"audioTalkPort":9000}})", "server.audioTalkPort:"},
        {R"({"server":{"audioTalkPort":0}})", "server.audioTalkPort: must be an integer from 1"},
        {R"({"server":{"httpPort":65535}})", "server.audioTalkPort: must be given"},
        {R"({"admin":{"listen":"127.0.0.1:8081"}})", "admin.listen: port 8081 is the plug-in's"},
        {R"({"auth":{"users":[]}})", "auth.users: must be a non-empty array"},
        {R"({"auth":{"users":[{"name":"a:b","password":"x"}]}})", "auth.users[0].name:"},
        {R"({"auth":{"users":[{"name":"a","password":"x"},{"name":"a","password":"y"}]}})", "auth.users[1].name:"},
        {R"({"auth":{"realm":"say \"hi\""}})", "auth.realm:"},
        {R"({"media":{"devices":[{"devIndex":"short"}]}})", "media.devices[0].devIndex:"},
        {R"({"media":{"devices":[)" + device + R"(,"folder":"../etc"}]}})", "media.devices[0].folder:"},
        {R"({"media":{"devices":[)" + device + "}," + device + R"(,"folder":"b"}]}})", "media.devices[1].devIndex:"},
        {R"({"media":{"blockSize":10}})", "media.blockSize:"},
        {R"({"media":{"blockSize":16777216}})", "media.blockSize: must be at most 1048576 (1 MiB)"},
        {R"({"server":{"headTimeout":50}})", "server.headTimeout:"},
        {R"({"server":{"maxConnections":1}})", "server.maxConnections:"},
        {R"({"server":{"minDeliveryRateSeconds":1}})", "server.minDeliveryRateSeconds:"},
        {R"({"server":{"delivery":"fast"}})", "server.delivery: must be loop, loop-sendfile or blocking"},
        {R"({"log":{"level":"loud"}})", "log.level:"},
        {R"({"log":{"format":"xml"}})", "log.format:"},
        {R"({"admin":{}})", "admin.listen:"},
        {R"({"admin":{"listen":"localhost:9464"}})", "admin.listen:"},
        {R"({"admin":{"listen":"[::1]:70000"}})", "admin.listen:"},
        {R"({"admin":{"listen":"127.0.0.1:8080"}})", "admin.listen: port 8080 is the plug-in's"},
        {R"({"server":{"maxDownloads":401}})", "server.maxDownloads:"},
        {R"([1,2])", "(document): must be a JSON object"},
        {R"({"server":{"maxTalksPerUser":0}})", "server.maxTalksPerUser:"},
    };
    for (const auto& c : cases) {
        const std::string error = refusalOf(c.json);
        EXPECT_EQ(error.compare(0, c.expectedPrefix.size(), c.expectedPrefix), 0) << c.json << " gave: " << error;
    }
}

// The demo user exists only without a file: a file without users, or one
// that lost its "auth" section, is refused rather than bringing it back.
TEST(GatewayConfigFile, AFileMustNameItsUsers)
{
    for (const char* json : {R"({})", R"({"auth":{"realm":"r"}})", R"({"server":{"httpPort":9000}})"}) {
        Json::Value root;
        Json::Reader().parse(json, root);
        GatewayConfig config;
        std::string error;
        EXPECT_FALSE(parseGatewayConfig(root, ConfigSource::kFile, config, error)) << json;
        EXPECT_EQ(error.rfind("auth.users: a configuration file must name its users", 0), 0u) << error;
    }
    Json::Value root;
    Json::Reader().parse(R"({"auth":{"users":[{"name":"alice","password":"x"}]}})", root);
    GatewayConfig config;
    std::string error;
    ASSERT_TRUE(parseGatewayConfig(root, ConfigSource::kFile, config, error)) << error;
    ASSERT_EQ(config.users.size(), 1u);
    EXPECT_EQ(config.users[0].name, "alice");
}

TEST(GatewayCommandLine, OverridesLandInTheFieldsTheyNameAndAreCheckedThere)
{
    const char* argv[] = {"media-gateway", "--port", "9090",       "--media", "/tmp/m",
                          "--log-level",   "debug",  "--delivery", "blocking"};
    CommandLine commandLine;
    std::string error;
    ASSERT_TRUE(parseCommandLine(9, const_cast<char**>(argv), commandLine, error)) << error;
    Json::Value root;
    Json::Reader().parse(R"({"server":{"work_thread":3},"media":{"blockSize":4096}})", root);
    applyOverrides(root, commandLine.overrides);
    GatewayConfig config;
    ASSERT_TRUE(parseGatewayConfig(root, ConfigSource::kDefaults, config, error)) << error;
    EXPECT_EQ(config.httpPort, 9090);
    EXPECT_EQ(config.workThreads, 3);
    EXPECT_EQ(config.mediaFolder, "/tmp/m");
    EXPECT_EQ(config.blockSize, 4096);
    EXPECT_EQ(config.logLevel, 2);
    EXPECT_FALSE(config.loopDelivery);

    const char* badPort[] = {"media-gateway", "--port", "eighty"};
    ASSERT_TRUE(parseCommandLine(3, const_cast<char**>(badPort), commandLine, error));
    Json::Value fromPort;
    applyOverrides(fromPort, commandLine.overrides);
    EXPECT_FALSE(parseGatewayConfig(fromPort, ConfigSource::kDefaults, config, error));
    EXPECT_EQ(error.compare(0, 16, "server.httpPort:"), 0) << error;

    const char* unknown[] = {"media-gateway", "--prot", "1"};
    EXPECT_FALSE(parseCommandLine(3, const_cast<char**>(unknown), commandLine, error));
    const char* missing[] = {"media-gateway", "--config"};
    EXPECT_FALSE(parseCommandLine(2, const_cast<char**>(missing), commandLine, error));
}
