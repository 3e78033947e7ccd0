// The Render* operations over a real connection of the embedded HTTP server.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>

#include <netutils/VQNetUtils.h>

#include "errors/HttpErrorHandler.h"

using namespace HttpWrapper;

namespace {

class ResponseStatusReply : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(0, NET_UTILS_Init());
        NET_HTTPSERVER_LISTEN_PARAM param;
        memset(&param, 0, sizeof(param));
        strcpy(param.szAddress, "127.0.0.1");
        param.fnCallback = &ResponseStatusReply::onEvent;
        param.pUser = this;
        m_listen = NET_HTTPSERVER_CreateListen(&param);
        ASSERT_GT(m_listen, 0);
    }

    void TearDown() override
    {
        NET_HTTPSERVER_DestroyListen(m_listen);
        NET_UTILS_Fini();
    }

    // Sends a GET of url, lets answer reply on the connection, and returns
    // everything the client received.
    template <typename Answer>
    std::string exchange(const std::string& url, Answer answer)
    {
        int fd = socket(AF_INET, SOCK_STREAM, 0);
        timeval fiveSeconds = {5, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &fiveSeconds, sizeof(fiveSeconds));
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons((uint16_t)NET_HTTPSERVER_GetListenPort(m_listen));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        std::string request = "GET " + url + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
        std::string received;
        if (connect(fd, (sockaddr*)&address, sizeof(address)) == 0 &&
            send(fd, request.data(), request.size(), MSG_NOSIGNAL) == (ssize_t)request.size()) {
            int handle = takeRequest();
            if (handle >= 0) {
                answer(handle);
                NET_HTTPSERVER_Close(handle, 1);
                char buffer[4096];
                for (ssize_t got; (got = recv(fd, buffer, sizeof(buffer), 0)) > 0;) {
                    received.append(buffer, (size_t)got);
                }
            }
        }
        close(fd);
        return received;
    }

private:
    int takeRequest()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_arrived.wait_for(lock, std::chrono::seconds(5), [this] { return m_handle >= 0; });
        int handle = m_handle;
        m_handle = -1;
        return handle;
    }

    static void onEvent(int handle, void* event, void* user)
    {
        ResponseStatusReply* self = static_cast<ResponseStatusReply*>(user);
        if (static_cast<NET_HTTPSERVER_EVENT*>(event)->dwType == NET_HTTPSERVER_EVENT_REQUEST) {
            std::lock_guard<std::mutex> lock(self->m_mutex);
            self->m_handle = handle;
            self->m_arrived.notify_all();
        }
    }

    long m_listen = -1;
    std::mutex m_mutex;
    std::condition_variable m_arrived;
    int m_handle = -1;  // the request not yet taken
};

std::string headerLine(const std::string& line) { return "\r\n" + line + "\r\n"; }

std::string bodyOf(const std::string& reply)
{
    size_t end = reply.find("\r\n\r\n");
    return end == std::string::npos ? "<no head>" : reply.substr(end + 4);
}

}  // namespace

TEST_F(ResponseStatusReply, ClientReceivesStatusContentTypeAndDocument)
{
    CHttpErrorHandler handler;
    std::string reply = exchange("/QUMEX/x", [&](int handle) { handler.RenderJSONResponseStatus(handle, 0x40000003); });
    EXPECT_EQ(0u, reply.find("HTTP/1.1 401 ")) << reply;
    EXPECT_NE(std::string::npos, reply.find(headerLine("Content-Type: application/json"))) << reply;
    EXPECT_EQ(handler.getJSONResponseStatus(0x40000003), bodyOf(reply));

    const std::string url = "/QUMEX/System/TwoWayAudio/channels/1/open?a=1&b=2";
    reply = exchange(url, [&](int handle) { handler.renderXMLResponseStatus(handle, 0x60000001); });
    EXPECT_EQ(0u, reply.find("HTTP/1.1 400 ")) << reply;
    EXPECT_NE(std::string::npos, reply.find(headerLine("Content-Type: application/xml"))) << reply;
    EXPECT_EQ(CHttpErrorHandler::buildXMLReply(0x60000001, url).strBody, bodyOf(reply));
}
