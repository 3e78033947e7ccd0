// Real clients: curl with --digest downloads a large recording through the
// plug-in in both request forms and both transfer modes, byte for byte.
#include <gtest/gtest.h>

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <vector>

#include <zrt/zrt.h>

#include "PluginFixture.h"

namespace {

// 1 GiB by default; sanitizer builds are several times slower and use less.
unsigned long long largeDownloadBytes()
{
    if (const char* mb = getenv("HPW_LARGE_DOWNLOAD_MB")) {
        return strtoull(mb, nullptr, 10) * 1024 * 1024;
    }
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return 96ull * 1024 * 1024;
#else
    return 1024ull * 1024 * 1024;
#endif
}

struct Fnv64 {
    unsigned long long hash = 1469598103934665603ull;
    void add(const char* data, size_t length)
    {
        for (size_t i = 0; i < length; ++i) {
            hash = (hash ^ (unsigned char)data[i]) * 1099511628211ull;
        }
    }
};

class CurlDownload : public PluginFixture {
protected:
    void SetUp() override
    {
        PluginFixture::SetUp();
        char dir[] = "/tmp/hpw_curl_XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        directory = dir;
        sink.syntheticSize = largeDownloadBytes();
        sink.blockSize = 256 * 1024;
    }
    void TearDown() override
    {
        system(("rm -rf " + directory).c_str());
        PluginFixture::TearDown();
    }

    // Runs curl; returns the HTTP status and fills the response headers text.
    int curl(const std::string& arguments, const std::string& output, std::string& headers)
    {
        std::string headerFile = directory + "/headers";
        std::string command = "curl -s -S --digest -u admin:secret -D " + headerFile + " -o " + output + " " +
                              arguments + " -w '%{http_code}'";
        ZRT_UINT64 start = ZRT_GetTimeTick64();
        FILE* pipe = popen(command.c_str(), "r");
        if (pipe == nullptr) {
            return -1;
        }
        char status[16] = {0};
        size_t got = fread(status, 1, sizeof status - 1, pipe);
        status[got] = '\0';
        pclose(pipe);
        RecordProperty("curl_ms", (int)(ZRT_GetTimeTick64() - start));
        std::ifstream in(headerFile);
        headers.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
        return atoi(status);
    }

    unsigned long long expectedHash()
    {
        Fnv64 fnv;
        fnv.add(sink.streamHead.data(), sink.streamHead.size());
        std::vector<char> block(1 << 20);
        for (unsigned long long offset = 0; offset < sink.syntheticSize; offset += block.size()) {
            size_t piece = (size_t)std::min<unsigned long long>(block.size(), sink.syntheticSize - offset);
            FakeServerSink::syntheticBytes(offset, block.data(), piece);
            fnv.add(block.data(), piece);
        }
        return fnv.hash;
    }

    unsigned long long fileHash(const std::string& path, unsigned long long& size)
    {
        Fnv64 fnv;
        size = 0;
        std::ifstream in(path, std::ios::binary);
        std::vector<char> block(1 << 20);
        while (in) {
            in.read(block.data(), (std::streamsize)block.size());
            fnv.add(block.data(), (size_t)in.gcount());
            size += (unsigned long long)in.gcount();
        }
        return fnv.hash;
    }

    void expectExactDownload(const std::string& output)
    {
        unsigned long long size = 0;
        unsigned long long hash = fileHash(output, size);
        EXPECT_EQ(size, sink.syntheticSize + 40);
        EXPECT_EQ(hash, expectedHash());
        EXPECT_TRUE(waitIdle());
    }

    std::string baseUrl() const { return "http://127.0.0.1:" + std::to_string(port); }

    std::string directory;
};

}  // namespace

TEST_F(CurlDownload, JsonFormWithContentLength)
{
    std::string output = directory + "/json.bin";
    std::string headers;
    std::string body = jsonDownloadBody("&name=big&size=" + std::to_string(sink.syntheticSize));
    int status = curl("-X POST -d '" + body + "' '" + baseUrl() + jsonDownloadTarget() + "'", output, headers);
    ASSERT_EQ(status, 200);
    EXPECT_NE(headers.find("Content-Length: " + std::to_string(sink.syntheticSize + 40)), std::string::npos);
    expectExactDownload(output);
}

TEST_F(CurlDownload, JsonFormChunked)
{
    std::string output = directory + "/chunked.bin";
    std::string headers;
    int status = curl("-X POST -d '" + jsonDownloadBody("") + "' '" + baseUrl() + jsonDownloadTarget() + "'", output,
                      headers);
    ASSERT_EQ(status, 200);
    EXPECT_NE(headers.find("Transfer-Encoding: chunked"), std::string::npos);
    expectExactDownload(output);
}

TEST_F(CurlDownload, XmlFormWithABody)
{
    std::string output = directory + "/xml.bin";
    std::string headers;
    std::string body = xmlDownloadBody("rtsp://10.0.0.5:554/Streaming/tracks/playback?starttime=1&amp;endtime=2");
    int status = curl("-X GET -H 'Content-Type: application/xml' --data-binary '" + body + "' '" + baseUrl() +
                          "/QUMEX/ContentMgmt/download'",
                      output, headers);
    ASSERT_EQ(status, 200);
    EXPECT_NE(headers.find("Content-Length: " + std::to_string(sink.syntheticSize + 40)), std::string::npos);
    expectExactDownload(output);
}
