// The /metrics text: what a scraper reads must be what happened, bucket by bucket.
#include <gtest/gtest.h>

#include "base/GatewayMetrics.h"
#include "ops/MetricsText.h"

TEST(MetricsText, DurationsLandInCumulativeBucketsAndOutcomesInTheirLabels)
{
    GatewayMetrics metrics;
    for (int i = 0; i < 4; ++i) {
        metrics.downloadStarted();
    }
    metrics.downloadFinished(DownloadOutcome::kComplete, 0.1);  // on a bound: counted in it ("le")
    metrics.downloadFinished(DownloadOutcome::kComplete, 0.7);
    metrics.downloadFinished(DownloadOutcome::kClientGone, 4000);  // above every bound
    metrics.requestRefused(RefusalReason::kLimit);
    metrics.addSentBytes(1 << 20);

    const std::string text = renderMetrics(metrics, true, ProcessStats(), BuildInfo{"1.0", "abc", "gcc \"12\""});
    for (const char* line : {
             "media_gateway_download_duration_seconds_bucket{le=\"0.1\"} 1\n",
             "media_gateway_download_duration_seconds_bucket{le=\"0.5\"} 1\n",
             "media_gateway_download_duration_seconds_bucket{le=\"1\"} 2\n",
             "media_gateway_download_duration_seconds_bucket{le=\"1800\"} 2\n",
             "media_gateway_download_duration_seconds_bucket{le=\"+Inf\"} 3\n",
             "media_gateway_download_duration_seconds_sum 4000.8\n",
             "media_gateway_download_duration_seconds_count 3\n",
             "media_gateway_downloads_finished_total{outcome=\"complete\"} 2\n",
             "media_gateway_downloads_finished_total{outcome=\"client_gone\"} 1\n",
             "media_gateway_open_downloads 1\n",
             "media_gateway_requests_refused_total{reason=\"limit\"} 1\n",
             "media_gateway_sent_bytes_total 1048576\n",
             "media_gateway_build_info{version=\"1.0\",revision=\"abc\",compiler=\"gcc \\\"12\\\"\"} 1\n",
             "# TYPE media_gateway_download_duration_seconds histogram\n",
         }) {
        EXPECT_NE(text.find(line), std::string::npos) << "missing: " << line;
    }
}
