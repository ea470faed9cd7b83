// The publish job against the real storage (Swift with s3api, started by ./qm test) and
// qmmember-server: resume across processes, refused credentials, cancel, a changed file, a
// stalled transfer, a clock the storage refuses.
#include "QMContentPublishJob.h"
#include "QMMemberWebService.h"
#include "S3Client.h"
#include "ServerFixture.h"
#include "StallingForwarder.h"

#include <QCryptographicHash>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QRandomGenerator>
#include <QSaveFile>
#include <QScopeGuard>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QUrl>
#include <QtTest>

#include <memory>

#include <csignal>

namespace {

const std::wstring kProductKey = L"SOFTWARE\\Quillmarsh\\Publish Test";
const QString kEmail = QStringLiteral("publisher@quillmarsh.test");
const QString kPassword = QStringLiteral("publish:pw");
constexpr int kMiB = 1024 * 1024;

using Job = CQMContentPublishJob;

} // namespace

class TestPublish : public QObject
{
    Q_OBJECT

private:
    QString m_url, m_key, m_secret;
    ServerFixture m_server;
    std::unique_ptr<StoreFolder> m_store;
    QTemporaryDir m_dir;
    std::unique_ptr<CQMMemberWebService> m_service;

    bool StartServer(ServerFixture& server, const QString& secret, const QString& storageUrl = QString())
    {
        return server.Start({"--storage", storageUrl.isEmpty() ? m_url : storageUrl, "--storage-key", m_key,
                             "--storage-secret", secret, "--bucket", "publish-test"});
    }

    // A fresh service signed in to the exported server.
    std::unique_ptr<CQMMemberWebService> SignedIn(const ServerFixture& server)
    {
        server.Admin("/admin/member", {{"email", kEmail}, {"password", kPassword}});
        auto service = std::make_unique<CQMMemberWebService>(kProductKey, false, 10000, 0);
        std::wstring credential;
        const auto result = service->MemberLogIn(kEmail.toStdWString(), kPassword.toStdWString(), credential, 5000, true);
        return result == CQMMemberWebService::WS_OK ? std::move(service) : nullptr;
    }

    QString Pack(const QString& name, qint64 size)
    {
        const QString path = m_dir.filePath(name);
        QFile file(path);
        file.open(QIODevice::WriteOnly);
        QRandomGenerator random{quint32(size)};
        QByteArray block(kMiB, Qt::Uninitialized);
        for (qint64 left = size; left > 0; left -= block.size()) {
            random.fillRange(reinterpret_cast<quint32*>(block.data()), block.size() / 4);
            file.write(block.constData(), std::min<qint64>(left, block.size()));
        }
        return path;
    }

    Job::Options Options(const QString& path)
    {
        Job::Options options;
        options.filePath = path;
        options.productId = L"PublishTest";
        options.version = L"1";
        options.pollIntervalMs = 100;
        return options;
    }

    // The job's one result, or INT_MIN when none came in time.
    static int Run(Job& job, int timeoutMs = 120000 * kSanitizerSlowdown)
    {
        QSignalSpy results(&job, &Job::result);
        job.start();
        if (!results.wait(timeoutMs))
            return INT_MIN;
        return results.first().first().toInt();
    }

    QMPublish::S3Client Storage(std::atomic<bool>& stop, std::atomic<long long>& sent) const
    {
        return QMPublish::S3Client(m_url.toStdString(), m_key.toStdString(), m_secret.toStdString(), "publish-test",
                                   stop, sent);
    }

    // The open multipart uploads of \a key; "?" when the listing fails.
    QStringList OpenUploads(const QString& key) const
    {
        std::atomic<bool> stop{false};
        std::atomic<long long> sent{0};
        std::vector<std::string> open;
        if (Storage(stop, sent).ListUploads(key.toStdString(), open).status != 200)
            return {QStringLiteral("?")};
        QStringList out;
        for (const std::string& id : open)
            out << QString::fromStdString(id);
        return out;
    }

    // Whether the storage holds \a path's very bytes under \a key.
    bool Stored(const QString& key, const QString& path) const
    {
        std::atomic<bool> stop{false};
        std::atomic<long long> sent{0};
        const QMPublish::S3Reply object = Storage(stop, sent).Get(key.toStdString(), 64 * kMiB);
        QFile file(path);
        return object.status == 200 && file.open(QIODevice::ReadOnly)
               && QByteArray::fromStdString(object.body) == file.readAll();
    }

    static QJsonObject Journal(const QString& path)
    {
        QFile file(Job::JournalPath(path));
        return file.open(QIODevice::ReadOnly) ? QJsonDocument::fromJson(file.readAll()).object() : QJsonObject();
    }

    // libfaketime's library for threaded programs, or empty.
    static QString FakeTimeLibrary()
    {
        for (const QString& dir : QDir(QStringLiteral("/usr/lib")).entryList({QStringLiteral("*-linux-*")}, QDir::Dirs)) {
            const QString path = QStringLiteral("/usr/lib/%1/faketime/libfaketimeMT.so.1").arg(dir);
            if (QFile::exists(path))
                return path;
        }
        return QString();
    }

private slots:
    void initTestCase()
    {
        m_url = qEnvironmentVariable("QM_S3_URL");
        m_key = qEnvironmentVariable("QM_S3_KEY");
        m_secret = qEnvironmentVariable("QM_S3_SECRET");
        if (m_url.isEmpty() || m_key.isEmpty() || m_secret.isEmpty())
            QSKIP("no storage: ./qm test starts Swift and sets QM_S3_URL, QM_S3_KEY and QM_S3_SECRET");
        QVERIFY(m_dir.isValid());
        qRegisterMetaType<QProcess::ExitStatus>("QProcess::ExitStatus");
        qputenv("XDG_DATA_HOME", m_dir.filePath("data").toLocal8Bit());
        m_store = std::make_unique<StoreFolder>();
        QVERIFY(StartServer(m_server, m_secret));
        m_server.Export();
        m_service = SignedIn(m_server);
        QVERIFY(m_service);
    }

    void resumeInNewProcess_data()
    {
        QTest::addColumn<bool>("changed");
        QTest::newRow("same file") << false;
        QTest::newRow("file changed meanwhile") << true;
    }
    // Killed after two parts in another process, resumed here: only the missing parts go, and
    // the storage holds the file's very bytes. A file changed meanwhile starts anew, and the
    // journal's upload is aborted rather than left open.
    void resumeInNewProcess()
    {
        QFETCH(bool, changed);
        const QString path = Pack(changed ? "changed-resume.pack" : "resume.pack", 40 * kMiB);
        ServerProcess cli;
        int parts = 0;
        connect(&cli, &QProcess::readyReadStandardOutput, &cli, [&] {
            while (cli.canReadLine()) {
                if (cli.readLine().contains("\"event\":\"part\"") && ++parts == 2)
                    cli.kill();
            }
        });
        QSignalSpy ended(&cli, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished));
        cli.start(QStringLiteral(QM_CLI_BINARY), {"--json", "publish", path, "--product", "PublishTest", "--version", "1",
                                                  "--product-key", QString::fromStdWString(kProductKey)});
        QVERIFY(ended.wait(120000 * kSanitizerSlowdown));
        QCOMPARE(parts, 2);
        QVERIFY(QFile::exists(Job::JournalPath(path)));
        QString staleKey;
        if (changed) {
            QFile journal(Job::JournalPath(path));
            QVERIFY(journal.open(QIODevice::ReadOnly));
            staleKey = QJsonDocument::fromJson(journal.readAll()).object().value("key").toString();
            QVERIFY(!staleKey.isEmpty());
            QFile file(path);
            QVERIFY(file.open(QIODevice::ReadWrite));
            QVERIFY(file.seek(kMiB));
            QByteArray bytes = file.peek(16);
            for (char& byte : bytes)
                byte = char(~byte);
            file.write(bytes);
        }

        Job::Options options = Options(path);
        options.resume = true;
        Job job(m_service.get(), options);
        QCOMPARE(Run(job), int(Job::Published));
        if (changed) {
            QCOMPARE(job.PartsFound(), 0);
            QCOMPARE(job.PartsSent(), 5);
        } else {
            QVERIFY2(job.PartsFound() >= 2, qPrintable(QString::number(job.PartsFound())));
            QCOMPARE(job.PartsSent(), 5 - job.PartsFound());
        }
        QVERIFY(!QFile::exists(Job::JournalPath(path)));

        std::atomic<bool> stop{false};
        std::atomic<long long> sent{0};
        if (changed) {
            std::vector<std::string> open;
            const QMPublish::S3Reply listing = Storage(stop, sent).ListUploads(staleKey.toStdString(), open);
            QCOMPARE(listing.status, 200L);
            QVERIFY2(open.empty(), listing.body.c_str());
        }
        const QMPublish::S3Reply object = Storage(stop, sent).Get(job.ObjectKey().toStdString(), 64 * kMiB);
        QCOMPARE(object.status, 200L);
        QFile file(path);
        QVERIFY(file.open(QIODevice::ReadOnly));
        QVERIFY(QByteArray::fromStdString(object.body) == file.readAll());
    }

    // The server hands out a secret the storage does not know: said so, and the secret is not shown.
    void wrongSecret()
    {
        ServerFixture wrong;
        QVERIFY(StartServer(wrong, "not-the-secret"));
        wrong.Export();
        int code = 0;
        QString text;
        if (auto service = SignedIn(wrong)) {
            Job job(service.get(), Options(Pack("secret.pack", kMiB)));
            QSignalSpy results(&job, &Job::result);
            code = Run(job);
            text = results.value(0).value(1).toString();
        }
        // Back to the suite's server; the store holds the other server's token now: sign in again.
        m_server.Export();
        m_service = SignedIn(m_server);
        QVERIFY(m_service);
        QCOMPARE(code, int(Job::StorageRefusedCredentials));
        QVERIFY2(text.contains("SignatureDoesNotMatch"), qPrintable(text));
        QVERIFY(!text.contains("not-the-secret"));
    }

    // Cancelled after its first part, by kill() or by Ctrl-C to qmmember (exit 130): the upload is
    // aborted on the storage, no journal stays, and the service never hears of the pack.
    void cancelLeavesNothing_data()
    {
        QTest::addColumn<bool>("cli");
        QTest::newRow("kill()") << false;
        QTest::newRow("Ctrl-C") << true;
    }
    void cancelLeavesNothing()
    {
        QFETCH(bool, cli);
        const QString path = Pack(cli ? "interrupt.pack" : "cancel.pack", 24 * kMiB);
        const int metadataPosts = m_server.Requests("/ContentManager/v1/Upload/UploadMetaData").size();
        QString key;
        if (cli) {
            ServerProcess process;
            QByteArray last;
            connect(&process, &QProcess::readyReadStandardOutput, &process, [&] {
                while (process.canReadLine()) {
                    last = process.readLine();
                    if (last.contains("\"event\":\"part\""))
                        ::kill(pid_t(process.processId()), SIGINT);
                }
            });
            QSignalSpy ended(&process, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished));
            process.start(QStringLiteral(QM_CLI_BINARY),
                          {"--json", "publish", path, "--product", "PublishTest", "--version", "1", "--product-key",
                           QString::fromStdWString(kProductKey)});
            QVERIFY(ended.wait(120000 * kSanitizerSlowdown));
            QCOMPARE(process.exitStatus(), QProcess::NormalExit);
            QCOMPARE(process.exitCode(), 130);
            key = QJsonDocument::fromJson(last).object().value("key").toString();
        } else {
            Job job(m_service.get(), Options(path));
            connect(&job, &Job::partSent, &job, &Job::kill);
            QCOMPARE(Run(job), int(Job::Cancelled));
            key = job.ObjectKey();
        }
        QVERIFY(!key.isEmpty());
        std::atomic<bool> stop{false};
        std::atomic<long long> sent{0};
        std::vector<std::string> open;
        const QMPublish::S3Reply listing = Storage(stop, sent).ListUploads(key.toStdString(), open);
        QCOMPARE(listing.status, 200L);
        QVERIFY2(open.empty(), listing.body.c_str());
        QVERIFY(!QFile::exists(Job::JournalPath(path)));
        QCOMPARE(m_server.Requests("/ContentManager/v1/Upload/UploadMetaData").size(), metadataPosts);
    }

    // The file changes after it was hashed: the service finds the stored object's SHA-256 differs.
    void changedFileIsAHashMismatch()
    {
        const QString path = Pack("changed.pack", 2 * kMiB);
        Job job(m_service.get(), Options(path));
        connect(&job, &Job::phaseChanged, &job, [&](int phase) {
            if (phase != Job::PhaseTransfer)
                return;
            QFile file(path);
            file.open(QIODevice::ReadWrite);
            file.seek(1000);
            QByteArray bytes = file.peek(16);
            for (char& byte : bytes)
                byte = char(~byte);
            file.write(bytes);
        });
        QSignalSpy results(&job, &Job::result);
        QCOMPARE(Run(job), 32);
        QVERIFY2(results.first().at(1).toString().contains("SHA-256"), qPrintable(results.first().at(1).toString()));
    }

    // The storage stops taking bytes in the middle of a request (a forwarder in between stalls).
    // Stalled once, the request goes again after the stall time and the object arrives whole.
    // Stalled for good, the job gives up after its retries, in bounded time, publishes nothing,
    // and leaves open only the upload its journal names, which a resumed job then finishes.
    void stalledTransfer_data()
    {
        QTest::addColumn<int>("stalls");
        QTest::newRow("part 2 stalls once") << 1;
        QTest::newRow("part 2 stalls for good") << -1;
    }
    void stalledTransfer()
    {
        QFETCH(int, stalls);
        StallingForwarder forwarder(QUrl(m_url).port());
        QVERIFY(forwarder.Port() != 0);
        ServerFixture relayed;
        QVERIFY(StartServer(relayed, m_secret, QStringLiteral("http://127.0.0.1:%1").arg(forwarder.Port())));
        relayed.Export();
        // Back to the suite's server afterwards; the store holds this server's token then.
        auto back = qScopeGuard([this] {
            m_server.Export();
            m_service = SignedIn(m_server);
        });
        const auto service = SignedIn(relayed);
        QVERIFY(service);

        // A name of its own: a fresh server allots the same content IDs, hence the same keys, again,
        // and a storage used before may still hold an upload under a key.
        const QString path = Pack(QStringLiteral("stall-%1.pack").arg(QRandomGenerator::global()->generate(), 0, 16),
                                  11 * kMiB);
        Job::Options options = Options(path);
        options.multipartThreshold = 8 * kMiB; // 5, 5 and 1 MiB
        options.partSize = 5 * kMiB;
        options.stallSeconds = 1;
        options.retries = 1;
        forwarder.StallAfter(7 * kMiB, stalls); // in part 2
        Job job(service.get(), options);
        QElapsedTimer clock;
        connect(&job, &Job::phaseChanged, &job, [&](int phase) {
            if (phase == Job::PhaseTransfer)
                clock.start();
        });
        const int code = Run(job);
        const qint64 ms = clock.elapsed();
        if (stalls > 0) {
            QCOMPARE(code, int(Job::Published));
            QCOMPARE(forwarder.Stalled(), stalls);
            QCOMPARE(job.PartsSent(), 3);
            QVERIFY(Stored(job.ObjectKey(), path));
            return;
        }

        const int tries = options.retries + 1;
        QCOMPARE(code, int(Job::TransferStalled));
        QCOMPARE(forwarder.Stalled(), tries);
        // Each try waits out the stall time (curl looks once a second), 1 s apart; the rest is quick.
        QVERIFY2(ms >= tries * 1000 + 1000 && ms < (tries * 2000 + 1000 + 2000) * kSanitizerSlowdown,
                 qPrintable(QString::number(ms)));
        QVERIFY(relayed.Requests("/ContentManager/v1/Upload/UploadMetaData").isEmpty());
        const QString uploadId = Journal(path).value("uploadId").toString();
        QVERIFY(!uploadId.isEmpty());
        QCOMPARE(OpenUploads(job.ObjectKey()), QStringList{uploadId});

        forwarder.Heal();
        options.resume = true;
        Job resumed(service.get(), options);
        QCOMPARE(Run(resumed), int(Job::Published));
        QCOMPARE(resumed.PartsFound(), 1);
        QCOMPARE(resumed.PartsSent(), 2);
        QCOMPARE(OpenUploads(job.ObjectKey()), QStringList());
        QVERIFY(Stored(job.ObjectKey(), path));
    }

    // qmmember runs with its clock an hour ahead (libfaketime): the storage refuses the first
    // request and names its own time, the job takes the difference once and publishes. A clock
    // that jumps another hour after that correction is refused for good: clock_skew, nothing
    // published, and only the upload the journal names stays open.
    void clockSkew_data()
    {
        QTest::addColumn<qint64>("size");
        QTest::addColumn<QByteArray>("jump"); // the clock from the first part on; empty: no jump
        QTest::newRow("an hour ahead") << qint64(kMiB) << QByteArray();
        QTest::newRow("another hour ahead after the correction") << qint64(32 * kMiB) << QByteArray("+2h");
    }
    void clockSkew()
    {
        QFETCH(qint64, size);
        QFETCH(QByteArray, jump);
        const QString library = FakeTimeLibrary();
        if (library.isEmpty())
            QSKIP("no libfaketime: ./qm test installs the faketime package");
        const QString clockFile = m_dir.filePath("clock");
        auto setClock = [&](const QByteArray& offset) {
            QSaveFile file(clockFile); // replaced whole: the child reads it on every clock call
            return file.open(QIODevice::WriteOnly) && file.write(offset + '\n') > 0 && file.commit();
        };
        QVERIFY(setClock("+1h"));
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("LD_PRELOAD", library);
        environment.insert("FAKETIME_TIMESTAMP_FILE", clockFile);
        environment.insert("FAKETIME_NO_CACHE", "1");
        environment.insert("FAKETIME_DONT_FAKE_MONOTONIC", "1"); // timers and time-outs keep real time
        // An instrumented child wants its runtime first; libfaketime comes before it.
        environment.insert("ASAN_OPTIONS", environment.value("ASAN_OPTIONS") + ":verify_asan_link_order=0");

        // The clock a child sees.
        QProcess date;
        date.setProcessEnvironment(environment);
        date.start("date", {"+%s"});
        QVERIFY(date.waitForFinished(10000));
        const qint64 ahead =
            date.readAllStandardOutput().trimmed().toLongLong() - QDateTime::currentSecsSinceEpoch();
        QVERIFY2(ahead > 3500 && ahead < 3700, qPrintable(QString::number(ahead)));

        const QString path =
            Pack(QStringLiteral("skew-%1.pack").arg(QRandomGenerator::global()->generate(), 0, 16), size);
        const int metadataPosts = m_server.Requests("/ContentManager/v1/Upload/UploadMetaData").size();
        ServerProcess cli;
        cli.setProcessEnvironment(environment);
        QJsonObject last;
        connect(&cli, &QProcess::readyReadStandardOutput, &cli, [&] {
            while (cli.canReadLine()) {
                last = QJsonDocument::fromJson(cli.readLine()).object();
                if (!jump.isEmpty() && last.value("event") == "part" && last.value("number").toInt() == 1)
                    setClock(jump);
            }
        });
        QSignalSpy ended(&cli, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished));
        cli.start(QStringLiteral(QM_CLI_BINARY), {"--json", "publish", path, "--product", "PublishTest", "--version", "1",
                                                  "--product-key", QString::fromStdWString(kProductKey)});
        QVERIFY(ended.wait(120000 * kSanitizerSlowdown));
        const QByteArray words = QJsonDocument(last).toJson(QJsonDocument::Compact) + cli.readAllStandardError();
        const QString key = last.value("key").toString();
        if (jump.isEmpty()) {
            QVERIFY2(cli.exitCode() == 0 && last.value("status") == "published", words.constData());
            QVERIFY(Stored(key, path));
            return;
        }
        QVERIFY2(cli.exitCode() == 1 && last.value("error").toObject().value("cause") == "clock_skew",
                 words.constData());
        QVERIFY(last.value("text").toString().contains("RequestTimeTooSkewed"));
        QVERIFY(last.value("parts_sent").toInt() >= 1); // the corrected clock was taken until the jump
        QCOMPARE(m_server.Requests("/ContentManager/v1/Upload/UploadMetaData").size(), metadataPosts);
        const QString uploadId = Journal(path).value("uploadId").toString();
        QVERIFY(!uploadId.isEmpty());
        QCOMPARE(OpenUploads(key), QStringList{uploadId});
        // Not left behind for the suite's other rows.
        std::atomic<bool> stop{false};
        std::atomic<long long> sent{0};
        QCOMPARE(Storage(stop, sent).Abort(key.toStdString(), uploadId.toStdString()).status, 204L);
        QFile::remove(Job::JournalPath(path));
    }
};

QTEST_GUILESS_MAIN(TestPublish)
#include "tst_publish.moc"
