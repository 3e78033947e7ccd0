// A listener on 127.0.0.1 with an ephemeral port, and a record of what its callback reported, for the
// server tests.
#ifndef NETUTILS_TEST_SERVERFIXTURE_H
#define NETUTILS_TEST_SERVERFIXTURE_H

#include "netutils/VQNetUtils.h"
#include "TestClient.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace nettest {

class ServerTest : public ::testing::Test {
protected:
    struct Request {
        int handle = -1;
        std::string body;
        std::string url;  // read inside the callback, as an owner may
    };

    void SetUp() override { ASSERT_EQ(NET_UTILS_Init(), 0); }

    void TearDown() override
    {
        destroyListen();
        std::lock_guard<std::mutex> lock(m_mutex);
        EXPECT_FALSE(m_callbackOnTestThread) << "a callback ran inside an API call";
        for (const auto& end : m_ends) {
            EXPECT_LE(end.second, 1) << "end of handle " << end.first << " reported more than once";
            NET_HTTPSERVER_Close(end.first, 1);  // most are closed by the test already: harmless
        }
        EXPECT_EQ(NET_UTILS_Fini(), 0);
    }

    // 0 takes the library's default.
    void startListen(uint32_t recvTimeoutMs = 0)
    {
        NET_HTTPSERVER_LISTEN_PARAM param{};
        param.dwRecvTimeout = recvTimeoutMs;
        startListenWith(param);
    }

    // With the time-outs and bounds of `param` (address, callback and user are the fixture's).
    void startListenWith(NET_HTTPSERVER_LISTEN_PARAM param)
    {
        strcpy(param.szAddress, "127.0.0.1");
        param.fnCallback = &ServerTest::onEvent;
        param.pUser = this;
        m_listen = NET_HTTPSERVER_CreateListen(&param);
        ASSERT_GT(m_listen, 0) << NET_UTILS_GetLastError();
        ASSERT_GT(m_port = NET_HTTPSERVER_GetListenPort(m_listen), 0);
    }

    void destroyListen()
    {
        EXPECT_TRUE(m_listen < 0 || NET_HTTPSERVER_DestroyListen(m_listen) == 0);
        m_listen = -1;
    }

    // The next request reported, or one with handle -1 after timeoutMs.
    Request waitForRequest(int timeoutMs = 5000)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        Request request;
        if (m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [this] { return !m_pending.empty(); })) {
            request = m_pending.front();
            m_pending.pop_front();
        }
        return request;
    }

    // Connects the client, sends `bytes` and waits for the request to be reported.
    Request sendRequest(TestClient& client, const std::string& bytes, int receiveBuffer = 0)
    {
        EXPECT_TRUE(client.connectTo(m_port, receiveBuffer));
        EXPECT_TRUE(client.send(bytes));
        return waitForRequest();
    }

    // How often the end of the handle was reported, after waiting up to timeoutMs for the first report.
    int endCount(int handle, int timeoutMs = 0)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return m_ends[handle] != 0; });
        return m_ends[handle];
    }

    static int stageHeader(int handle, const std::string& name, const std::string& value)
    {
        return NET_HTTPSERVER_SetParam(handle, NET_HTTPSERVER_PARAM_HEADER, name.c_str(), static_cast<int>(name.size()),
                                       value.c_str(), static_cast<int>(value.size()));
    }

    static int stageInt(int handle, int kind, int32_t value)
    {
        return NET_HTTPSERVER_SetParam(handle, kind, nullptr, 0, &value, sizeof(value));
    }

    // A one-shot reply: headers in order, body, status (0: none staged), then Reply.
    static int replyWith(int handle, int status, const std::vector<std::pair<std::string, std::string>>& headers,
                         const std::string& body)
    {
        for (const auto& header : headers) {
            stageHeader(handle, header.first, header.second);
        }
        NET_HTTPSERVER_SetParam(handle, NET_HTTPSERVER_PARAM_BODY, nullptr, 0, body.data(),
                                static_cast<int>(body.size()));
        if (status != 0) {
            stageInt(handle, NET_HTTPSERVER_PARAM_STATUS, status);
        }
        return NET_HTTPSERVER_Reply(handle, 0);
    }

    int m_port = 0;

private:
    static void onEvent(int handle, void* event, void* user)
    {
        auto* self = static_cast<ServerTest*>(user);
        const auto* record = static_cast<const NET_HTTPSERVER_EVENT*>(event);
        Request request{handle, {}, {}};
        NET_HTTPSERVER_REQUEST_PARAM block;
        if (record->dwType == NET_HTTPSERVER_EVENT_REQUEST) {
            request.body.assign(record->pData, record->dwDataLen);
            if (NET_HTTPSERVER_GetParamV2(handle, 0, 0, nullptr, 0, &block, sizeof(block)) == 0) {
                request.url = block.szUrl;
            }
        }
        std::lock_guard<std::mutex> lock(self->m_mutex);
        self->m_callbackOnTestThread |= std::this_thread::get_id() == self->m_testThread;
        if (record->dwType == NET_HTTPSERVER_EVENT_REQUEST) {
            self->m_pending.push_back(request);
            self->m_ends[handle] = 0;  // every request's handle is known from here on
        } else {
            EXPECT_GE(record->dwType, static_cast<uint32_t>(NET_HTTPSERVER_EVENT_CLOSED));
            ++self->m_ends[handle];
        }
        self->m_changed.notify_all();
    }

    long m_listen = -1;
    const std::thread::id m_testThread = std::this_thread::get_id();
    std::mutex m_mutex;  // guards everything below
    std::condition_variable m_changed;
    std::deque<Request> m_pending;
    std::map<int, int> m_ends;  // handle of each request reported: how often its end was reported
    bool m_callbackOnTestThread = false;
};

}  // namespace nettest

#endif
