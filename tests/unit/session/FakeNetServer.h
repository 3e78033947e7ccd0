// A stand-in for the embedded HTTP server's reply interface inside the session
// tests: this binary defines the NET_HTTPSERVER_* calls the sessions make, so a
// test sees exactly what was staged and decides what each Reply writes.
#ifndef TESTS_UNIT_SESSION_FAKENETSERVER_H
#define TESTS_UNIT_SESSION_FAKENETSERVER_H

#include <deque>
#include <map>
#include <string>
#include <vector>

#include <netutils/VQNetUtils.h>

using Staged = std::vector<std::string>;

struct FakeNetServer {
    static FakeNetServer& instance();
    void reset() { *this = FakeNetServer(); }

    // Request side.
    NET_HTTPSERVER_REQUEST_PARAM params = {};
    std::map<std::string, std::string> headers;  // exact names
    bool paramsFail = false;

    // Reply side: what was staged since the last Reply ("status 500",
    // "timeout 5000", "stream", "Name: value"; bodies go to `body`), what each
    // Reply took, and per Reply what the test lets it write: a byte count, or
    // -1; absent entries write everything.
    Staged staged;
    std::string body;
    std::vector<Staged> replies;
    std::deque<int> replyPlan;
    std::string wire;         // body bytes "written", in order
    int setParamFailAt = -1;  // the n-th SetParam call fails (0-based); -1 never
    int setParamCalls = 0;
};

#endif  // TESTS_UNIT_SESSION_FAKENETSERVER_H
