// N synchronous GeneralSyncGetApiRequest calls against N raw libcurl keep-alive
// GETs of the same path on the same qmmember-server, in one process.
// Usage: bench_pipeline [--calls N] [--json]   (QM_API_HOST and QM_CA_FILE name the server)
#include "QMMemberWebService.h"

#include "registry/QMRegistryAgent.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

#include <curl/curl.h>

#include <algorithm>
#include <cstdio>
#include <vector>

namespace {

long RssKiB()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').first().toLong();
    }
    return -1;
}

double Median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values.empty() ? 0 : values[values.size() / 2];
}

size_t Discard(char*, size_t size, size_t count, void* body)
{
    static_cast<std::string*>(body)->append(size * count, ' ');
    return size * count;
}

// The baseline: one libcurl handle, kept alive, nothing else.
class RawCurl
{
public:
    RawCurl(const std::string& url, const std::string& ca)
        : m_easy(curl_easy_init())
    {
        curl_easy_setopt(m_easy, CURLOPT_URL, url.c_str());
        curl_easy_setopt(m_easy, CURLOPT_CAINFO, ca.c_str());
        curl_easy_setopt(m_easy, CURLOPT_WRITEFUNCTION, &Discard);
        curl_easy_setopt(m_easy, CURLOPT_WRITEDATA, &m_body);
        curl_easy_setopt(m_easy, CURLOPT_TCP_NODELAY, 1L);
        // The same request the pipeline sends, so that only the client's work differs.
        for (const char* line : {"Compress-Output: false", "User-Agent: QMAutoTestAgent", "QM_Sign;", "QM_SignCheck;",
                                 "Content-Type: application/json", "Expect:"})
            m_headers = curl_slist_append(m_headers, line);
        curl_easy_setopt(m_easy, CURLOPT_HTTPHEADER, m_headers);
    }
    ~RawCurl()
    {
        curl_easy_cleanup(m_easy);
        curl_slist_free_all(m_headers);
    }
    bool Get()
    {
        m_body.clear();
        return curl_easy_perform(m_easy) == CURLE_OK;
    }

private:
    CURL* m_easy;
    curl_slist* m_headers = nullptr;
    std::string m_body;
};

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    const QStringList args = application.arguments();
    const bool json = args.contains(QStringLiteral("--json"));
    const int calls = qMax(1000, args.value(args.indexOf(QStringLiteral("--calls")) + 1).toInt());
    const QString host = qEnvironmentVariable("QM_API_HOST");
    const QString ca = qEnvironmentVariable("QM_CA_FILE");
    if (host.isEmpty() || ca.isEmpty()) {
        std::fprintf(stderr, "bench_pipeline: set QM_API_HOST and QM_CA_FILE to a running qmmember-server\n");
        return 2;
    }
    QTemporaryDir store;
    qputenv("QM_REGISTRY_DIR", store.path().toLocal8Bit());
    static QMRegistryTool::CQMRegistryAgent agent;
    CQMMemberWebService::SetRegistryInterface(&agent);
    CQMMemberWebService service(0);
    RawCurl curl("https://" + host.toStdString() + "/qmtest/ping", ca.toStdString());

    auto ours = [&](bool post) {
        std::wstring text;
        const auto result = post ? service.GeneralSyncApiRequest(L"/qmtest/ping", false, "{\"a\":1}", text, 10000)
                                 : service.GeneralSyncGetApiRequest(L"/qmtest/ping", false, text, 10000);
        // Released requests are deleted by the event loop, as in a host; the
        // untyped pass also compacts Qt's list of posted events, as a loop does.
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QCoreApplication::sendPostedEvents();
        return result == CQMMemberWebService::WS_OK;
    };
    for (int i = 0; i < 200; ++i) {
        if (!ours(false) || !curl.Get()) {
            std::fprintf(stderr, "bench_pipeline: requests to %s fail\n", qPrintable(host));
            return 1;
        }
    }

    // Alternating blocks, so that drift hits both sides alike.
    std::vector<double> oursTimes;
    std::vector<double> curlTimes;
    std::vector<double> postTimes;
    long rssAfter1000 = 0;
    QElapsedTimer clock;
    int done = 0;
    while (done < calls) {
        for (int i = 0; i < 500 && done < calls; ++i, ++done) {
            clock.start();
            ours(false);
            oursTimes.push_back(clock.nsecsElapsed() / 1000.0);
            if (done + 1 == 1000)
                rssAfter1000 = RssKiB();
        }
        for (int i = 0; i < 500; ++i) {
            clock.start();
            curl.Get();
            curlTimes.push_back(clock.nsecsElapsed() / 1000.0);
        }
        for (int i = 0; i < 50; ++i) {
            clock.start();
            ours(true);
            postTimes.push_back(clock.nsecsElapsed() / 1000.0);
        }
    }
    const long rssAfterAll = RssKiB();

    const double oursMedian = Median(oursTimes);
    const double curlMedian = Median(curlTimes);
    QJsonObject report{{"calls", calls},
                       {"ours_us_median", qRound(oursMedian * 10) / 10.0},
                       {"curl_us_median", qRound(curlMedian * 10) / 10.0},
                       {"ratio", qRound(oursMedian / curlMedian * 100) / 100.0},
                       {"ours_post_us_median", qRound(Median(postTimes) * 10) / 10.0},
                       {"rss_kib_after_1000", double(rssAfter1000)},
                       {QStringLiteral("rss_kib_after_%1").arg(calls), double(rssAfterAll)}};
    if (json) {
        std::printf("%s\n", QJsonDocument(report).toJson(QJsonDocument::Compact).constData());
    } else {
        std::printf("calls                   %d (each side)\n", calls);
        std::printf("ours, GET median        %.1f us\n", oursMedian);
        std::printf("raw libcurl, median     %.1f us\n", curlMedian);
        std::printf("ratio                   %.2f\n", oursMedian / curlMedian);
        std::printf("ours, POST median       %.1f us\n", Median(postTimes));
        std::printf("RSS after 1000 calls    %ld KiB\n", rssAfter1000);
        std::printf("RSS after %d calls     %ld KiB (growth %ld KiB)\n", calls, rssAfterAll, rssAfterAll - rssAfter1000);
    }
    return 0;
}
