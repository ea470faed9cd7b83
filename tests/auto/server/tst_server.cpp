#include "LZString/LZString.h"
#include "LZStringEncoder.h"
#include "ServerFixture.h"
#include "qmnetwork/HttpRequest.h"

#include <QJsonDocument>
#include <QProcess>
#include <QtTest>

#include <csignal>
#include <cstdio>

#include <sys/stat.h>

class TestServer : public QObject
{
    Q_OBJECT

private:
    static QJsonObject GetJson(const ServerFixture& server, const wchar_t* path, unsigned int* netError = nullptr)
    {
        CHttpRequest request(nullptr, true);
        std::wstring reply;
        std::wstring headers;
        const std::wstring host = server.Host().toStdWString();
        request.GetSync(host.c_str(), path, reply, headers, nullptr, 5000, false, nullptr, nullptr);
        if (netError)
            *netError = request.GetNetLastError();
        return QJsonDocument::fromJson(QString::fromStdWString(reply).toUtf8()).object();
    }

private slots:
    void initTestCase()
    {
        // The child of serverDiesWithAbortingTest: a test that aborts with its server running.
        if (qEnvironmentVariableIsSet("QM_ABORT_WITH_SERVER")) {
            static ServerFixture server;
            if (server.Start())
                std::printf("%lld\n", server.Pid());
            std::fflush(stdout);
            ::raise(SIGKILL); // no handler or destructor of the test runs

        }
    }

    void serverDiesWithAbortingTest()
    {
        QProcess child;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("QM_ABORT_WITH_SERVER", "1");
        child.setProcessEnvironment(environment);
        child.start(QCoreApplication::applicationFilePath(), {"startsAndStopsCleanly"});
        QVERIFY(child.waitForFinished(30000));
        QCOMPARE(child.exitStatus(), QProcess::CrashExit);
        const QByteArray pid = child.readAllStandardOutput().trimmed().split('\n').last();
        QVERIFY2(pid.toLongLong() > 0, pid.constData());
        // Gone, or a zombie waiting for its new parent to reap it.
        auto alive = [&pid] {
            QFile stat(QStringLiteral("/proc/%1/stat").arg(QString::fromLatin1(pid)));
            if (!stat.open(QIODevice::ReadOnly))
                return false;
            const QByteArray line = stat.readAll();
            return line.mid(line.lastIndexOf(')') + 2, 1) != "Z";
        };
        QTRY_VERIFY_WITH_TIMEOUT(!alive(), 5000);
    }

    void startsAndStopsCleanly()
    {
        QTemporaryDir state;
        QProcess server;
        server.start(ServerFixture::ServerBinary(), {"--state", state.path(), "--port", "0"});
        QVERIFY(server.waitForReadyRead(20000));
        const QJsonObject ready = QJsonDocument::fromJson(server.readLine()).object();
        QCOMPARE(ready.value("event").toString(), QStringLiteral("ready"));
        QVERIFY(ready.value("port").toInt() > 0);
        QCOMPARE(ready.value("ca").toString(), state.path() + "/ca.pem");
        for (const char* file : {"/ca.pem", "/server.pem", "/server-key.pem", "/state.db"})
            QVERIFY2(QFile::exists(state.path() + file), file);
        struct stat info {};
        QCOMPARE(::stat(QFile::encodeName(state.path() + "/server-key.pem").constData(), &info), 0);
        QCOMPARE(info.st_mode & 0777, mode_t(0600));
        server.terminate();
        QVERIFY(server.waitForFinished(10000));
        QCOMPARE(server.exitStatus(), QProcess::NormalExit);
        QCOMPARE(server.exitCode(), 0);
    }

    void badArgumentsAreRefused_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::newRow("no state") << QStringList{"--port", "0"};
        QTest::newRow("bad port") << QStringList{"--state", "/tmp/x", "--port", "http"};
        QTest::newRow("unknown") << QStringList{"--state", "/tmp/x", "--verbose"};
        QTest::newRow("unknown seed") << QStringList{"--state", QDir::tempPath() + "/qm-seed-test", "--seed", "x"};
    }
    void badArgumentsAreRefused()
    {
        QFETCH(QStringList, arguments);
        QProcess server;
        server.start(ServerFixture::ServerBinary(), arguments);
        QVERIFY(server.waitForFinished(10000));
        QVERIFY(server.exitCode() != 0);
        QVERIFY(!server.readAllStandardError().isEmpty());
    }

    void adminOnlyWhenAsked()
    {
        QTemporaryDir state;
        QProcess plain;
        plain.start(ServerFixture::ServerBinary(), {"--state", state.path()});
        QVERIFY(plain.waitForReadyRead(20000));
        const QJsonObject ready = QJsonDocument::fromJson(plain.readLine()).object();
        qputenv("QM_CA_FILE", ready.value("ca").toString().toLocal8Bit());
        CHttpRequest request(nullptr, true);
        std::wstring reply;
        std::wstring headers;
        const std::wstring host = QStringLiteral("127.0.0.1:%1").arg(ready.value("port").toInt()).toStdWString();
        QVERIFY(request.GetSync(host.c_str(), L"/admin/stats", reply, headers, nullptr, 5000, false, nullptr, nullptr));
        QCOMPARE(request.GetNetLastError(), 404u);
        plain.terminate();
        QVERIFY(plain.waitForFinished(10000));
    }

    void faultsAndEnvelope()
    {
        ServerFixture server;
        QVERIFY(server.Start());
        server.Export();
        QJsonObject reply = GetJson(server, L"/qmtest/echo");
        QCOMPARE(reply.value("apiStatus").toInt(), 2);
        QCOMPARE(reply.value("result").toObject().value("status").toInt(), 2);

        // Compressed "result" decodes to the same object.
        server.Fault({{"path", "/qmtest/echo"}, {"compress", true}});
        reply = GetJson(server, L"/qmtest/echo");
        QVERIFY(reply.value("result").isString());
        const QJsonObject result =
            QJsonDocument::fromJson(LZString::decompressFromUTF16(reply.value("result").toString()).toUtf8()).object();
        QCOMPARE(result.value("status").toInt(), 2);
        QCOMPARE(result.value("data").toObject().value("path").toString(), QStringLiteral("/qmtest/echo"));

        // Statuses forced once, then the ordinary reply again.
        server.Fault({{"path", "/qmtest/echo"}, {"apiStatus", 6}, {"status", 13}, {"times", 1}});
        reply = GetJson(server, L"/qmtest/echo");
        QCOMPARE(reply.value("apiStatus").toInt(), 6);
        QCOMPARE(reply.value("result").toObject().value("status").toInt(), 13);
        QCOMPARE(GetJson(server, L"/qmtest/echo").value("apiStatus").toInt(), 2);

        server.Fault({{"path", "/qmtest/echo"}, {"malformed", true}});
        QVERIFY(GetJson(server, L"/qmtest/echo").isEmpty());
        unsigned int netError = 0;
        server.Fault({{"path", "/qmtest/echo"}, {"http", 499}});
        GetJson(server, L"/qmtest/echo", &netError);
        QCOMPARE(netError, 499u);
        QVERIFY(server.Connections() >= 1);
    }

    void encoderRoundTrips_data()
    {
        QTest::addColumn<QString>("text");
        QTest::newRow("empty") << QString();
        QTest::newRow("one") << "a";
        QTest::newRow("json") << "{\"status\":2,\"data\":[1,2,{\"Name\":\"Grüße\"}]}";
        QTest::newRow("above U+FFFF") << QString::fromUtf8("\xF0\x9F\x98\x80 and \xE4\xB8\xAD\xE6\x96\x87");
        QTest::newRow("repetitive") << QString("abcabcabd").repeated(500);
    }
    void encoderRoundTrips()
    {
        QFETCH(QString, text);
        QCOMPARE(LZString::decompressFromUTF16(LZStringEncoder::compressToUTF16(text)), text);
    }
};

QTEST_GUILESS_MAIN(TestServer)
#include "tst_server.moc"
