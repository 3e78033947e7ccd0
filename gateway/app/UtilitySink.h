// The gateway's utility sink, handed to the plug-in at initialisation: the
// plug-in reads its settings ("AuthRealm", "SupportSEPAuthMethod",
// "SupportIdentifyToken") through it and writes its log lines into ours.
// The plug-in answers a request without credentials itself, with a Digest
// challenge the gateway never sees; but it asks for "AuthRealm" exactly when it
// writes one (on the HTTP port and on the audio channel alike, and at no other
// time), so each such ask is counted as a challenge sent.
#ifndef GATEWAY_UTILITY_SINK_H
#define GATEWAY_UTILITY_SINK_H

#include <ProtocolWrapper.h>

#include <map>
#include <string>

#include "config/GatewayConfig.h"

class GatewayMetrics;
class Logger;

class UtilitySink : public IProtocolWrapperUtilitySink {
public:
    UtilitySink(const GatewayConfig& config, GatewayMetrics& metrics, Logger& log);

    const char* GetGatewayName() override;
    // 0 when the key is known and value was written; -1 otherwise.
    int GetConfigValue(const std::string& key, std::string& value) override;
    // The settings are the configuration file's; they do not change at run time.
    int SetConfigValue(const std::string& key, const std::string& value) override;
    int GetLogLevel() override;
    void OutputLog(int level, const char* module, const char* text) override;

private:
    const std::map<std::string, std::string> m_values;  // read-only after construction
    GatewayMetrics& m_metrics;
    Logger& m_log;
};

#endif  // GATEWAY_UTILITY_SINK_H
