#include "app/UtilitySink.h"

#include "base/GatewayMetrics.h"
#include "base/Logger.h"

namespace {

std::map<std::string, std::string> settingsOf(const GatewayConfig& config)
{
    // The plug-in compares the two identity switches with "TRUE" exactly.
    return {
        {"AuthRealm", config.realm},
        {"SupportSEPAuthMethod", config.supportSepAuthMethod ? "TRUE" : "FALSE"},
        {"SupportIdentifyToken", config.supportIdentifyToken ? "TRUE" : "FALSE"},
        {"HttpPort", std::to_string(config.httpPort)},
        {"NonceLifetimeSeconds", std::to_string(config.nonceLifetimeSeconds)},
        {"MediaFolder", config.mediaFolder},
    };
}

}  // namespace

UtilitySink::UtilitySink(const GatewayConfig& config, GatewayMetrics& metrics, Logger& log)
    : m_values(settingsOf(config)), m_metrics(metrics), m_log(log)
{
}

const char* UtilitySink::GetGatewayName()
{
    return "media-gateway";
}

int UtilitySink::GetConfigValue(const std::string& key, std::string& value)
{
    auto found = m_values.find(key);
    if (found == m_values.end()) {
        m_log.logf(kLogDebug, "plug-in asked for unknown setting \"%s\"", key.c_str());
        return -1;
    }
    value = found->second;
    if (key == "AuthRealm") {
        m_metrics.challengeIssued();
    }
    return 0;
}

int UtilitySink::SetConfigValue(const std::string& key, const std::string& value)
{
    return -1;
}

int UtilitySink::GetLogLevel()
{
    return m_log.level();
}

void UtilitySink::OutputLog(int level, const char* module, const char* text)
{
    m_log.write(level, module ? module : "plug-in", text);
}
