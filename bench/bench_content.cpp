// GetContentMetaData for 100, 1,000 and 10,000 IDs against bare libcurl plus one QJsonDocument
// parse of the same reply, interleaved, on a qmmember-server seeded with --seed catalogue=N.
// Usage: bench_content [--json] [--reps N] [--sizes 100,1000]   (QM_API_HOST and QM_CA_FILE name a server started
// with --admin: the member's tokens come from its /admin/token)
#include "QMMemberWebService.h"

#include "registry/QMRegistryAgent.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

#include <curl/curl.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <vector>

#include <malloc.h>

// The process's live heap, counted by wrapping glibc's allocator: the bytes a call needs at
// once, whatever the allocator does with freed memory (resident memory alone also counts blocks
// kept from earlier calls, or hides the reuse of them).
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* block);
}

namespace {

std::atomic<long long> g_liveHeap{0};
std::atomic<long long> g_peakHeap{0};

void* Counted(void* block)
{
    if (block) {
        const long long live = g_liveHeap += static_cast<long long>(malloc_usable_size(block));
        long long peak = g_peakHeap.load(std::memory_order_relaxed);
        while (live > peak && !g_peakHeap.compare_exchange_weak(peak, live, std::memory_order_relaxed)) {
        }
    }
    return block;
}

void Uncounted(void* block)
{
    if (block)
        g_liveHeap -= static_cast<long long>(malloc_usable_size(block));
}

// The next peak is measured from the live heap now.
long long ResetHeapPeak()
{
    const long long live = g_liveHeap.load();
    g_peakHeap.store(live);
    return live;
}

} // namespace

extern "C" {
void* malloc(size_t size)
{
    return Counted(__libc_malloc(size));
}
void* calloc(size_t count, size_t size)
{
    return Counted(__libc_calloc(count, size));
}
void* realloc(void* block, size_t size)
{
    Uncounted(block);
    void* moved = __libc_realloc(block, size);
    // A failed realloc keeps the block; realloc to 0 frees it.
    return Counted(moved ? moved : (size ? block : nullptr));
}
void* memalign(size_t alignment, size_t size)
{
    return Counted(__libc_memalign(alignment, size));
}
void* aligned_alloc(size_t alignment, size_t size)
{
    return Counted(__libc_memalign(alignment, size));
}
int posix_memalign(void** block, size_t alignment, size_t size)
{
    if (alignment % sizeof(void*) != 0 || (alignment & (alignment - 1)) != 0)
        return 22; // EINVAL
    void* aligned = Counted(__libc_memalign(alignment, size));
    if (!aligned && size)
        return 12; // ENOMEM
    *block = aligned;
    return 0;
}
void free(void* block)
{
    Uncounted(block);
    __libc_free(block);
}
}

namespace {

// Reaches the token store, as a host's sign-in would have filled it.
class BenchService : public CQMMemberWebService
{
public:
    using CQMMemberWebService::CQMMemberWebService;
    using CQMMemberWebService::SaveMemberToken;
};

long StatusKiB(const char* field)
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith(field))
            return line.mid(int(qstrlen(field))).trimmed().split(' ').first().toLong();
    }
    return -1;
}

// Linux: "5" resets VmHWM to the current RSS, so that the next peak is one call's own.
void ResetPeak()
{
    QFile refs(QStringLiteral("/proc/self/clear_refs"));
    if (refs.open(QIODevice::WriteOnly))
        refs.write("5");
}

struct Stats {
    double median = 0, min = 0, max = 0;
};

Stats Of(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values.empty() ? Stats() : Stats{values[values.size() / 2], values.front(), values.back()};
}

double Round(double value, int digits)
{
    const double scale = digits == 2 ? 100 : 10;
    return qRound64(value * scale) / scale;
}

size_t Collect(char* data, size_t size, size_t count, void* body)
{
    static_cast<std::string*>(body)->append(data, size * count);
    return size * count;
}

// The baseline: one kept-alive libcurl handle sending the same POST, then one parse.
class RawCurl
{
public:
    RawCurl(const std::string& url, const std::string& ca, const std::string& token)
        : m_easy(curl_easy_init())
    {
        curl_easy_setopt(m_easy, CURLOPT_URL, url.c_str());
        curl_easy_setopt(m_easy, CURLOPT_CAINFO, ca.c_str());
        curl_easy_setopt(m_easy, CURLOPT_WRITEFUNCTION, &Collect);
        curl_easy_setopt(m_easy, CURLOPT_WRITEDATA, &m_body);
        curl_easy_setopt(m_easy, CURLOPT_TCP_NODELAY, 1L);
        const std::string authorization = "Authorization: Token " + token;
        for (const char* line : {"Compress-Output: false", "User-Agent: QMAutoTestAgent", "QM_Sign;", "QM_SignCheck;",
                                 "Content-Type: application/json", "Expect:", authorization.c_str()})
            m_headers = curl_slist_append(m_headers, line);
        curl_easy_setopt(m_easy, CURLOPT_HTTPHEADER, m_headers);
    }
    ~RawCurl()
    {
        curl_easy_cleanup(m_easy);
        curl_slist_free_all(m_headers);
    }
    // POSTs \a body and parses the reply once; the document for the agreement check.
    bool Post(const std::string& body, QJsonDocument& document)
    {
        m_body.clear();
        curl_easy_setopt(m_easy, CURLOPT_POSTFIELDS, body.data());
        curl_easy_setopt(m_easy, CURLOPT_POSTFIELDSIZE_LARGE, curl_off_t(body.size()));
        if (curl_easy_perform(m_easy) != CURLE_OK)
            return false;
        document = QJsonDocument::fromJson(QByteArray::fromRawData(m_body.data(), int(m_body.size())));
        return !document.isNull();
    }
    size_t ReplyBytes() const { return m_body.size(); }

private:
    CURL* m_easy;
    curl_slist* m_headers = nullptr;
    std::string m_body;
};

// The body GetContentMetaData sends, for the baseline.
std::string MetaDataBody(const std::vector<std::wstring>& ids)
{
    std::string body = "{\"ProductID\":\"BenchStudio\",\"Version\":1,\"ContentID\":[";
    for (size_t i = 0; i < ids.size(); ++i) {
        if (i)
            body += ',';
        body += '"' + QString::fromStdWString(ids[i]).toStdString() + '"';
    }
    return body + "],\"RequestIndex\":0,\"RequestTarget\":1}";
}

// The tokens of the benchmark's member, from the server's admin call.
QJsonObject AdminTokens(const std::string& host, const std::string& ca)
{
    CURL* easy = curl_easy_init();
    std::string reply;
    const std::string url = "https://" + host + "/admin/token";
    const char body[] = "{\"email\":\"bench@quillmarsh.test\"}";
    curl_slist* headers = curl_slist_append(nullptr, "Content-Type: application/json");
    curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
    curl_easy_setopt(easy, CURLOPT_CAINFO, ca.c_str());
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(easy, CURLOPT_POSTFIELDS, body);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Collect);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, &reply);
    curl_easy_perform(easy);
    curl_slist_free_all(headers);
    curl_easy_cleanup(easy);
    return QJsonDocument::fromJson(QByteArray::fromStdString(reply)).object();
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    const QStringList args = application.arguments();
    const bool json = args.contains(QStringLiteral("--json"));
    const int reps = args.contains(QStringLiteral("--reps"))
                         ? qMax(1, args.value(args.indexOf(QStringLiteral("--reps")) + 1).toInt())
                         : 7;
    const QString host = qEnvironmentVariable("QM_API_HOST");
    const QString ca = qEnvironmentVariable("QM_CA_FILE");
    if (host.isEmpty() || ca.isEmpty()) {
        std::fprintf(stderr, "bench_content: set QM_API_HOST and QM_CA_FILE to a qmmember-server with --admin\n");
        return 2;
    }
    const QJsonObject tokens = AdminTokens(host.toStdString(), ca.toStdString());
    if (tokens.value(QStringLiteral("access_token")).toString().isEmpty()) {
        std::fprintf(stderr, "bench_content: the server gave no token: is it running with --admin?\n");
        return 1;
    }
    QTemporaryDir store;
    qputenv("QM_REGISTRY_DIR", store.path().toLocal8Bit());
    static QMRegistryTool::CQMRegistryAgent agent;
    CQMMemberWebService::SetRegistryInterface(&agent);
    BenchService service(0);
    const QString access = tokens.value(QStringLiteral("access_token")).toString();
    if (!service.SaveMemberToken(access.toStdWString(),
                                 tokens.value(QStringLiteral("refresh_token")).toString().toStdWString())) {
        std::fprintf(stderr, "bench_content: cannot store the member's tokens\n");
        return 1;
    }
    RawCurl curl("https://" + host.toStdString() + "/ContentManager/v3/Content/MetaData", ca.toStdString(),
                 access.toStdString());

    QJsonArray report;
    QList<int> sizes{100, 1000, 10000};
    if (args.contains(QStringLiteral("--sizes"))) {
        sizes.clear();
        for (const QString& size : args.value(args.indexOf(QStringLiteral("--sizes")) + 1).split(QLatin1Char(',')))
            if (size.toInt() > 0 && size.toInt() <= 20000)
                sizes.append(size.toInt());
    }
    for (const int size : sizes) {
        std::vector<std::wstring> ids;
        ids.reserve(size_t(size));
        for (int n = 1; n <= size; ++n)
            ids.push_back(QStringLiteral("BENCH-%1").arg(n, 6, 10, QLatin1Char('0')).toStdWString());
        const std::string body = MetaDataBody(ids);

        auto ours = [&](std::wstring& text) {
            const auto result = service.GetContentMetaData(L"BenchStudio", L"1", ids, 0, 1, text, 120000);
            QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
            return result == CQMMemberWebService::WS_OK;
        };
        // One warm-up each, and the check that both roads give the same data. The warm-up's peak is
        // reported too: the first call at a size also grows the heap that later calls reuse.
        std::wstring text;
        QJsonDocument document;
        ResetPeak();
        const long firstBefore = StatusKiB("VmRSS:");
        const long long firstHeap = ResetHeapPeak();
        const bool firstOk = ours(text);
        const long firstPeakKiB = StatusKiB("VmHWM:") - firstBefore;
        const long long firstHeapPeak = g_peakHeap.load() - firstHeap;
        if (!firstOk || !curl.Post(body, document)) {
            std::fprintf(stderr, "bench_content: requests for %d IDs fail\n", size);
            return 1;
        }
        const QJsonValue expected = document.object().value(QStringLiteral("result")).toObject().value(
            QStringLiteral("data"));
        const QJsonDocument got = QJsonDocument::fromJson(QString::fromStdWString(text).toUtf8());
        if (!expected.isObject() || got.object() != expected.toObject()
            || got.object().value(QStringLiteral("Items")).toArray().size() != size) {
            std::fprintf(stderr, "bench_content: our data and the baseline's differ for %d IDs\n", size);
            return 1;
        }
        const size_t replyBytes = curl.ReplyBytes();

        std::vector<double> oursMs;
        std::vector<double> baseMs;
        long peakKiB = 0;
        long long heapPeak = firstHeapPeak;
        long long baseHeapPeak = 0;
        QElapsedTimer clock;
        for (int rep = 0; rep < reps; ++rep) {
            std::wstring out;
            ResetPeak();
            const long before = StatusKiB("VmRSS:");
            long long heapBefore = ResetHeapPeak();
            clock.start();
            ours(out);
            oursMs.push_back(clock.nsecsElapsed() / 1e6);
            peakKiB = std::max(peakKiB, StatusKiB("VmHWM:") - before);
            heapPeak = std::max(heapPeak, g_peakHeap.load() - heapBefore);
            out = std::wstring();
            document = QJsonDocument();
            heapBefore = ResetHeapPeak();
            clock.start();
            curl.Post(body, document);
            baseMs.push_back(clock.nsecsElapsed() / 1e6);
            baseHeapPeak = std::max(baseHeapPeak, g_peakHeap.load() - heapBefore);
            document = QJsonDocument();
        }
        const Stats o = Of(oursMs);
        const Stats b = Of(baseMs);
        report.append(QJsonObject{{"ids", size},
                                  {"reply_bytes", double(replyBytes)},
                                  {"ours_ms_median", Round(o.median, 2)},
                                  {"ours_ms_min", Round(o.min, 2)},
                                  {"ours_ms_max", Round(o.max, 2)},
                                  {"baseline_ms_median", Round(b.median, 2)},
                                  {"baseline_ms_min", Round(b.min, 2)},
                                  {"baseline_ms_max", Round(b.max, 2)},
                                  {"ratio", Round(o.median / b.median, 2)},
                                  {"peak_rss_kib", double(peakKiB)},
                                  {"peak_per_reply", Round(peakKiB * 1024.0 / double(replyBytes), 2)},
                                  {"first_peak_rss_kib", double(firstPeakKiB)},
                                  {"first_peak_per_reply", Round(firstPeakKiB * 1024.0 / double(replyBytes), 2)},
                                  {"peak_heap_kib", double(heapPeak / 1024)},
                                  {"heap_per_reply", Round(double(heapPeak) / double(replyBytes), 2)},
                                  {"baseline_heap_per_reply", Round(double(baseHeapPeak) / double(replyBytes), 2)}});
    }
    if (json) {
        std::printf("%s\n", QJsonDocument(QJsonObject{{"reps", reps}, {"sizes", report}})
                                .toJson(QJsonDocument::Compact)
                                .constData());
        return 0;
    }
    std::printf("GetContentMetaData against libcurl + one QJsonDocument parse, %d runs each, interleaved\n", reps);
    std::printf("%7s %11s %26s %26s %6s %10s %8s %11s %11s %11s\n", "ids", "reply", "ours ms (median min-max)",
                "baseline ms (median min-max)", "ratio", "peak KiB", "peak/reply", "first/reply", "heap/reply",
                "base heap");
    for (const QJsonValue& value : report) {
        const QJsonObject r = value.toObject();
        std::printf("%7d %11.0f %10.2f (%6.2f-%6.2f) %10.2f (%6.2f-%6.2f) %6.2f %10.0f %8.2f %11.2f %11.2f %11.2f\n",
                    r["ids"].toInt(),
                    r["reply_bytes"].toDouble(), r["ours_ms_median"].toDouble(), r["ours_ms_min"].toDouble(),
                    r["ours_ms_max"].toDouble(), r["baseline_ms_median"].toDouble(), r["baseline_ms_min"].toDouble(),
                    r["baseline_ms_max"].toDouble(), r["ratio"].toDouble(), r["peak_rss_kib"].toDouble(),
                    r["peak_per_reply"].toDouble(), r["first_peak_per_reply"].toDouble(),
                    r["heap_per_reply"].toDouble(), r["baseline_heap_per_reply"].toDouble());
    }
    return 0;
}
