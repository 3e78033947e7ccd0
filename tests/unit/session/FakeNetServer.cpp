#include "FakeNetServer.h"

#include <string.h>

#include <algorithm>

FakeNetServer& FakeNetServer::instance()
{
    static FakeNetServer server;
    return server;
}

extern "C" {

int NET_HTTPSERVER_GetParamV2(int handle, int type, int subType, const char* name, int nameLength, void* buffer,
                              int size)
{
    FakeNetServer& server = FakeNetServer::instance();
    if (server.paramsFail) {
        return -1;
    }
    if (subType == NET_HTTPSERVER_SUB_PARAMS) {
        if (size < static_cast<int>(sizeof server.params)) {
            return -1;
        }
        memcpy(buffer, &server.params, sizeof server.params);
        return 0;
    }
    auto found = server.headers.find(std::string(name, static_cast<size_t>(nameLength)));
    if (found == server.headers.end() || static_cast<int>(found->second.size()) + 1 > size) {
        return -1;
    }
    memcpy(buffer, found->second.c_str(), found->second.size() + 1);
    return 0;
}

int NET_HTTPSERVER_SetParam(int handle, int kind, const char* name, int nameLength, const void* value, int valueLength)
{
    FakeNetServer& server = FakeNetServer::instance();
    if (server.setParamCalls++ == server.setParamFailAt) {
        return -1;
    }
    std::string text = value != nullptr ? std::string(static_cast<const char*>(value), static_cast<size_t>(valueLength))
                                        : std::string();
    int number = 0;
    memcpy(&number, text.data(), std::min<size_t>(text.size(), sizeof number));
    switch (kind) {
    case NET_HTTPSERVER_PARAM_BODY: server.body += text; break;
    case NET_HTTPSERVER_PARAM_STATUS: server.staged.push_back("status " + std::to_string(number)); break;
    case NET_HTTPSERVER_PARAM_SEND_TIMEOUT: server.staged.push_back("timeout " + std::to_string(number)); break;
    case NET_HTTPSERVER_PARAM_STREAM: server.staged.push_back("stream"); break;
    default: server.staged.push_back(std::string(name, static_cast<size_t>(nameLength)) + ": " + text); break;
    }
    return 0;
}

int NET_HTTPSERVER_Reply(int handle, int flags)
{
    FakeNetServer& server = FakeNetServer::instance();
    server.replies.push_back(server.staged);
    server.staged.clear();
    int written = static_cast<int>(server.body.size());
    if (!server.replyPlan.empty()) {
        written = server.replyPlan.front();
        server.replyPlan.pop_front();
    }
    server.wire.append(server.body, 0, static_cast<size_t>(written > 0 ? written : 0));
    server.body.clear();
    return written;
}

int NET_HTTPSERVER_Close(int handle, int flush)
{
    return 0;
}

}  // extern "C"
