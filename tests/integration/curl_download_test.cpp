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
    unsigned long long size = 0;
    void add(const char* data, size_t length)
    {
        for (size_t i = 0; i < length; ++i) {
            hash = (hash ^ (unsigned char)data[i]) * 1099511628211ull;
        }
        size += length;
    }
};

class CurlDownload : public PluginFixture {
protected:
    void SetUp() override
    {
        PluginFixture::SetUp();
        sink.syntheticSize = largeDownloadBytes();
        sink.blockSize = 256 * 1024;
    }
    void TearDown() override
    {
        unlink(headerFile.c_str());
        PluginFixture::TearDown();
    }

    // Runs curl with the body on its standard output, which is hashed as it
    // arrives; returns the last response's status and fills its header text.
    int curl(const std::string& arguments, std::string& headers, Fnv64& body)
    {
        std::string command = "curl -s -S --digest -u admin:secret -D " + headerFile + " -o - " + arguments;
        ZRT_UINT64 start = ZRT_GetTimeTick64();
        FILE* pipe = popen(command.c_str(), "r");
        if (pipe == nullptr) {
            return -1;
        }
        std::vector<char> block(1 << 20);
        for (size_t got; (got = fread(block.data(), 1, block.size(), pipe)) > 0;) {
            body.add(block.data(), got);
        }
        pclose(pipe);
        RecordProperty("curl_ms", (int)(ZRT_GetTimeTick64() - start));
        std::ifstream in(headerFile);
        headers.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
        size_t last = headers.rfind("HTTP/1.1 ");
        return last == std::string::npos ? -1 : atoi(headers.c_str() + last + 9);
    }

    Fnv64 expectedBody()
    {
        Fnv64 fnv;
        fnv.add(sink.streamHead.data(), sink.streamHead.size());
        std::vector<char> block(1 << 20);
        for (unsigned long long offset = 0; offset < sink.syntheticSize; offset += block.size()) {
            size_t piece = (size_t)std::min<unsigned long long>(block.size(), sink.syntheticSize - offset);
            FakeServerSink::syntheticBytes(offset, block.data(), piece);
            fnv.add(block.data(), piece);
        }
        return fnv;
    }

    std::string baseUrl() const { return "http://127.0.0.1:" + std::to_string(port); }

    const std::string headerFile = "/tmp/hpw_curl_headers_" + std::to_string(getpid());
};

}  // namespace

TEST_F(CurlDownload, BothFormsAndBothTransferModesArriveByteExact)
{
    const std::string length = "Content-Length: " + std::to_string(sink.syntheticSize + 40);
    const std::string xmlBody =
        xmlDownloadBody("rtsp://10.0.0.5:554/Streaming/tracks/playback?starttime=1&amp;endtime=2");
    const std::string jsonUrl = " '" + baseUrl() + jsonDownloadTarget() + "'";
    const struct {
        std::string arguments;
        std::string header;
    } rows[] = {
        {"-X POST -d '" + jsonDownloadBody("&name=big&size=" + std::to_string(sink.syntheticSize)) + "'" + jsonUrl,
         length},
        {"-X POST -d '" + jsonDownloadBody("") + "'" + jsonUrl, "Transfer-Encoding: chunked"},
        {"-X GET -H 'Content-Type: application/xml' --data-binary '" + xmlBody + "' '" + baseUrl() +
             "/QUMEX/ContentMgmt/download'",
         length},
    };
    const Fnv64 expected = expectedBody();
    for (const auto& row : rows) {
        SCOPED_TRACE(row.arguments.substr(0, 60));
        std::string headers;
        Fnv64 body;
        ASSERT_EQ(curl(row.arguments, headers, body), 200) << headers;
        EXPECT_NE(headers.find(row.header), std::string::npos) << headers;
        EXPECT_EQ(body.size, sink.syntheticSize + 40);
        EXPECT_EQ(body.hash, expected.hash);
        EXPECT_TRUE(waitIdle());
    }
}
