// The gateway's command line: a configuration file and a few overrides that
// are written into the configuration document before it is checked, so a bad
// override is refused with the name of the field it sets.
#ifndef GATEWAY_COMMAND_LINE_H
#define GATEWAY_COMMAND_LINE_H

#include <json/json.h>

#include <string>

struct CommandLine {
    bool showHelp = false;
    bool showVersion = false;  // --version
    bool writeSample = false;  // --sample
    bool strictIndex = false;  // --strict
    std::string configFile;    // empty: defaults only
    Json::Value overrides;     // same layout as the configuration file
};

// False with a message for an unknown option or a missing value.
bool parseCommandLine(int argc, char** argv, CommandLine& commandLine, std::string& error);

// Copies every member of overrides into root, object by object.
void applyOverrides(Json::Value& root, const Json::Value& overrides);

const char* commandLineUsage();

#endif  // GATEWAY_COMMAND_LINE_H
