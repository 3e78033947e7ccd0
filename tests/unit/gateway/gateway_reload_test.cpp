// SIGHUP's reload: devices come and go with the configuration, all or nothing,
// and whoever holds the previous devices keeps them unchanged.
#include <gtest/gtest.h>

#include "ops/AccessLog.h"
#include "config/ConfigFile.h"
#include "auth/DigestAuthenticator.h"
#include "base/GatewayMetrics.h"
#include "ops/GatewayReload.h"
#include "media/MediaCatalog.h"
#include "talk/TalkDevices.h"
#include "media_fixture.h"

namespace {

const char kLobby[] = "aaaaaaaa-0f4d-4e7a-9b3c-6d2e1f0a7b41";
const char kYard[] = "bbbbbbbb-0f4d-4e7a-9b3c-6d2e1f0a7b41";
const char kGate[] = "cccccccc-0f4d-4e7a-9b3c-6d2e1f0a7b41";
const char kIndex[] =
    R"({"recordings":[{"name":"a.bin","starttime":"20260101T000000Z","endtime":"20260101T001000Z"}]})";

class GatewayReloadTest : public MediaFixture {
protected:
    // The running gateway's devices, users and recordings, as at start.
    void start(const std::string& devicesJson)
    {
        ASSERT_TRUE(readConfig(devicesJson, running, error)) << error;
        auto library = std::make_shared<MediaLibrary>();
        ASSERT_TRUE(library->load(folder, running.devices, log, error)) << error;
        catalog.replace(std::move(library));
        ASSERT_TRUE(talks.load(running, log, error)) << error;
    }

    bool readConfig(const std::string& devicesJson, GatewayConfig& config, std::string& problem)
    {
        Json::Value root;
        EXPECT_TRUE(Json::Reader().parse(R"({"auth":{"users":[{"name":"admin","password":"x"}]},"media":{"folder":")" +
                                             folder + R"(","devices":[)" + devicesJson + "]}}",
                                         root));
        return parseGatewayConfig(root, ConfigSource::kFile, config, problem);
    }

    bool reload(const std::string& devicesJson)
    {
        const ConfigReader reader = [this, devicesJson](GatewayConfig& config, std::string& problem) {
            return readConfig(devicesJson, config, problem);
        };
        return reloadGateway(reader, running, ReloadTargets{authenticator, catalog, talks, accessLog, metrics, log});
    }

    std::string error;
    GatewayConfig running;
    MediaCatalog catalog;
    TalkDevices talks;
    GatewayMetrics metrics;
    AccessLog accessLog{metrics, log};
    DigestAuthenticator authenticator{"realm", {}, 300, [] { return int64_t{0}; }, 0};
};

std::string deviceJson(const char* devIndex, int rtspPort, const std::string& talk = "")
{
    return std::string(R"({"devIndex":")") + devIndex + R"(","rtspPort":)" + std::to_string(rtspPort) +
           (talk.empty() ? "" : R"(,"talk":)" + talk) + "}";
}

}  // namespace

TEST_F(GatewayReloadTest, AddedDevicesServeAtOnceAndRemovedOnesLeaveHoldersTheirCopy)
{
    addDevice(device(kLobby, 554), kIndex, {{"a.bin", "lobby"}});
    addDevice(device(kYard, 555), kIndex, {{"a.bin", "yard"}});
    start(deviceJson(kLobby, 554) + "," + deviceJson(kYard, 555));
    ASSERT_EQ(talks.current()->byChannel(2)->devIndex, kYard);
    const std::shared_ptr<const MediaLibrary> heldLibrary = catalog.current();  // as a running download holds it
    const std::shared_ptr<const TalkDeviceSet> heldTalks = talks.current();     // as a talk being set up holds it

    // The yard goes, the gate comes on a channel and an address of its own.
    addDevice(device(kGate, 556), kIndex, {{"a.bin", "gate"}});
    ASSERT_TRUE(reload(deviceJson(kLobby, 554, R"({"channel":1})") + "," +
                       deviceJson(kGate, 556, R"({"channel":7,"codec":"PCMA"})")));
    EXPECT_EQ(metrics.reloads(true), 1u);
    const std::shared_ptr<const MediaLibrary> now = catalog.current();
    EXPECT_EQ(now->findByIndex(kYard), nullptr);
    ASSERT_NE(now->findByAddress("127.0.0.1", 556), nullptr);
    EXPECT_EQ(now->findByAddress("127.0.0.1", 556)->recordings.size(), 1u);
    EXPECT_EQ(talks.current()->byChannel(2), nullptr);
    ASSERT_NE(talks.current()->byChannel(7), nullptr);
    EXPECT_STREQ(talks.current()->byChannel(7)->codec->name, "PCMA");
    // What was taken before the reload is as it was.
    EXPECT_NE(heldLibrary->findByIndex(kYard), nullptr);
    EXPECT_EQ(heldTalks->byChannel(2)->devIndex, kYard);
}

TEST_F(GatewayReloadTest, AReloadThatFailsAnywhereChangesNoDeviceAtAll)
{
    addDevice(device(kLobby, 554), kIndex, {{"a.bin", "lobby"}});
    addDevice(device(kGate, 556), kIndex, {{"a.bin", "gate"}});
    start(deviceJson(kLobby, 554));
    const std::shared_ptr<const MediaLibrary> before = catalog.current();
    const std::shared_ptr<const TalkDeviceSet> talkingBefore = talks.current();

    // Each is refused as a whole: the gate, whose recordings and talk would be
    // fine on their own, does not serve after any of them.
    const std::string refused[] = {
        // the gate's talk audio cannot be read (read after every index)
        deviceJson(kLobby, 554) + "," + deviceJson(kGate, 556, R"({"source":"/nonexistent/gate.wav"})"),
        // the same address and RTSP port as the lobby
        deviceJson(kLobby, 554) + "," + deviceJson(kGate, 554),
        // the lobby's talk channel
        deviceJson(kLobby, 554) + "," + deviceJson(kGate, 556, R"({"channel":1})"),
        // the lobby again
        deviceJson(kLobby, 554) + "," + deviceJson(kLobby, 556),
    };
    for (const std::string& devices : refused) {
        EXPECT_FALSE(reload(devices)) << devices;
        EXPECT_EQ(catalog.current(), before) << devices;
        EXPECT_EQ(talks.current(), talkingBefore) << devices;
    }
    EXPECT_EQ(metrics.reloads(false), 4u);
    EXPECT_EQ(metrics.reloads(true), 0u);
}
