#include "FakeNetServer.h"

#include <string.h>

FakeNetServer& FakeNetServer::instance()
{
    static FakeNetServer server;
    return server;
}

void FakeNetServer::reset()
{
    *this = FakeNetServer();
}

std::string FakeNetServer::headerOf(size_t reply, const std::string& name) const
{
    for (const StagedItem& item : replies.at(reply)) {
        if (item.kind == NET_HTTPSERVER_PARAM_HEADER && item.name == name) {
            return item.value;
        }
    }
    return "<none>";
}

bool FakeNetServer::hasKind(size_t reply, int kind) const
{
    for (const StagedItem& item : replies.at(reply)) {
        if (item.kind == kind) {
            return true;
        }
    }
    return false;
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
    StagedItem item;
    item.kind = kind;
    item.name = name != nullptr ? std::string(name, static_cast<size_t>(nameLength)) : "";
    if (value != nullptr && valueLength > 0) {
        item.value.assign(static_cast<const char*>(value), static_cast<size_t>(valueLength));
    }
    server.staged.push_back(item);
    return 0;
}

int NET_HTTPSERVER_Reply(int handle, int flags)
{
    FakeNetServer& server = FakeNetServer::instance();
    std::string body;
    for (const StagedItem& item : server.staged) {
        if (item.kind == NET_HTTPSERVER_PARAM_BODY) {
            body += item.value;
        }
    }
    server.replies.push_back(server.staged);
    server.staged.clear();
    int written = static_cast<int>(body.size());
    if (!server.replyPlan.empty()) {
        written = server.replyPlan.front();
        server.replyPlan.pop_front();
    }
    if (written > 0) {
        server.wire.append(body, 0, static_cast<size_t>(written));
    }
    return written;
}

int NET_HTTPSERVER_Close(int handle, int flush)
{
    return 0;
}

}  // extern "C"
