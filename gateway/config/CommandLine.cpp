#include "config/CommandLine.h"

namespace {

// A number stays a number so that range checks apply; anything else stays text
// and is then refused by the configuration check with the field's name.
Json::Value numberOrText(const std::string& text)
{
    if (!text.empty() && text.size() <= 9 && text.find_first_not_of("0123456789") == std::string::npos) {
        return Json::Value(std::stoi(text));
    }
    return Json::Value(text);
}

}  // namespace

const char* commandLineUsage()
{
    return "Usage: media-gateway [options]\n"
           "  --config FILE       JSON configuration (every field optional)\n"
           "  --port N            server.httpPort\n"
           "  --audio-port N      server.audioTalkPort (the two-way audio channel)\n"
           "  --media DIR         media.folder\n"
           "  --status-file FILE  statusFile\n"
           "  --plugin FILE       plugin (path of libHttpProtocolWrapper.so)\n"
           "  --log-file FILE     log.file\n"
           "  --log-level LEVEL   log.level: debug, info, warn or error\n"
           "  --access-log FILE   log.access (one line per download and talk)\n"
           "  --admin HOST:PORT   admin.listen (/metrics, /healthz, /recordings), e.g. 127.0.0.1:9464\n"
           "  --delivery MODE     server.delivery: loop (the plug-in's event loops send files, the\n"
           "                      default), loop-sendfile (the same with sendfile)\n"
           "                      or blocking (a thread per download sends blocks)\n"
           "  --console HOST:PORT console.listen (the operator's web page), e.g. 127.0.0.1:8090\n"
           "  --sample            write a sample recording per device into an empty media folder\n"
           "                      (creating it); without it a missing media folder is an error\n"
           "  --strict            refuse to start on a bad entry of a recordings index\n"
           "                      (without it the entry is logged and skipped)\n"
           "  --version           the version (as its package names it) and the build\n"
           "  --help              this text\n";
}

bool parseCommandLine(int argc, char** argv, CommandLine& commandLine, std::string& error)
{
    static const char* const kOptionsWithValue[] = {"--config",      "--port",   "--audio-port", "--media",
                                                    "--status-file", "--plugin", "--log-file",   "--log-level",
                                                    "--access-log",  "--admin",  "--delivery",   "--console"};
    commandLine = CommandLine();
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        if (option == "--help" || option == "-h") {
            commandLine.showHelp = true;
            continue;
        }
        if (option == "--version") {
            commandLine.showVersion = true;
            continue;
        }
        if (option == "--sample" || option == "--strict") {
            (option == "--sample" ? commandLine.writeSample : commandLine.strictIndex) = true;
            continue;
        }
        bool known = false;
        for (const char* candidate : kOptionsWithValue) {
            known = known || option == candidate;
        }
        if (!known) {
            error = "unknown option " + option;
            return false;
        }
        if (i + 1 >= argc) {
            error = option + " needs a value";
            return false;
        }
        const std::string value = argv[++i];
        Json::Value& overrides = commandLine.overrides;
        if (option == "--config") {
            commandLine.configFile = value;
        } else if (option == "--port") {
            overrides["server"]["httpPort"] = numberOrText(value);
        } else if (option == "--audio-port") {
            overrides["server"]["audioTalkPort"] = numberOrText(value);
        } else if (option == "--media") {
            overrides["media"]["folder"] = value;
        } else if (option == "--status-file") {
            overrides["statusFile"] = value;
        } else if (option == "--plugin") {
            overrides["plugin"] = value;
        } else if (option == "--log-file") {
            overrides["log"]["file"] = value;
        } else if (option == "--access-log") {
            overrides["log"]["access"] = value;
        } else if (option == "--admin") {
            overrides["admin"]["listen"] = value;
        } else if (option == "--delivery") {
            overrides["server"]["delivery"] = value;
        } else if (option == "--console") {
            overrides["console"]["listen"] = value;
        } else {
            overrides["log"]["level"] = value;
        }
    }
    return true;
}

void applyOverrides(Json::Value& root, const Json::Value& overrides)
{
    if (!overrides.isObject()) {
        return;
    }
    if (root.isNull()) {
        root = Json::Value(Json::objectValue);
    }
    for (const std::string& name : overrides.getMemberNames()) {
        const Json::Value& value = overrides[name];
        if (value.isObject() && root.isObject() && root[name].isObject()) {
            applyOverrides(root[name], value);
        } else if (root.isObject()) {
            root[name] = value;
        }
    }
}
