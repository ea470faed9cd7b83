// Our request pipeline against bare libcurl on the same qmmember-server, in rows:
// synchronous keep-alive GETs (median, p99), a new connection in a warm process,
// the first call of a fresh process, and asynchronous throughput at 1, 10 and 100
// requests in flight against a bare curl multi loop with the same connection cap.
// Usage: bench_pipeline [--calls N] [--rounds N] [--async-only [--in-flight 1|10|100] [--only ours|curl]] [--json]
//        (QM_API_HOST and QM_CA_FILE name the server; --only runs one async side, for a profiler)
#include "QMMemberWebService.h"

#include "qmnetwork/CurlEngine.h"
#include "qmnetwork/HttpRequest.h"
#include "registry/QMRegistryAgent.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>

#include <curl/curl.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
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

// CPU time of this process (all threads), in microseconds.
double CpuMicros()
{
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return now.tv_sec * 1e6 + now.tv_nsec / 1e3;
}

struct Stats {
    double median = 0, p99 = 0, min = 0, max = 0;
};

Stats Summarize(std::vector<double> values)
{
    Stats s;
    if (values.empty())
        return s;
    std::sort(values.begin(), values.end());
    s.median = values[values.size() / 2];
    s.p99 = values[std::min(values.size() - 1, values.size() * 99 / 100)];
    s.min = values.front();
    s.max = values.back();
    return s;
}

size_t Discard(char* data, size_t size, size_t count, void* body)
{
    static_cast<std::string*>(body)->append(data, size * count); // kept, to be checked
    return size * count;
}

const char* const kHeaders[] = {"Compress-Output: false", "User-Agent: QMAutoTestAgent", "QM_Sign;", "QM_SignCheck;",
                                "Content-Type: application/json", "Expect:"};

curl_slist* Headers()
{
    curl_slist* list = nullptr;
    for (const char* line : kHeaders)
        list = curl_slist_append(list, line);
    return list;
}

// The baseline: one libcurl handle, nothing else.
class RawCurl
{
public:
    RawCurl(const std::string& url, const std::string& ca, bool fresh = false)
        : m_easy(curl_easy_init())
        , m_headers(Headers())
    {
        curl_easy_setopt(m_easy, CURLOPT_URL, url.c_str());
        curl_easy_setopt(m_easy, CURLOPT_CAINFO, ca.c_str());
        curl_easy_setopt(m_easy, CURLOPT_CAPATH, nullptr);
        curl_easy_setopt(m_easy, CURLOPT_WRITEFUNCTION, &Discard);
        curl_easy_setopt(m_easy, CURLOPT_WRITEDATA, &m_body);
        curl_easy_setopt(m_easy, CURLOPT_TCP_NODELAY, 1L);
        curl_easy_setopt(m_easy, CURLOPT_HTTPHEADER, m_headers);
        if (fresh) {
            // A new connection each time, closed after its transfer; TLS sessions resume.
            curl_easy_setopt(m_easy, CURLOPT_FRESH_CONNECT, 1L);
            curl_easy_setopt(m_easy, CURLOPT_FORBID_REUSE, 1L);
        }
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
    const std::string& Body() const { return m_body; }

private:
    CURL* m_easy;
    curl_slist* m_headers;
    std::string m_body;
};

// `total` GETs with `inFlight` outstanding on a bare multi handle. The multi handle and its
// easy handles live across rounds, so that its connections are kept as ours are.
class BareMulti
{
public:
    BareMulti(const std::string& url, const std::string& ca, int inFlight)
        : m_multi(curl_multi_init())
        , m_headers(Headers())
        , m_bodies(static_cast<size_t>(inFlight))
    {
        curl_multi_setopt(m_multi, CURLMOPT_MAX_HOST_CONNECTIONS, 8L);
        curl_multi_setopt(m_multi, CURLMOPT_MAXCONNECTS, 16L);
        for (int i = 0; i < inFlight; ++i) {
            CURL* easy = curl_easy_init();
            curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
            curl_easy_setopt(easy, CURLOPT_CAINFO, ca.c_str());
            curl_easy_setopt(easy, CURLOPT_CAPATH, nullptr);
            curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Discard);
            curl_easy_setopt(easy, CURLOPT_WRITEDATA, &m_bodies[size_t(i)]);
            curl_easy_setopt(easy, CURLOPT_PRIVATE, &m_bodies[size_t(i)]);
            curl_easy_setopt(easy, CURLOPT_TCP_NODELAY, 1L);
            curl_easy_setopt(easy, CURLOPT_HTTPHEADER, m_headers);
            m_handles.push_back(easy);
        }
    }
    ~BareMulti()
    {
        for (CURL* easy : m_handles)
            curl_easy_cleanup(easy);
        curl_multi_cleanup(m_multi);
        curl_slist_free_all(m_headers);
    }
    // Requests per second, or 0 when a reply was not the server's pong.
    double Run(int total, const std::string& expected)
    {
        QElapsedTimer clock;
        clock.start();
        int started = 0;
        int done = 0;
        bool good = true;
        for (size_t i = 0; i < m_handles.size() && started < total; ++i, ++started) {
            m_bodies[i].clear();
            curl_multi_add_handle(m_multi, m_handles[i]);
        }
        while (done < total) {
            int running = 0;
            curl_multi_perform(m_multi, &running);
            int queued = 0;
            bool added = false;
            while (CURLMsg* message = curl_multi_info_read(m_multi, &queued)) {
                if (message->msg != CURLMSG_DONE)
                    continue;
                ++done;
                CURL* easy = message->easy_handle;
                std::string* body = nullptr;
                curl_easy_getinfo(easy, CURLINFO_PRIVATE, &body);
                good = good && message->data.result == CURLE_OK && *body == expected;
                curl_multi_remove_handle(m_multi, easy);
                if (started < total) {
                    ++started;
                    body->clear();
                    curl_multi_add_handle(m_multi, easy);
                    added = true;
                }
            }
            // A handle just added is started by the next perform; waiting first could stall it.
            if (done < total && !added)
                curl_multi_poll(m_multi, nullptr, 0, 1000, nullptr);
        }
        const double seconds = clock.nsecsElapsed() / 1e9;
        return good ? total / seconds : 0;
    }

private:
    CURLM* m_multi;
    curl_slist* m_headers;
    std::vector<std::string> m_bodies;
    std::vector<CURL*> m_handles;
};

// The same through DoApiRequest, asynchronous, as a host makes it.
// Requests per second, or 0 when a result was not the server's pong.
double OursAsync(CQMMemberWebService& service, int inFlight, int total, const std::wstring& expected)
{
    QEventLoop loop;
    int started = 0;
    int done = 0;
    bool good = true;
    auto issue = [&] {
        ++started;
        service.DoApiRequest(L"/qmtest/ping", std::string(), 10000, false, false,
                             CQMMemberWebService::GenerateApiRequestID(), std::wstring());
    };
    const QMetaObject::Connection connection = QObject::connect(
        &service, &CQMMemberWebService::FinishApiRequest, &loop,
        [&](const std::wstring& text, bool busy, const QString& id) {
              good = good && text == expected && !busy && id.size() == 36;
              if (++done == total)
                  loop.quit();
              else if (started < total)
                  issue();
          });
    QElapsedTimer clock;
    clock.start();
    for (int i = 0; i < inFlight && started < total; ++i)
        issue();
    loop.exec();
    const double seconds = clock.nsecsElapsed() / 1e9;
    QObject::disconnect(connection);
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    return good ? total / seconds : 0;
}

// A child process: the time of its first request, in microseconds.
int FirstCall(const QString& kind, const std::string& host, const std::string& ca)
{
    QElapsedTimer clock;
    clock.start();
    bool ok = false;
    if (kind == QLatin1String("ours")) {
        CHttpRequest request(nullptr, true);
        std::wstring reply;
        std::wstring headers;
        const std::wstring wideHost = QString::fromStdString(host).toStdWString();
        ok = request.GetSync(wideHost.c_str(), L"/qmtest/ping", reply, headers, nullptr, 10000, false,
                             L"application/json", nullptr);
    } else {
        curl_global_init(CURL_GLOBAL_DEFAULT);
        RawCurl curl("https://" + host + "/qmtest/ping", ca); // trusts only the server's CA
        ok = curl.Get();
    }
    std::printf("%.1f\n", clock.nsecsElapsed() / 1000.0);
    return ok ? 0 : 1;
}

QString Row(const char* name, const Stats& ours, const Stats& curl, const char* unit, bool higherIsBetter)
{
    const double ratio = higherIsBetter ? ours.median / curl.median : curl.median / ours.median;
    return QString::asprintf("%-26s %10.1f [%8.1f ..%9.1f] %10.1f [%8.1f ..%9.1f] %s  %5.2f", name, ours.median,
                             ours.min, ours.max, curl.median, curl.min, curl.max, unit, ratio);
}

QJsonObject Json(const Stats& s)
{
    return {{"median", qRound(s.median * 10) / 10.0}, {"min", qRound(s.min * 10) / 10.0},
            {"max", qRound(s.max * 10) / 10.0}, {"p99", qRound(s.p99 * 10) / 10.0}};
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    const QStringList args = application.arguments();
    const QString host = qEnvironmentVariable("QM_API_HOST");
    const QString ca = qEnvironmentVariable("QM_CA_FILE");
    if (host.isEmpty() || ca.isEmpty()) {
        std::fprintf(stderr, "bench_pipeline: set QM_API_HOST and QM_CA_FILE to a running qmmember-server\n");
        return 2;
    }
    if (args.value(1) == QLatin1String("--first-call"))
        return FirstCall(args.value(2), host.toStdString(), ca.toStdString());

    const bool json = args.contains(QStringLiteral("--json"));
    const bool asyncOnly = args.contains(QStringLiteral("--async-only"));
    const QString onlySide = args.contains(QStringLiteral("--only"))
                                 ? args.value(args.indexOf(QStringLiteral("--only")) + 1) : QString();
    if (!onlySide.isEmpty() && onlySide != QLatin1String("ours") && onlySide != QLatin1String("curl")) {
        std::fprintf(stderr, "bench_pipeline: --only takes ours or curl\n");
        return 2;
    }
    const int calls = qMax(1000, args.value(args.indexOf(QStringLiteral("--calls")) + 1).toInt());
    const int rounds = qMax(3, args.value(args.indexOf(QStringLiteral("--rounds")) + 1).toInt());
    QTemporaryDir store;
    qputenv("QM_REGISTRY_DIR", store.path().toLocal8Bit());
    static QMRegistryTool::CQMRegistryAgent agent;
    CQMMemberWebService::SetRegistryInterface(&agent);
    CQMMemberWebService service(0);
    const std::string url = "https://" + host.toStdString() + "/qmtest/ping";
    RawCurl curl(url, ca.toStdString());

    // The trust set we use: the system's CAs and the server's, as one bundle for bare curl.
    const QString bundle = store.filePath(QStringLiteral("bundle.pem"));
    {
        QFile out(bundle);
        QFile system(QStringLiteral("/etc/ssl/certs/ca-certificates.crt"));
        QFile server(ca);
        if (out.open(QIODevice::WriteOnly) && system.open(QIODevice::ReadOnly) && server.open(QIODevice::ReadOnly))
            out.write(system.readAll() + "\n" + server.readAll());
    }
    RawCurl fresh(url, bundle.toStdString(), true);

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
        if (!ours(false) || !curl.Get() || (i < 5 && !fresh.Get())) {
            std::fprintf(stderr, "bench_pipeline: requests to %s fail\n", qPrintable(host));
            return 1;
        }
    }

    // Alternating blocks, so that drift hits both sides alike.
    std::vector<double> oursTimes, curlTimes, postTimes, oursNew, curlNew;
    long rssAfter1000 = 0;
    QElapsedTimer clock;
    int done = 0;
    while (!asyncOnly && done < calls) {
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
        // A new connection each: ours after its kept ones are closed, curl's fresh on one handle.
        for (int i = 0; i < 20; ++i) {
            QMNet::Engine::Instance().DropConnections();
            clock.start();
            ours(false);
            oursNew.push_back(clock.nsecsElapsed() / 1000.0);
            clock.start();
            fresh.Get();
            curlNew.push_back(clock.nsecsElapsed() / 1000.0);
        }
    }
    const long rssAfterAll = RssKiB();

    // Fresh processes, alternating.
    std::vector<double> oursFirst, curlFirst;
    for (int i = 0; !asyncOnly && i < 2 * rounds + 1; ++i) {
        for (const char* kind : {"ours", "curl"}) {
            QProcess child;
            child.start(application.applicationFilePath(), {"--first-call", kind});
            child.waitForFinished(20000);
            bool ok = false;
            const double us = child.readAllStandardOutput().trimmed().toDouble(&ok);
            if (ok && child.exitCode() == 0)
                (QByteArray(kind) == "ours" ? oursFirst : curlFirst).push_back(us);
        }
    }

    // Asynchronous throughput, requests per second.
    struct AsyncRow {
        int inFlight;
        std::vector<double> ours, curl, oursCpu, curlCpu; // requests per second; CPU us per request
    };
    std::vector<AsyncRow> asyncRows{{1, {}, {}, {}, {}}, {10, {}, {}, {}, {}}, {100, {}, {}, {}, {}}};
    if (args.contains(QStringLiteral("--in-flight"))) {
        const int only = args.value(args.indexOf(QStringLiteral("--in-flight")) + 1).toInt();
        asyncRows.erase(std::remove_if(asyncRows.begin(), asyncRows.end(),
                                       [only](const AsyncRow& row) { return row.inFlight != only; }),
                        asyncRows.end());
    }
    const int asyncTotal = 1000;
    // A round is short, and at 10 in flight rounds swing by a third either way on two cores
    // shared with the server: many of them steady the medians.
    const int asyncRounds = 7 * rounds;
    // What each side must get back: the reply's data for ours, the whole reply for curl.
    std::wstring expectedOurs;
    service.GeneralSyncGetApiRequest(L"/qmtest/ping", false, expectedOurs, 10000);
    curl.Get();
    const std::string expectedCurl = curl.Body();
    for (AsyncRow& row : asyncRows) {
        // Both sides keep their connections from the warm-up round on.
        BareMulti bare(url, ca.toStdString(), row.inFlight);
        const bool warm = OursAsync(service, row.inFlight, 100, expectedOurs) > 0 && bare.Run(100, expectedCurl) > 0;
        for (int r = 0; warm && r < asyncRounds; ++r) {
            // Sides alternate in going first, so that drift within a pair hits both alike.
            for (int side = 0; side < 2; ++side) {
                const double cpu = CpuMicros();
                const bool oursTurn = (side + r) % 2 == 0;
                if (!onlySide.isEmpty() && onlySide != QLatin1String(oursTurn ? "ours" : "curl"))
                    continue;
                if (oursTurn) {
                    row.ours.push_back(OursAsync(service, row.inFlight, asyncTotal, expectedOurs));
                    row.oursCpu.push_back((CpuMicros() - cpu) / asyncTotal);
                } else {
                    row.curl.push_back(bare.Run(asyncTotal, expectedCurl));
                    row.curlCpu.push_back((CpuMicros() - cpu) / asyncTotal);
                }
            }
            if ((!row.ours.empty() && row.ours.back() <= 0) || (!row.curl.empty() && row.curl.back() <= 0))
                break;
        }
        if (!warm || (!row.ours.empty() && row.ours.back() <= 0) || (!row.curl.empty() && row.curl.back() <= 0)) {
            std::fprintf(stderr, "bench_pipeline: an asynchronous reply at %d in flight was not the server's pong\n",
                         row.inFlight);
            return 1;
        }
    }

    const Stats get = Summarize(oursTimes), raw = Summarize(curlTimes), post = Summarize(postTimes);
    const Stats newOurs = Summarize(oursNew), newCurl = Summarize(curlNew);
    const Stats firstOurs = Summarize(oursFirst), firstCurl = Summarize(curlFirst);
    if (json) {
        QJsonArray async;
        for (const AsyncRow& row : asyncRows)
            async.append(QJsonObject{{"in_flight", row.inFlight},
                                     {"ours_per_s", Json(Summarize(row.ours))},
                                     {"curl_per_s", Json(Summarize(row.curl))},
                                     {"ours_cpu_us", Json(Summarize(row.oursCpu))},
                                     {"curl_cpu_us", Json(Summarize(row.curlCpu))},
                                     {"ratio", qRound(Summarize(row.ours).median / Summarize(row.curl).median * 100) / 100.0}});
        const QJsonObject report{{"calls", calls},
                                 {"get_us", Json(get)},
                                 {"curl_get_us", Json(raw)},
                                 {"post_us", Json(post)},
                                 {"new_connection_us", Json(newOurs)},
                                 {"curl_new_connection_us", Json(newCurl)},
                                 {"first_call_us", Json(firstOurs)},
                                 {"curl_first_call_us", Json(firstCurl)},
                                 {"async", async},
                                 {"rss_kib_after_1000", double(rssAfter1000)},
                                 {QStringLiteral("rss_kib_after_%1").arg(calls), double(rssAfterAll)}};
        std::printf("%s\n", QJsonDocument(report).toJson(QJsonDocument::Compact).constData());
        return 0;
    }
    std::printf("%-26s %10s %22s %10s %22s      %s\n", "row", "ours", "[min .. max]", "bare curl", "[min .. max]",
                "speed vs curl (>1: ours faster)");
    std::printf("%s\n", qPrintable(Row("sync GET, keep-alive", get, raw, "us", false)));
    std::printf("%-26s %10.1f %10s p99 curl %.1f us\n", "  p99 (us)", get.p99, "", raw.p99);
    std::printf("%s\n", qPrintable(Row("sync POST (vs curl GET)", post, raw, "us", false)));
    std::printf("%s\n", qPrintable(Row("new connection, warm", newOurs, newCurl, "us", false)));
    std::printf("%-26s %10.1f %10s p99 curl %.1f us\n", "  p99 (us)", newOurs.p99, "", newCurl.p99);
    std::printf("%s\n", qPrintable(Row("first call, fresh process", firstOurs, firstCurl, "us", false)));
    for (const AsyncRow& row : asyncRows) {
        const QByteArray name = QStringLiteral("async, %1 in flight (/s)").arg(row.inFlight).toLatin1();
        std::printf("%s\n", qPrintable(Row(name.constData(), Summarize(row.ours), Summarize(row.curl), "  ", true)));
        std::printf("%s\n", qPrintable(Row("  client CPU (us/request)", Summarize(row.oursCpu), Summarize(row.curlCpu),
                                            "us", false)));
    }
    std::printf("\nsync: %d calls a side; new connection: %zu a side; first call: %zu processes a side; async: %d "
                "rounds of %d requests\n",
                calls, oursNew.size(), oursFirst.size(), asyncRounds, asyncTotal);
    std::printf("bare curl: new connection on one handle trusting the same set (system + server CA, CA cache); "
                "first call trusting only the server's CA; async on a multi handle with the same cap (8 a host), "
                "its connections kept across rounds as ours are; every reply checked\n");
    std::printf("RSS after 1000 calls %ld KiB, after all %ld KiB (growth %ld KiB)\n", rssAfter1000, rssAfterAll,
                rssAfterAll - rssAfter1000);
    return 0;
}
