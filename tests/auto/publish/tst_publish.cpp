// The publish job against the real storage (Swift with s3api, started by ./qm test) and
// qmmember-server: resume across processes, refused credentials, cancel, a changed file.
#include "QMContentPublishJob.h"
#include "QMMemberWebService.h"
#include "S3Client.h"
#include "ServerFixture.h"

#include <QCryptographicHash>
#include <QFile>
#include <QRandomGenerator>
#include <QSignalSpy>
#include <QTemporaryDir>
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

    bool StartServer(ServerFixture& server, const QString& secret)
    {
        return server.Start({"--storage", m_url, "--storage-key", m_key, "--storage-secret", secret, "--bucket",
                             "publish-test"});
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
};

QTEST_GUILESS_MAIN(TestPublish)
#include "tst_publish.moc"
