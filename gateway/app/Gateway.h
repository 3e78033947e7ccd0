// The gateway's life from loading the plug-in to the last stream closed.
#ifndef GATEWAY_GATEWAY_H
#define GATEWAY_GATEWAY_H

#include <signal.h>

#include "config/GatewayConfig.h"
#include "ops/GatewayReload.h"

// Exit codes of the program.
constexpr int kExitStopped = 0;      // stopped by SIGINT or SIGTERM
constexpr int kExitStartFailed = 1;  // plug-in, server or admin endpoint could not start
constexpr int kExitBadSetup = 2;     // configuration, log file or media folder refused

// Blocks SIGINT, SIGTERM and SIGHUP in the calling thread, so that every thread
// started afterwards (ours and the plug-in's) inherits the mask and only the
// gateway's wait receives them. Call before any thread exists.
sigset_t blockStopSignals();

// Runs until a signal stops it; returns an exit code. SIGHUP reloads (see
// GatewayReload.h) through readConfig. SIGINT stops at once; SIGTERM first
// refuses new work and lets running downloads finish for up to
// shutdownGraceSeconds (a second SIGINT or SIGTERM cuts that short).
int runGateway(const GatewayConfig& config, const ConfigReader& readConfig, const sigset_t& signals);

#endif  // GATEWAY_GATEWAY_H
