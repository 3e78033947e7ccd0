// Files sent by the listener's I/O thread as the rest of a streamed reply: exact bytes with both ways of
// moving them (reads into the loop's buffer, sendfile), the chunked framing of block-by-block replies, and
// one callback, with the file's descriptor closed, however the file ends.
#include "ServerFixture.h"
#include "ProcessResources.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

using nettest::ServerTest;
using nettest::TestClient;

namespace {

std::string patternBytes(size_t length)
{
    std::string bytes(length, '\0');
    uint32_t state = 12345;
    for (char& byte : bytes) {
        state = state * 1103515245u + 12345u;
        byte = static_cast<char>(state >> 16);
    }
    return bytes;
}

// What the file's callback reported.
// The process's open descriptors once they reach `expected` (a closed connection lingers a moment), or after 3 s.
int descriptorsSettlingAt(int expected)
{
    for (int i = 0; i < 300 && testsupport::openDescriptorCount() != expected; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return testsupport::openDescriptorCount();
}

struct FileEnd {
    std::mutex mutex;
    std::condition_variable changed;
    int calls = 0;
    int outcome = -1;
    uint64_t bytes = 0;
    int endsReportedBefore = -1;  // the connection's end reports when the callback ran
};

std::string chunked(const std::string& data, size_t chunk)
{
    static const char kDigits[] = "0123456789ABCDEF";
    std::string out;
    for (size_t at = 0; at < data.size(); at += chunk) {
        const size_t length = std::min(chunk, data.size() - at);
        std::string hex;
        for (size_t rest = length; rest != 0; rest >>= 4) {
            hex.insert(hex.begin(), kDigits[rest & 0xF]);
        }
        out += hex + "\r\n" + data.substr(at, length) + "\r\n";
    }
    return out + "0\r\n\r\n";
}

}  // namespace

class FileTest : public ServerTest, public ::testing::WithParamInterface<uint32_t> {
protected:
    void SetUp() override
    {
        ServerTest::SetUp();
        startListen();
        char path[] = "/tmp/netutils-file-XXXXXX";
        const int fd = mkstemp(path);
        ASSERT_GE(fd, 0);
        unlink(path);
        m_file = fd;
    }

    void TearDown() override
    {
        if (m_file >= 0) {
            close(m_file);
        }
        ServerTest::TearDown();
    }

    void writeFile(const std::string& bytes)
    {
        ASSERT_EQ(pwrite(m_file, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    }

    // A request, then a streamed head announcing `length` body bytes (-1: chunked).
    int openReply(TestClient& client, int64_t length, int receiveBuffer = 0)
    {
        const int handle =
            sendRequest(client, "GET /QUMEX/ContentMgmt/download HTTP/1.1\r\n\r\n", receiveBuffer).handle;
        EXPECT_GT(handle, 0);
        if (length >= 0) {
            EXPECT_EQ(stageHeader(handle, "Content-Length", std::to_string(length)), 0);
        } else {
            EXPECT_EQ(stageHeader(handle, "Transfer-Encoding", "chunked"), 0);
        }
        EXPECT_EQ(NET_HTTPSERVER_Reply(handle, 0), 0);
        EXPECT_EQ(NET_HTTPSERVER_SetParam(handle, NET_HTTPSERVER_PARAM_STREAM, nullptr, 0, nullptr, 0), 0);
        return handle;
    }

    // The file record for a dup of the test's file (the library takes the dup).
    NET_HTTPSERVER_FILE_PARAM fileParam(int64_t offset, int64_t length, uint32_t chunkSize = 0)
    {
        NET_HTTPSERVER_FILE_PARAM file{};
        file.iFd = fcntl(m_file, F_DUPFD_CLOEXEC, 0);
        file.llOffset = offset;
        file.llLength = length;
        file.dwChunkSize = chunkSize;
        file.dwFlags = GetParam();
        file.fnDone = &FileTest::onFileDone;
        file.pUser = this;
        return file;
    }

    // Writes an 8 MiB file and starts sending it, with `settings`' bounds, to a client with a small window;
    // the handle.
    static constexpr int64_t kLarge = 8 * 1024 * 1024;
    int sendLargeFile(TestClient& client, const NET_HTTPSERVER_FILE_PARAM& settings = {})
    {
        writeFile(patternBytes(kLarge));
        const int handle = openReply(client, kLarge, 4096);
        NET_HTTPSERVER_FILE_PARAM file = fileParam(0, kLarge);
        file.dwStallTimeoutMs = settings.dwStallTimeoutMs;
        file.dwMinRate = settings.dwMinRate;
        file.dwMinRateSeconds = settings.dwMinRateSeconds;
        EXPECT_EQ(NET_HTTPSERVER_SendFile(handle, &file), 0);
        return handle;
    }

    // Waits up to timeoutMs for the callback; returns how often it came.
    int waitForFileEnd(int timeoutMs = 5000)
    {
        std::unique_lock<std::mutex> lock(m_end.mutex);
        m_end.changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [this] { return m_end.calls != 0; });
        return m_end.calls;
    }

    static std::string bodyOf(const std::string& raw) { return raw.substr(raw.find("\r\n\r\n") + 4); }

    int m_file = -1;
    FileEnd m_end;
    int m_lastHandle = -1;

private:
    static void onFileDone(int handle, int outcome, uint64_t bytes, void* user)
    {
        auto* self = static_cast<FileTest*>(user);
        const int endsBefore = self->endCount(handle);
        std::lock_guard<std::mutex> lock(self->m_end.mutex);
        ++self->m_end.calls;
        self->m_end.outcome = outcome;
        self->m_end.bytes = bytes;
        self->m_end.endsReportedBefore = endsBefore;
        self->m_lastHandle = handle;
        self->m_end.changed.notify_all();
    }
};

INSTANTIATE_TEST_SUITE_P(ReadOrSendfile, FileTest, ::testing::Values(0u, uint32_t{NET_FILE_FLAG_SENDFILE}),
                         [](const ::testing::TestParamInfo<uint32_t>& info) {
                             return info.param == 0 ? std::string("Read") : std::string("Sendfile");
                         });

TEST_P(FileTest, AWholeFileArrivesExactlyThenTheCallbackThenTheEnd)
{
    const std::string data = patternBytes(3 * 1024 * 1024 + 17);
    writeFile(data);
    const int descriptors = testsupport::openDescriptorCount();
    TestClient client;
    const int handle = openReply(client, static_cast<int64_t>(data.size()));
    NET_HTTPSERVER_FILE_PARAM file = fileParam(0, static_cast<int64_t>(data.size()));
    ASSERT_EQ(NET_HTTPSERVER_SendFile(handle, &file), 0);

    const std::string raw = client.receiveAll(5000);
    EXPECT_TRUE(bodyOf(raw) == data) << "body of " << bodyOf(raw).size() << " bytes";
    ASSERT_EQ(waitForFileEnd(), 1);
    EXPECT_EQ(m_end.outcome, NET_FILE_COMPLETE);
    EXPECT_EQ(m_end.bytes, data.size());
    EXPECT_EQ(m_end.endsReportedBefore, 0);
    EXPECT_EQ(endCount(handle, 5000), 1);
    EXPECT_EQ(NET_HTTPSERVER_Close(handle, 1), 0);
    client.close();
    EXPECT_EQ(descriptorsSettlingAt(descriptors), descriptors);
}

TEST_P(FileTest, ARangeIsTheBytesFromItsOffsetAndTheHeadBoundsWhatIsWritten)
{
    const std::string data = patternBytes(200000);
    writeFile(data);
    TestClient client;
    // The head announces 1000 bytes fewer than the file record asks for: the rest is not written.
    const int handle = openReply(client, 99000);
    NET_HTTPSERVER_FILE_PARAM file = fileParam(5000, 100000);
    ASSERT_EQ(NET_HTTPSERVER_SendFile(handle, &file), 0);
    EXPECT_TRUE(bodyOf(client.receiveAll(5000)) == data.substr(5000, 99000));
    ASSERT_EQ(waitForFileEnd(), 1);
    EXPECT_EQ(m_end.outcome, NET_FILE_COMPLETE);
    EXPECT_EQ(m_end.bytes, 99000u);
}

TEST_P(FileTest, ChunkedFramingIsOneChunkPerBlockThenTheLastChunk)
{
    const std::string data = patternBytes(100 * 1000 + 3);
    writeFile(data);
    for (const uint32_t chunk : {32768u, 7u}) {
        TestClient client;
        const int handle = openReply(client, -1, 4096);  // a small window: many partial writes
        NET_HTTPSERVER_FILE_PARAM file = fileParam(0, static_cast<int64_t>(data.size()), chunk);
        ASSERT_EQ(NET_HTTPSERVER_SendFile(handle, &file), 0);
        EXPECT_TRUE(bodyOf(client.receiveAll(5000)) == chunked(data, chunk)) << "chunks of " << chunk;
        ASSERT_EQ(waitForFileEnd(), 1);
        EXPECT_EQ(m_end.outcome, NET_FILE_COMPLETE);
        EXPECT_EQ(m_end.bytes, data.size());
        m_end.calls = 0;
        NET_HTTPSERVER_Close(handle, 1);
    }
    // An empty file still ends the body.
    TestClient client;
    const int handle = openReply(client, -1);
    NET_HTTPSERVER_FILE_PARAM file = fileParam(0, 0, 32768);
    ASSERT_EQ(NET_HTTPSERVER_SendFile(handle, &file), 0);
    EXPECT_EQ(bodyOf(client.receiveAll(5000)), "0\r\n\r\n");
    EXPECT_EQ(waitForFileEnd(), 1);
}

TEST_P(FileTest, AClientThatHangsUpEndsTheFileOnce)
{
    TestClient client;
    const int handle = sendLargeFile(client);
    EXPECT_FALSE(client.receiveSome(1000, 2000).empty());
    client.close(true);
    ASSERT_EQ(waitForFileEnd(), 1);
    EXPECT_EQ(m_end.outcome, NET_FILE_CLIENT_GONE);
    EXPECT_LT(m_end.bytes, 8u * 1024 * 1024);
    EXPECT_EQ(m_end.endsReportedBefore, 0);
    EXPECT_EQ(endCount(handle, 5000), 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(waitForFileEnd(0), 1);
}

TEST_P(FileTest, AClientThatReadsNothingEndsAtTheStallTimeOut)
{
    TestClient client;
    NET_HTTPSERVER_FILE_PARAM settings{};
    settings.dwStallTimeoutMs = 300;
    const auto start = std::chrono::steady_clock::now();
    const int handle = sendLargeFile(client, settings);
    ASSERT_EQ(waitForFileEnd(), 1);
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(m_end.outcome, NET_FILE_SEND_TIMEOUT);
    EXPECT_GE(took, std::chrono::milliseconds(300));
    EXPECT_LT(took, std::chrono::milliseconds(2000));
    EXPECT_EQ(endCount(handle, 5000), 1);
    EXPECT_TRUE(client.waitForClose(2000));
}

TEST_P(FileTest, AClientUnderTheMinimumRateEndsAtTheEndOfAWindow)
{
    TestClient client;
    NET_HTTPSERVER_FILE_PARAM settings{};
    settings.dwMinRate = 10 * 1024 * 1024;  // far above what a reader of 4 KiB every 50 ms takes
    settings.dwMinRateSeconds = 1;
    const int handle = sendLargeFile(client, settings);
    std::atomic<bool> reading{true};
    std::thread reader([&] {
        while (reading && !client.receiveSome(4096, 50).empty()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    });
    EXPECT_EQ(waitForFileEnd(4000), 1);
    reading = false;
    reader.join();
    EXPECT_EQ(m_end.outcome, NET_FILE_TOO_SLOW);
    EXPECT_EQ(endCount(handle, 5000), 1);
}

TEST_P(FileTest, AFileShorterThanPromisedEndsWithAReadError)
{
    writeFile(patternBytes(10000));
    TestClient client;
    const int handle = openReply(client, 20000);
    NET_HTTPSERVER_FILE_PARAM file = fileParam(0, 20000);
    ASSERT_EQ(NET_HTTPSERVER_SendFile(handle, &file), 0);
    ASSERT_EQ(waitForFileEnd(), 1);
    EXPECT_EQ(m_end.outcome, NET_FILE_READ_ERROR);
    EXPECT_EQ(m_end.bytes, 10000u);
    EXPECT_TRUE(client.waitForClose(2000));
}

TEST_P(FileTest, TheOwnerEndingTheConnectionEndsTheFileOnce)
{
    {
        // Close: the owner has let go, so no end is reported.
        TestClient client;
        const int handle = sendLargeFile(client);
        EXPECT_EQ(NET_HTTPSERVER_Close(handle, 0), 0);
        ASSERT_EQ(waitForFileEnd(), 1);
        EXPECT_EQ(m_end.outcome, NET_FILE_ENDED);
        EXPECT_EQ(endCount(handle, 200), 0);
    }
    m_end.calls = 0;
    {
        // Abort: the handle stays the owner's, and the end is reported after the callback.
        TestClient client;
        const int handle = sendLargeFile(client);
        EXPECT_EQ(NET_HTTPSERVER_Abort(handle), 0);
        ASSERT_EQ(waitForFileEnd(), 1);
        EXPECT_EQ(m_end.outcome, NET_FILE_ENDED);
        EXPECT_EQ(m_end.endsReportedBefore, 0);
        EXPECT_EQ(endCount(handle, 5000), 1);
    }
}

// sendfile(2) has no MSG_NOSIGNAL: a socket shut while it writes raises SIGPIPE, which a host that keeps the
// default disposition dies of. The owner closing while the client reads at full speed hits that moment.
TEST_P(FileTest, AnOwnerClosingMidFileCannotKillAHostThatKeepsTheDefaultSigpipe)
{
    struct sigaction keep {};
    struct sigaction byDefault {};
    byDefault.sa_handler = SIG_DFL;
    ASSERT_EQ(sigaction(SIGPIPE, &byDefault, &keep), 0);
    for (int round = 0; round < 40; ++round) {
        TestClient client;
        writeFile(patternBytes(kLarge));
        const int handle = openReply(client, kLarge);
        NET_HTTPSERVER_FILE_PARAM file = fileParam(0, kLarge);
        ASSERT_EQ(NET_HTTPSERVER_SendFile(handle, &file), 0);
        std::thread reader([&client] { client.receiveAll(5000); });
        std::this_thread::sleep_for(std::chrono::microseconds(200 * (round % 5)));
        EXPECT_EQ(NET_HTTPSERVER_Close(handle, round % 2), 0);
        EXPECT_EQ(waitForFileEnd(), 1);
        reader.join();
        m_end.calls = 0;
    }
    sigaction(SIGPIPE, &keep, nullptr);
}

TEST_P(FileTest, DestroyingTheListenerEndsTheFileOnce)
{
    const int descriptors = testsupport::openDescriptorCount();
    TestClient client;
    const int handle = sendLargeFile(client);
    destroyListen();
    EXPECT_EQ(waitForFileEnd(0), 1);  // before DestroyListen returned
    EXPECT_EQ(m_end.outcome, NET_FILE_ENDED);
    EXPECT_EQ(endCount(handle), 1);
    NET_HTTPSERVER_Close(handle, 0);
    client.close();
    // The listener's own descriptors (socket, epoll, eventfd) are gone too.
    EXPECT_EQ(descriptorsSettlingAt(descriptors - 3), descriptors - 3);
}

TEST_P(FileTest, AFileIsRefusedBeforeTheHeadAndAfterTheEndAndItsDescriptorStaysTheCallers)
{
    writeFile(patternBytes(1000));
    TestClient client;
    const int handle = sendRequest(client, "GET / HTTP/1.1\r\n\r\n").handle;
    NET_HTTPSERVER_FILE_PARAM file = fileParam(0, 1000);
    EXPECT_EQ(NET_HTTPSERVER_SendFile(handle, &file), -1);
    EXPECT_EQ(NET_UTILS_GetLastError(), NET_ERR_PARAM);
    EXPECT_EQ(fcntl(file.iFd, F_GETFD), FD_CLOEXEC) << "the descriptor was closed";
    close(file.iFd);

    EXPECT_EQ(stageHeader(handle, "Content-Length", "1000"), 0);
    EXPECT_EQ(NET_HTTPSERVER_Reply(handle, 0), 0);
    file = fileParam(0, 1000);
    ASSERT_EQ(NET_HTTPSERVER_SendFile(handle, &file), 0);
    // The body is the loop's now: a reply from the owner would interleave with it.
    NET_HTTPSERVER_SetParam(handle, NET_HTTPSERVER_PARAM_BODY, nullptr, 0, "x", 1);
    const int reply = NET_HTTPSERVER_Reply(handle, 0);
    EXPECT_EQ(reply, -1);
    ASSERT_EQ(waitForFileEnd(), 1);
    file = fileParam(0, 1000);
    EXPECT_EQ(NET_HTTPSERVER_SendFile(handle, &file), -1);
    EXPECT_EQ(fcntl(file.iFd, F_GETFD), FD_CLOEXEC);
    close(file.iFd);
    EXPECT_EQ(waitForFileEnd(200), 1);
}

TEST_P(FileTest, SeveralIoThreadsShareOnePortAndEachSendsItsConnectionsFiles)
{
    destroyListen();
    NET_HTTPSERVER_LISTEN_PARAM param{};
    param.byIoThreads = 3;
    startListenWith(param);
    // Nobody joins the group by asking for its port, with one thread or several.
    for (uint8_t threads : {1, 3}) {
        NET_HTTPSERVER_LISTEN_PARAM second = param;
        strcpy(second.szAddress, "127.0.0.1");
        second.wPort = static_cast<uint16_t>(m_port);
        second.byIoThreads = threads;
        second.fnCallback = [](int, void*, void*) {};
        EXPECT_LT(NET_HTTPSERVER_CreateListen(&second), 0) << "threads " << int(threads);
    }
    const std::string data = patternBytes(300000);
    writeFile(data);
    std::vector<TestClient> clients(12);
    for (TestClient& client : clients) {
        const int handle = openReply(client, static_cast<int64_t>(data.size()));
        NET_HTTPSERVER_FILE_PARAM file = fileParam(0, static_cast<int64_t>(data.size()));
        ASSERT_EQ(NET_HTTPSERVER_SendFile(handle, &file), 0);
    }
    for (TestClient& client : clients) {
        EXPECT_TRUE(bodyOf(client.receiveAll(5000)) == data);
    }
    std::unique_lock<std::mutex> lock(m_end.mutex);
    EXPECT_TRUE(m_end.changed.wait_for(lock, std::chrono::seconds(5), [this] { return m_end.calls == 12; }));
}
