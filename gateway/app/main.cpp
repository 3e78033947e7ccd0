// media-gateway: the reference gateway host of the HTTP protocol plug-in.
// It loads the plug-in, checks every request's Digest credentials, serves
// recordings from a media folder, plays talking devices for two-way audio and
// stops cleanly on SIGINT or SIGTERM; SIGHUP reloads users, devices and recordings.
#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "config/CommandLine.h"
#include "config/ConfigFile.h"
#include "app/Gateway.h"
#include "ops/MetricsText.h"

namespace {

std::string executableDir()
{
    char path[4096];
    ssize_t length = readlink("/proc/self/exe", path, sizeof(path) - 1);
    if (length <= 0) {
        return ".";
    }
    std::string file(path, static_cast<size_t>(length));
    size_t slash = file.rfind('/');
    return slash == std::string::npos ? "." : file.substr(0, slash);
}

// A download's records are made on one thread and freed on another, and each
// allocating thread may get a heap of its own (eight per core by default) whose
// free room stays resident: with 400 downloads that was 15 KiB more per download
// than with a heap per core. MALLOC_ARENA_MAX, when set, still decides.
void boundHeaps()
{
    if (getenv("MALLOC_ARENA_MAX") == nullptr) {
        const long cores = sysconf(_SC_NPROCESSORS_ONLN);
        mallopt(M_ARENA_MAX, static_cast<int>(cores > 2 ? cores : 2));
    }
}

int refuse(const std::string& message, bool withUsage)
{
    fprintf(stderr, "media-gateway: %s\n%s", message.c_str(), withUsage ? commandLineUsage() : "");
    return kExitBadSetup;
}

}  // namespace

int main(int argc, char** argv)
{
    boundHeaps();
    const sigset_t signals = blockStopSignals();

    CommandLine commandLine;
    std::string error;
    if (!parseCommandLine(argc, argv, commandLine, error)) {
        return refuse(error, true);
    }
    if (commandLine.showHelp) {
        fputs(commandLineUsage(), stdout);
        return 0;
    }
    if (commandLine.showVersion) {
        const BuildInfo build = currentBuildInfo();
        printf("media-gateway %s\nrevision %s, built with %s\n", build.version.c_str(), build.revision.c_str(),
               build.compiler.c_str());
        return 0;
    }
    const std::string programDir = executableDir();
    // The same reading at start and on every SIGHUP, command-line overrides included.
    const ConfigReader readConfig = [&commandLine, &programDir](GatewayConfig& config, std::string& problem) {
        Json::Value document;
        if (!commandLine.configFile.empty() && !readConfigFile(commandLine.configFile, document, problem)) {
            problem = "configuration " + problem;
            return false;
        }
        applyOverrides(document, commandLine.overrides);
        const ConfigSource source = commandLine.configFile.empty() ? ConfigSource::kDefaults : ConfigSource::kFile;
        if (!parseGatewayConfig(document, source, config, problem)) {
            problem = "configuration refused: " + problem;
            return false;
        }
        // The built-in media folder (build/media in a build tree) is the demo's:
        // it gets the sample as --sample asks for it.
        config.writeSample = commandLine.writeSample || config.mediaFolder.empty();
        config.strictIndex = commandLine.strictIndex;
        fillDefaultPaths(config, programDir);
        return true;
    };
    GatewayConfig config;
    try {
        if (!readConfig(config, error)) {
            return refuse(error, false);
        }
    } catch (const std::exception& failure) {
        return refuse(std::string("configuration refused: ") + failure.what(), false);
    }
    return runGateway(config, readConfig, signals);
}
