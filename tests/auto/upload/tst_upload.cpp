#include "QMMemberWebService.h"

#include "QMMemberWebService/AwsInfoKey.h"
#include "QMMemberWebService/Cipher.h"
#include "ServerFixture.h"
#include "TestService.h"
#include "registry/QMRegistryAgent.h"

#include <QCryptographicHash>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QPointer>
#include <QUuid>
#include <QtTest>

#include <curl/curl.h>

#include <cstring>
#include <map>

Q_DECLARE_METATYPE(std::wstring)

namespace {

const std::wstring kProduct = L"SOFTWARE\\Quillmarsh\\Upload Test";
const QString kLogPath = QStringLiteral("/ContentManager/v1/Upload/GetUploadedContentProcessLog");
const QString kAwsPath = QStringLiteral("/ContentManager/v1/Upload/AWSInfo");
// Storage the server hands out; nothing listens there, so processing can only fail on it.
const QString kStorageKey = QStringLiteral("test:tester");
const QString kStorageSecret = QStringLiteral("upload-test-secret");
const QString kBucket = QStringLiteral("packs");
constexpr int kIntervalMs = 40;

// Every inner service any test's service made, to see them all gone.
QList<QPointer<CQMMemberWebService>> g_inners;

class UploadService : public TestService
{
public:
    using TestService::TestService;
    CQMMemberWebService* InnerMemberService() override
    {
        CQMMemberWebService* inner = TestService::InnerMemberService();
        if (inner && !g_inners.contains(inner))
            g_inners.append(inner);
        return inner;
    }
};

int LiveInners()
{
    int live = 0;
    for (const QPointer<CQMMemberWebService>& inner : qAsConst(g_inners))
        live += inner.isNull() ? 0 : 1;
    return live;
}

long Threads()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith("Threads:"))
            return line.mid(8).trimmed().toLong();
    }
    return -1;
}

QString W(const std::wstring& text)
{
    return QString::fromStdWString(text);
}

QJsonArray Array(const char* json)
{
    return QJsonDocument::fromJson(json).array();
}

// A reply of the storage-credential call whose "aws_info" is \a info as given.
QString AwsReply(const QString& info)
{
    return QString::fromUtf8(QJsonDocument(QJsonObject{{"apiStatus", 2},
                                                       {"result", QJsonObject{{"status", 2},
                                                                              {"data", QJsonObject{{"aws_info", info}}}}}})
                                 .toJson(QJsonDocument::Compact));
}

QString Encipher(const char* plain)
{
    const std::string key = QMService::AwsInfoKey();
    return QMCipher::Encrypt(QString::fromUtf8(plain), QByteArray(key.data(), int(key.size())));
}

// Puts an object into the storage as a host would, SigV4-signed; the storage's HTTP status.
long PutObject(const QString& url, const QString& key, const QString& secret, const QByteArray& body)
{
    CURL* curl = curl_easy_init();
    const QByteArray target = url.toUtf8();
    const QByteArray user = key.toUtf8();
    const QByteArray password = secret.toUtf8();
    const QByteArray hash =
        "x-amz-content-sha256: " + QCryptographicHash::hash(body, QCryptographicHash::Sha256).toHex();
    curl_slist* headers = curl_slist_append(nullptr, hash.constData());
    headers = curl_slist_append(headers, "Content-Type: application/octet-stream");
    curl_easy_setopt(curl, CURLOPT_URL, target.constData());
    curl_easy_setopt(curl, CURLOPT_AWS_SIGV4, "aws:amz:us-east-1:s3");
    curl_easy_setopt(curl, CURLOPT_USERNAME, user.constData());
    curl_easy_setopt(curl, CURLOPT_PASSWORD, password.constData());
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, "PUT");
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.constData());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, long(body.size()));
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, 30L);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, +[](char*, size_t size, size_t count, void*) { return size * count; });
    long status = 0;
    if (curl_easy_perform(curl) == CURLE_OK)
        curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    curl_slist_free_all(headers);
    curl_easy_cleanup(curl);
    return status;
}

} // namespace

class TestUpload : public QObject
{
    Q_OBJECT

private:
    ServerFixture m_server;
    StoreFolder m_store;
    QString m_memberId;
    std::wstring m_access;
    std::wstring m_refresh;
    std::unique_ptr<ServerFixture> m_storageServer; // with the storage of QM_S3_URL, made when needed

    // The log requests the server saw for one pack.
    int LogRequests(const QString& packId)
    {
        int count = 0;
        for (const QJsonObject& entry : m_server.Requests(kLogPath))
            count += entry.value("target").toString().endsWith("PackID=" + packId) ? 1 : 0;
        return count;
    }

    void Script(const QString& packId, const QJsonArray& logs)
    {
        m_server.Admin("/admin/upload/script", {{"PackID", packId}, {"logs", logs}});
    }

private slots:
    void initTestCase()
    {
        qRegisterMetaType<std::wstring>("std::wstring");
        QVERIFY(m_server.Start({"--storage", "http://127.0.0.1:9", "--storage-key", kStorageKey, "--storage-secret",
                                kStorageSecret, "--bucket", kBucket}));
        m_server.Export();
        static QMRegistryTool::CQMRegistryAgent agent;
        CQMMemberWebService::SetRegistryInterface(&agent);
        const QJsonObject tokens = m_server.Admin("/admin/token", {{"email", "upload@quillmarsh.test"}});
        m_memberId = tokens.value("memberid").toString();
        m_access = tokens.value("access_token").toString().toStdWString();
        m_refresh = tokens.value("refresh_token").toString().toStdWString();
        UploadService service(kProduct, false, 10000, 0);
        QVERIFY(service.SaveMemberToken(m_access, m_refresh));
    }

    void init() { m_server.Reset(); }

    void initInfoAndLogOfUnknownPack()
    {
        UploadService service(kProduct, false, 10000, 0);
        std::wstring out = L"before";
        QCOMPARE(int(service.GetContentUploadInitInfo(L"QM-PAINT", L"2.0", out, 10000)), 2);
        const QJsonObject info = QJsonDocument::fromJson(W(out).toUtf8()).object();
        QCOMPARE(info.value("Bucket").toString(), kBucket);
        QCOMPARE(info.value("KeyPrefix").toString(), QStringLiteral("members/%1/").arg(m_memberId));
        QCOMPARE(m_server.Requests("/ContentManager/v1/Upload/UploadInfoInit").value(0).value("target").toString(),
                 QStringLiteral("/ContentManager/v1/Upload/UploadInfoInit?ProductID=QM-PAINT&Version=2.0"));
        // The server's "no such pack" is passed through, and the output replaced by nothing.
        QCOMPARE(int(service.GetUploadContentMetaDataLog(L"no-such-pack", out, 10000)), 4);
        QVERIFY(out.empty());
    }

    void generateContentIdBody_data()
    {
        QTest::addColumn<QStringList>("products");
        QTest::addColumn<QString>("body");
        QTest::addColumn<QStringList>("ids");
        QTest::newRow("upper case first, trailing comma")
            << QStringList{"b", "A"}
            << R"({"generate_info":[{"ap_product":"A","count":2},{"ap_product":"b","count":1},]})"
            << QStringList{"A-000001", "A-000002", "b-000001"};
        QTest::newRow("empty") << QStringList() << R"({"generate_info":[]})" << QStringList();
    }
    void generateContentIdBody()
    {
        QFETCH(QStringList, products);
        QFETCH(QString, body);
        QFETCH(QStringList, ids);
        std::map<std::wstring, int> counts;
        for (const QString& product : products)
            counts[product.toStdWString()] = product == "A" ? 2 : 1;
        UploadService service(kProduct, false, 10000, 0);
        std::wstring out;
        QCOMPARE(int(service.GetGenerateContentID(counts, out, 10000)), 2);
        QCOMPARE(m_server.Requests("/ContentManager/v1/Upload/GenerateContentID").value(0).value("body").toString(),
                 body);
        QStringList got;
        for (const QJsonValue& entry : QJsonDocument::fromJson(W(out).toUtf8()).array())
            for (const QJsonValue& id : entry.toObject().value("content_id").toArray())
                got << id.toString();
        QCOMPARE(got, ids);
    }

    void awsInfo_data()
    {
        QTest::addColumn<QString>("reply"); // empty: the server's own
        QTest::addColumn<int>("result");
        QTest::addColumn<QStringList>("outputs");
        QTest::newRow("server's own") << QString() << 2 << QStringList{kStorageKey, kStorageSecret, kBucket};
        QTest::newRow("no bucket name") << AwsReply(Encipher(R"({"aws_accesskey":"AK","aws_secretkey":"SK"})")) << -12
                                        << QStringList{"AK", "SK", ""};
        QTest::newRow("not hexadecimal") << AwsReply("not hex at all") << -12 << QStringList{"old", "old", "old"};
        QTest::newRow("deciphers to no JSON") << AwsReply(Encipher("plain words")) << -12
                                              << QStringList{"old", "old", "old"};
        QTest::newRow("refused by the server") << R"({"apiStatus":2,"result":{"status":5}})" << -12
                                               << QStringList{"old", "old", "old"};
    }
    void awsInfo()
    {
        QFETCH(QString, reply);
        QFETCH(int, result);
        QFETCH(QStringList, outputs);
        if (!reply.isEmpty())
            m_server.Fault({{"path", kAwsPath}, {"body", reply}});
        UploadService service(kProduct, false, 10000, 0);
        std::wstring access = L"old";
        std::wstring secret = L"old";
        std::wstring bucket = L"old";
        QCOMPARE(int(service.GetContentUploadAWSInfo(access, secret, bucket, 10000)), result);
        QCOMPARE(W(access), outputs.at(0));
        QVERIFY2(W(secret) == outputs.at(1), "the secret output is not the expected one");
        QCOMPARE(W(bucket), outputs.at(2));
        QCOMPARE(m_server.Requests(kAwsPath).size(), 1);
    }

    // Metadata goes out as it is, with no request identifier; the server processes the pack
    // for real and polling reads its final status.
    void metaDataThenProcessing_data()
    {
        QTest::addColumn<bool>("whole");
        QTest::addColumn<QString>("item");
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("logLine");
        const QString hash(64, QLatin1Char('a'));
        QTest::newRow("whole, bad metadata")
            << true << R"({"ContentID":"c1","Title":"Tree","Type":1,"Key":"k/c1","Size":3})" << 33 << "SHA256";
        QTest::newRow("item, storage unreachable")
            << false
            << QStringLiteral(R"({"ContentID":"c2","Title":"Leaf","Type":1,"Key":"k/c2","Size":3,"SHA256":"%1"})").arg(hash)
            << 34 << "could not be read";
    }
    void metaDataThenProcessing()
    {
        QFETCH(bool, whole);
        QFETCH(QString, item);
        QFETCH(int, status);
        QFETCH(QString, logLine);
        const QString packId = QUuid::createUuid().toString(QUuid::WithoutBraces);
        const QString metadata = QStringLiteral(R"({"PackID":"%1","ProductID":"QM-PAINT","Version":"2.0",%2})")
                                     .arg(packId, QString::fromLatin1(whole ? R"("Items":[%1])" : R"("Item":%1)"))
                                     .arg(item);
        UploadService service(kProduct, false, 10000, 0);
        QSignalSpy finished(&service, &CQMMemberWebService::FinishApiRequest);
        QCOMPARE(int(service.UploadContentMetaData(metadata.toStdWString(), 10000, whole)), 2);
        const QString path = whole ? "/ContentManager/v1/Upload/UploadMetaData"
                                   : "/ContentManager/v1/Upload/UploadMetaData/Item";
        QCOMPARE(m_server.Requests(path).value(0).value("body").toString(), metadata);
        QCOMPARE(finished.size(), 1);
        QVERIFY(finished.at(0).at(2).toString().isEmpty());

        QSignalSpy result(&service, &CQMMemberWebService::UploadResult);
        service.MemberUploadPollingAsync(packId.toStdWString(), 0, kIntervalMs, false);
        QVERIFY(result.wait(10000));
        QCOMPARE(result.at(0).at(0).toInt(), status);
        std::wstring log;
        QCOMPARE(int(service.GetUploadContentMetaDataLog(packId.toStdWString(), log, 10000)), 2);
        const QJsonObject object = QJsonDocument::fromJson(W(log).toUtf8()).object();
        QCOMPARE(object.value("ProcessStatus").toInt(), status);
        QVERIFY2(object.value("Log").toString().contains(logLine), qPrintable(object.value("Log").toString()));
    }

    // Real processing against the S3-compatible storage that ./qm test starts (QM_S3_URL):
    // the objects a host put there are checked and the pack published, or its fault named.
    void processingAgainstStorage_data()
    {
        QTest::addColumn<int>("fault"); // 0 none, 1 object missing, 2 size differs, 3 hash differs
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("logLine");
        QTest::newRow("published") << 0 << 2 << "Published 2 item(s)";
        QTest::newRow("object missing") << 1 << 30 << "is missing";
        QTest::newRow("size differs") << 2 << 31 << "the metadata says";
        QTest::newRow("hash differs") << 3 << 32 << "does not have the SHA-256";
    }
    void processingAgainstStorage()
    {
        QFETCH(int, fault);
        QFETCH(int, status);
        QFETCH(QString, logLine);
        const QString url = qEnvironmentVariable("QM_S3_URL");
        if (url.isEmpty())
            QSKIP("no storage: ./qm test starts one and sets QM_S3_URL");
        if (!m_storageServer) {
            m_storageServer = std::make_unique<ServerFixture>();
            QVERIFY(m_storageServer->Start({"--storage", url, "--storage-key", qEnvironmentVariable("QM_S3_KEY"),
                                            "--storage-secret", qEnvironmentVariable("QM_S3_SECRET"), "--bucket",
                                            "uploadtest"}));
        }
        // The other tests' server and member come back however this one ends.
        struct Restore {
            TestUpload* test;
            ~Restore()
            {
                test->m_server.Export();
                UploadService(kProduct, false, 10000, 0).SaveMemberToken(test->m_access, test->m_refresh);
            }
        } restore{this};
        m_storageServer->Export();
        const QJsonObject tokens = m_storageServer->Admin("/admin/token", {{"email", "upload@quillmarsh.test"}});
        UploadService service(kProduct, false, 10000, 0);
        QVERIFY(service.SaveMemberToken(tokens.value("access_token").toString().toStdWString(),
                                        tokens.value("refresh_token").toString().toStdWString()));
        std::wstring access;
        std::wstring secret;
        std::wstring bucket;
        QCOMPARE(int(service.GetContentUploadAWSInfo(access, secret, bucket, 10000)), 2);

        // Two objects of 300 KiB each.
        const QString packId = QUuid::createUuid().toString(QUuid::WithoutBraces);
        QJsonArray items;
        for (int i = 0; i < 2; ++i) {
            QByteArray body(300 * 1024, char('a' + i));
            const QString key = QStringLiteral("members/%1/%2/%3").arg(tokens.value("memberid").toString(), packId).arg(i);
            const QString hash = QString::fromLatin1(QCryptographicHash::hash(body, QCryptographicHash::Sha256).toHex());
            if (!(fault == 1 && i == 1))
                QCOMPARE(PutObject(url + "/" + W(bucket) + "/" + key, W(access), W(secret),
                                   fault == 3 && i == 1 ? body.replace(0, 1, "z") : body),
                         200L);
            items.append(QJsonObject{{"ContentID", QStringLiteral("%1-%2").arg(packId).arg(i)},
                                     {"Title", QStringLiteral("Piece %1").arg(i)},
                                     {"Type", 1},
                                     {"Key", key},
                                     {"Size", body.size() + (fault == 2 && i == 1 ? 1 : 0)},
                                     {"SHA256", hash}});
        }
        const QJsonObject metadata{{"PackID", packId}, {"ProductID", "QM-PAINT"}, {"Version", "2.0"}, {"Items", items}};
        QSignalSpy progressSpy(&service, &CQMMemberWebService::UploadMetaDataProgress);
        QSignalSpy resultSpy(&service, &CQMMemberWebService::UploadResult);
        QCOMPARE(int(service.UploadContentMetaData(
                     QString::fromUtf8(QJsonDocument(metadata).toJson(QJsonDocument::Compact)).toStdWString(), 10000,
                     true)),
                 2);
        service.MemberUploadPollingAsync(packId.toStdWString(), 0, 5, false);
        QVERIFY(resultSpy.wait(20000));
        QCOMPARE(resultSpy.at(0).at(0).toInt(), status);
        int last = 0;
        for (const QList<QVariant>& signal : qAsConst(progressSpy)) {
            QVERIFY(signal.at(0).toInt() >= last && signal.at(0).toInt() < 100);
            last = signal.at(0).toInt();
        }
        std::wstring log;
        QCOMPARE(int(service.GetUploadContentMetaDataLog(packId.toStdWString(), log, 10000)), 2);
        const QJsonObject object = QJsonDocument::fromJson(W(log).toUtf8()).object();
        QVERIFY2(object.value("Log").toString().contains(logLine), qPrintable(object.value("Log").toString()));
        QCOMPARE(object.value("Percentage").toInt() == 100, status == 2);
    }

    // Scripted processing logs: each log request takes the next entry, the last one stays.
    void polling_data()
    {
        QTest::addColumn<QJsonArray>("logs");
        QTest::addColumn<int>("stopAfter"); // progress signals before StopUploadPolling; 0: none
        QTest::addColumn<QList<int>>("progress");
        QTest::addColumn<int>("result");
        QTest::newRow("queued, running, published")
            << Array(R"([{"ProcessStatus":11,"Percentage":7},{"ProcessStatus":0,"Percentage":40},
                         {"ProcessStatus":0,"Percentage":80},{"ProcessStatus":2,"Percentage":100}])")
            << 0 << QList<int>{0, 40, 80} << 2;
        QTest::newRow("stays 0 until stopped") << Array(R"([{"ProcessStatus":0,"Percentage":37}])") << 3
                                               << QList<int>{37, 37, 37} << -8;
        QTest::newRow("empty object goes on") << Array("[{}]") << 3 << QList<int>{0, 0, 0} << -8;
        QTest::newRow("first log final") << Array(R"([{"ProcessStatus":32,"Percentage":50}])") << 0 << QList<int>()
                                         << 32;
        QTest::newRow("not JSON") << Array(R"(["<html>busy</html>"])") << 0 << QList<int>() << -1;
        QTest::newRow("no data") << Array("[null]") << 0 << QList<int>() << -1;
    }
    void polling()
    {
        QFETCH(QJsonArray, logs);
        QFETCH(int, stopAfter);
        QFETCH(QList<int>, progress);
        QFETCH(int, result);
        const QString packId = QUuid::createUuid().toString(QUuid::WithoutBraces);
        Script(packId, logs);
        UploadService service(kProduct, false, 10000, 0);
        QSignalSpy progressSpy(&service, &CQMMemberWebService::UploadMetaDataProgress);
        QSignalSpy resultSpy(&service, &CQMMemberWebService::UploadResult);
        QElapsedTimer clock;
        clock.start();
        service.MemberUploadPollingAsync(packId.toStdWString(), 0, kIntervalMs, false);
        QVERIFY(service.IsUploadPollingThreadRunning());
        service.MemberUploadPollingAsync(packId.toStdWString(), 0, kIntervalMs, false); // runs already: nothing
        if (stopAfter) {
            QTRY_VERIFY_WITH_TIMEOUT(progressSpy.size() >= stopAfter, 10000);
            QVERIFY(resultSpy.isEmpty());
            service.StopUploadPolling();
        }
        QVERIFY(resultSpy.wait(10000));
        const qint64 elapsed = clock.elapsed();
        QTRY_VERIFY_WITH_TIMEOUT(!service.IsUploadPollingThreadRunning(), 10000);
        QCOMPARE(LiveInners(), 0);
        QCOMPARE(resultSpy.size(), 1);
        QCOMPARE(resultSpy.at(0).at(0).toInt(), result);

        QList<int> got;
        for (const QList<QVariant>& signal : qAsConst(progressSpy))
            got << signal.at(0).toInt();
        const int requests = LogRequests(packId);
        if (stopAfter) {
            // Progress on every pass until the stop; the request in flight then reports nothing.
            QVERIFY(got.size() >= stopAfter);
            QCOMPARE(got.mid(0, stopAfter), progress);
            for (int value : qAsConst(got))
                QCOMPARE(value, progress.first());
            QVERIFY2(requests - got.size() <= 1, qPrintable(QStringLiteral("%1 requests").arg(requests)));
        } else {
            QCOMPARE(got, progress);
            QCOMPARE(requests, progress.size() + 1); // one loop, the second start made none
            QVERIFY2(elapsed >= requests * kIntervalMs, qPrintable(QStringLiteral("%1 ms").arg(elapsed)));
        }
    }

    void fiftyRoundsLeaveNothingBehind()
    {
        const QString packId = QUuid::createUuid().toString(QUuid::WithoutBraces);
        Script(packId, Array(R"([{"ProcessStatus":2}])"));
        // One host object polls again as soon as the last polling is over.
        UploadService service(kProduct, false, 10000, 0);
        auto round = [&packId, &service](int stopped) {
            QSignalSpy resultSpy(&service, &CQMMemberWebService::UploadResult);
            service.MemberUploadPollingAsync(packId.toStdWString(), 0, 1, false);
            if (stopped)
                service.StopUploadPolling();
            if (!resultSpy.wait(10000))
                return -100;
            if (!QTest::qWaitFor([&] { return !service.IsUploadPollingThreadRunning(); }, 10000))
                return -101;
            return resultSpy.size() == 1 ? resultSpy.at(0).at(0).toInt() : -102;
        };
        QCOMPARE(round(0), 2); // warms up the transport's threads
        const long threads = Threads();
        for (int i = 0; i < 50; ++i) {
            const int stopped = i % 5 == 4;
            QCOMPARE(round(stopped), stopped ? -8 : 2);
        }
        // Threads of the transport may come and go; none may be left over.
        QTRY_VERIFY_WITH_TIMEOUT(Threads() <= threads, 10000);
        QCOMPARE(LiveInners(), 0);
    }

    // The host's service goes while it polls: between two requests or with one in flight.
    void destroyedWhilePolling_data()
    {
        QTest::addColumn<int>("delayMs");
        QTest::newRow("between requests") << 0;
        QTest::newRow("request in flight") << 400;
    }
    void destroyedWhilePolling()
    {
        QFETCH(int, delayMs);
        const QString packId = QUuid::createUuid().toString(QUuid::WithoutBraces);
        Script(packId, Array(R"([{"ProcessStatus":0,"Percentage":10}])"));
        const long threads = Threads();
        auto* service = new UploadService(kProduct, false, 10000, 0);
        QSignalSpy progressSpy(service, &CQMMemberWebService::UploadMetaDataProgress);
        service->MemberUploadPollingAsync(packId.toStdWString(), 0, kIntervalMs, false);
        QVERIFY(progressSpy.wait(10000));
        if (delayMs) {
            m_server.Fault({{"path", kLogPath}, {"delay_ms", delayMs}});
            const int before = LogRequests(packId);
            QTRY_VERIFY_WITH_TIMEOUT(m_server.Admin("/admin/stats").value("requests").toInt() > before, 10000);
        }
        QElapsedTimer clock;
        clock.start();
        delete service;
        QVERIFY2(clock.elapsed() < 3000, qPrintable(QStringLiteral("%1 ms").arg(clock.elapsed())));
        // Threads of the transport may come and go; none may be left over.
        QTRY_VERIFY_WITH_TIMEOUT(Threads() <= threads, 10000);
        QCOMPARE(LiveInners(), 0);
    }
};

QTEST_GUILESS_MAIN(TestUpload)
#include "tst_upload.moc"
