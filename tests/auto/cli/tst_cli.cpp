#include "QMMemberWebService/Cipher.h"
#include "ServerFixture.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QtTest>

// The command-line host as a script would use it: exit codes, output, no secrets.
class TestCli : public QObject
{
    Q_OBJECT

private:
    StoreFolder m_store;
    QTemporaryDir m_cache;

    static int Run(const QStringList& arguments, QByteArray* out = nullptr, QByteArray* err = nullptr)
    {
        QProcess cli;
        cli.start(QStringLiteral(QM_CLI_BINARY), arguments);
        if (!cli.waitForFinished(30000))
            return -1;
        if (out)
            *out = cli.readAllStandardOutput();
        if (err)
            *err = cli.readAllStandardError();
        return cli.exitStatus() == QProcess::NormalExit ? cli.exitCode() : -1;
    }

private slots:
    void initTestCase() { qputenv("XDG_DATA_HOME", m_cache.path().toLocal8Bit()); }

    void exitCodes_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("output"); // expected in standard output
        const QString vectors = QStringLiteral(QM_TEST_DATA "/lzstring/");
        QTest::newRow("no command") << QStringList{} << 2 << "";
        QTest::newRow("unknown command") << QStringList{"frobnicate"} << 2 << "";
        QTest::newRow("help") << QStringList{"--help"} << 0 << "usage: qmmember";
        QTest::newRow("store set") << QStringList{"store", "set", "HKLM", "SOFTWARE\\Quillmarsh\\Cli", "Product Build", "8.1"}
                                   << 0 << "written";
        QTest::newRow("store get") << QStringList{"store", "get", "hklm", "software/quillmarsh/cli", "product build"} << 0
                                   << "8.1";
        QTest::newRow("store bad hive") << QStringList{"store", "get", "HKCR", "X", "Y"} << 2 << "";
        QTest::newRow("store missing") << QStringList{"store", "get", "HKCU", "X", "Y"} << 1 << "";
        QTest::newRow("store bad dword") << QStringList{"store", "set", "HKCU", "X", "Y", "seven", "--dword"} << 2 << "";
        QTest::newRow("lz decode") << QStringList{"lz", "decode", vectors + "one-ascii.bin"} << 0 << "a";
        QTest::newRow("lz decode null") << QStringList{"--json", "lz", "decode", vectors + "cut-self-reference-2.bin"}
                                        << 1 << "";
        QTest::newRow("lz missing file") << QStringList{"lz", "decode", "/nonexistent"} << 1 << "";
        QTest::newRow("urlscheme encode") << QStringList{"urlscheme", "encode", "ab"} << 0 << "token";
        QTest::newRow("urlscheme lowercase") << QStringList{"urlscheme", "decode", "abcd"} << 1 << "";
        QTest::newRow("cache path") << QStringList{"cache", "path"} << 0 << "/Quillmarsh/QMLCache/";
        QTest::newRow("cache show missing") << QStringList{"cache", "show", "MemberInfo.json"} << 1 << "";
        QTest::newRow("cache clear missing") << QStringList{"cache", "clear", "MemberInfo.json"} << 0 << "cleared";
        QTest::newRow("get without server") << QStringList{"get", "/qmtest/echo", "--timeout", "500"} << 1
                                            << "server unreachable";
        QTest::newRow("get bad path") << QStringList{"get", "qmtest"} << 2 << "";
        QTest::newRow("get bad timeout") << QStringList{"get", "/x", "--timeout", "soon"} << 2 << "";
    }
    void exitCodes()
    {
        QFETCH(QStringList, arguments);
        QFETCH(int, code);
        QFETCH(QString, output);
        qputenv("QM_API_HOST", "127.0.0.1:1");
        QByteArray out;
        QByteArray err;
        QCOMPARE(Run(arguments, &out, &err), code);
        QVERIFY2(QString::fromUtf8(out + err).contains(output), out.constData());
        // A failure says why, on stderr.
        if (code != 0)
            QVERIFY(!err.isEmpty());
    }

    void lzDecodeJsonString()
    {
        QFile vector(QStringLiteral(QM_TEST_DATA "/lzstring/self-reference.bin"));
        QVERIFY(vector.open(QIODevice::ReadOnly));
        const QByteArray bytes = vector.readAll();
        const QString text(reinterpret_cast<const QChar*>(bytes.constData()), bytes.size() / 2);
        QTemporaryFile file;
        QVERIFY(file.open());
        file.write(QJsonDocument(QJsonArray{text}).toJson(QJsonDocument::Compact).mid(1).chopped(1));
        file.close();
        QByteArray out;
        QCOMPARE(Run({"lz", "decode", file.fileName(), "--json-string"}, &out), 0);
        QCOMPARE(out.trimmed(), QByteArray("ababababababababab"));
    }

    void urlSchemeAndCacheRoundTrip()
    {
        QByteArray out;
        QCOMPARE(Run({"--json", "urlscheme", "encode", "Grüße"}, &out), 0);
        const QString token = QJsonDocument::fromJson(out).object().value("token").toString();
        QCOMPARE(Run({"--json", "urlscheme", "decode", token}, &out), 0);
        QCOMPARE(QJsonDocument::fromJson(out).object().value("decoded").toString(), QString::fromUtf8("Grüße"));

        const QString folder = m_cache.path() + "/Quillmarsh/QMLCache/";
        QVERIFY(QDir().mkpath(folder));
        QFile cached(folder + "MemberInfo.json");
        QVERIFY(cached.open(QIODevice::WriteOnly));
        cached.write(QMCipher::ToUpperHex(QMCipher::Rc4("{\"Email\":\"a@b.c\"}", QMCipher::CacheKey())));
        cached.close();
        QCOMPARE(Run({"--json", "cache", "show", "MemberInfo.json"}, &out), 0);
        QCOMPARE(QJsonDocument::fromJson(out).object().value("content").toString(), QStringLiteral("{\"Email\":\"a@b.c\"}"));
        QCOMPARE(Run({"cache", "clear", "MemberInfo.json"}), 0);
        QVERIFY(!cached.exists());
    }

    void secretsAreNotPrinted()
    {
        QCOMPARE(Run({"store", "set", "HKCU", "SOFTWARE\\Quillmarsh", "QMToken", "very-secret-token"}), 0);
        QByteArray out;
        QByteArray err;
        QCOMPARE(Run({"--json", "store", "get", "HKCU", "SOFTWARE\\Quillmarsh", "QMToken"}, &out, &err), 0);
        QVERIFY(!out.contains("very-secret-token") && !err.contains("very-secret-token"));
        QVERIFY(out.contains("hidden"));
    }
};

QTEST_GUILESS_MAIN(TestCli)
#include "tst_cli.moc"
