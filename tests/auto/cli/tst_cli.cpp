#include "QMMemberWebService/Cipher.h"
#include "registry/RegistryStore.h"
#include "ServerFixture.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QtTest>

namespace {

const QString kEmail = QStringLiteral("cli@quillmarsh.test");
const QString kPassword = QStringLiteral("cli-pässword");

struct Ran {
    int code = -1;
    QByteArray out;
    QByteArray err;
    QJsonObject Json() const { return QJsonDocument::fromJson(out).object(); }
};

} // namespace

// The command-line tools as people and scripts use them: help, usage errors, exit codes, one
// JSON object per command, causes of failures, no secrets, doctor, and the terminal's side.
class TestCli : public QObject
{
    Q_OBJECT

private:
    ServerFixture m_server;
    std::unique_ptr<StoreFolder> m_store;
    QTemporaryDir m_cache;

    static Ran Run(const QStringList& arguments, const QByteArray& input = QByteArray(),
                   const QMap<QString, QString>& environment = {})
    {
        QProcess cli;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        for (auto it = environment.begin(); it != environment.end(); ++it)
            env.insert(it.key(), it.value());
        cli.setProcessEnvironment(env);
        cli.start(QStringLiteral(QM_CLI_BINARY), arguments);
        cli.write(input);
        cli.closeWriteChannel();
        Ran ran;
        if (!cli.waitForFinished(60000))
            return ran;
        ran.out = cli.readAllStandardOutput();
        ran.err = cli.readAllStandardError();
        ran.code = cli.exitStatus() == QProcess::NormalExit ? cli.exitCode() : -1;
        return ran;
    }

    // Under a real terminal (script(1)); what the terminal showed, and the exit code.
    static int RunOnTerminal(const QStringList& arguments, const QByteArray& typed, QByteArray& shown)
    {
        QStringList quoted;
        for (const QString& argument : arguments)
            quoted << QLatin1Char('\'') + argument + QLatin1Char('\'');
        QProcess terminal;
        terminal.setProcessChannelMode(QProcess::MergedChannels);
        terminal.start("script", {"-q", "-e", "-c", QStringLiteral(QM_CLI_BINARY " ") + quoted.join(' '), "/dev/null"});
        if (!terminal.waitForStarted())
            return -1;
        if (!typed.isEmpty()) {
            QElapsedTimer prompt;
            prompt.start();
            while (!shown.contains("Password") && prompt.elapsed() < 10000 && terminal.waitForReadyRead(10000))
                shown += terminal.readAll();
            terminal.write(typed);
        }
        terminal.waitForFinished(60000);
        shown += terminal.readAll();
        return terminal.exitCode();
    }

    static QStringList CommandNames()
    {
        QStringList names;
        const QString help = QString::fromUtf8(Run({"--help"}).out);
        const QRegularExpression line(QStringLiteral("^  ([a-z-]+(?: [a-z-]+)?)  "), QRegularExpression::MultilineOption);
        for (auto match = line.globalMatch(help); match.hasNext();) {
            const QString name = match.next().captured(1);
            if (!name.startsWith('-'))
                names << name;
        }
        return names;
    }

private slots:
    void initTestCase()
    {
        qputenv("XDG_DATA_HOME", m_cache.path().toLocal8Bit());
        m_store = std::make_unique<StoreFolder>();
        QVERIFY(m_server.Start());
        m_server.Export();
        m_server.Admin("/admin/member", {{"email", kEmail}, {"password", kPassword}});
    }

    void helpForEveryCommand_data()
    {
        QTest::addColumn<QString>("name");
        const QStringList names = CommandNames();
        QVERIFY(names.contains("doctor") && names.contains("cache clear"));
        for (const QString& name : names)
            QTest::newRow(qPrintable(name)) << name;
    }
    void helpForEveryCommand()
    {
        QFETCH(QString, name);
        const QStringList words = name.split(' ');
        // -h on every other row keeps the run short.
        const QString flag = QTest::currentDataTag()[0] < 'm' ? "--help" : "-h";
        for (const QStringList& arguments : {words + QStringList{flag}, QStringList{"help"} + words}) {
            const Ran ran = Run(arguments);
            QCOMPARE(ran.code, 0);
            QVERIFY2(ran.out.startsWith("usage: qmmember " + name.toUtf8()), ran.out);
        }
    }

    void usageErrors_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("named"); // what the message must name
        QTest::newRow("no command") << QStringList{} << "usage";
        QTest::newRow("unknown command") << QStringList{"frobnicate"} << "frobnicate";
        QTest::newRow("unknown option") << QStringList{"info", "--frob"} << "frob";
        QTest::newRow("unknown short option") << QStringList{"whoami", "-x"} << "x";
        QTest::newRow("unknown global option") << QStringList{"--frob", "info"} << "frob";
        QTest::newRow("missing value") << QStringList{"get", "/x", "--timeout"} << "--timeout";
        QTest::newRow("timeout zero") << QStringList{"get", "/x", "--timeout", "0"} << "'0'";
        QTest::newRow("timeout negative") << QStringList{"profile", "--timeout", "-5"} << "'-5'";
        QTest::newRow("timeout words") << QStringList{"login", "--browser", "--timeout", "soon"} << "'soon'";
        QTest::newRow("timeout overflow") << QStringList{"login", "--browser", "--timeout", "2147484"} << "2147484";
        QTest::newRow("group without verb") << QStringList{"cache"} << "verb";
        QTest::newRow("unknown verb") << QStringList{"cache", "frob"} << "cache frob";
        QTest::newRow("too many arguments") << QStringList{"whoami", "extra"} << "extra";
        QTest::newRow("too few arguments") << QStringList{"store", "get", "HKCU"} << "few";
        QTest::newRow("bad hive") << QStringList{"store", "get", "HKCR", "X", "Y"} << "HKCR";
        QTest::newRow("path not absolute") << QStringList{"get", "qmtest"} << "qmtest";
        QTest::newRow("password argument") << QStringList{"login", "--email", kEmail, "--password", "x"} << "visible";
        QTest::newRow("no terminal for the password") << QStringList{"login", "--email", kEmail} << "terminal";
        QTest::newRow("cache name with a folder") << QStringList{"cache", "clear", "../../victim.txt"} << "plain";
        QTest::newRow("cache show outside") << QStringList{"cache", "show", "../x"} << "plain";
        QTest::newRow("content list kind") << QStringList{"content", "list", "wishlist", "P", "1"} << "wishlist";
        QTest::newRow("content meta index") << QStringList{"content", "meta", "P", "1", "a", "--index", "x"}
                                            << "--index";
        QTest::newRow("content meta without IDs") << QStringList{"content", "meta", "P", "1"} << "few";
        QTest::newRow("cart add without IDs") << QStringList{"cart", "add"} << "few";
    }
    void usageErrors()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QString, named);
        const Ran human = Run(arguments);
        QCOMPARE(human.code, 2);
        QVERIFY2(human.err.contains(named.toUtf8()), human.err);
        const Ran json = Run(QStringList{"--json"} + arguments);
        QCOMPARE(json.code, 2);
        QCOMPARE(json.out.count('\n'), 1);
        QCOMPARE(json.Json().value("error").toObject().value("cause").toString(), QStringLiteral("usage"));
        QVERIFY(json.Json().contains("result") && json.Json().contains("text"));
    }

    void endOfOptions()
    {
        // After `--` a word that looks like an option is an argument, --json included.
        Ran ran = Run({"--json", "urlscheme", "encode", "--", "--json"});
        QCOMPARE(ran.code, 0);
        const QString token = ran.Json().value("token").toString();
        ran = Run({"--json", "urlscheme", "decode", token});
        QCOMPARE(ran.Json().value("decoded").toString(), QStringLiteral("--json"));
        QCOMPARE(Run({"--version"}).code, 0);
        QVERIFY(Run({"--version"}).out.startsWith("qmmember "));
    }

    void failureCauses_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("apiHost"); // empty: the server
        QTest::addColumn<bool>("trusted");
        QTest::addColumn<QJsonObject>("fault");
        QTest::addColumn<QString>("cause");
        QTest::addColumn<int>("netError");
        QTest::addColumn<QString>("hint");
        const QStringList get{"get", "/qmtest/echo", "--timeout", "2"};
        QTest::newRow("success") << get << "" << true << QJsonObject() << "" << 0 << "";
        QTest::newRow("refused") << get << "127.0.0.1:1" << true << QJsonObject() << "connection_refused" << 12029
                                 << "qmmember-server running";
        QTest::newRow("untrusted") << get << "" << false << QJsonObject() << "certificate_untrusted" << 12045
                                   << "QM_CA_FILE is not set";
        QTest::newRow("scheme in host") << get << "https://127.0.0.1:1" << true << QJsonObject()
                                        << "host_not_resolved" << 12007 << "without a scheme";
        QTest::newRow("timed out") << QStringList{"get", "/qmtest/echo", "--timeout", "0.5"} << "" << true
                                   << QJsonObject{{"path", "/qmtest/echo"}, {"delay_ms", 3000}, {"times", 2}}
                                   << "timed_out" << 12002 << "within 0.5 s";
        QTest::newRow("http status") << get << "" << true
                                     << QJsonObject{{"path", "/qmtest/echo"}, {"http", 503}, {"body", "busy"}, {"times", 2}}
                                     << "http_status" << 503 << "HTTP 503";
        QTest::newRow("wrong password") << QStringList{"login", "--email", kEmail, "--password-stdin"} << "" << true
                                        << QJsonObject() << "wrong_credentials" << 0 << "wrong e-mail or password";
    }
    void failureCauses()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QString, apiHost);
        QFETCH(bool, trusted);
        QFETCH(QJsonObject, fault);
        QFETCH(QString, cause);
        QFETCH(int, netError);
        QFETCH(QString, hint);
        if (!fault.isEmpty())
            m_server.Fault(fault);
        QMap<QString, QString> environment;
        if (!apiHost.isEmpty())
            environment.insert("QM_API_HOST", apiHost);
        if (!trusted)
            environment.insert("QM_CA_FILE", "");
        const Ran ran = Run(QStringList{"--json"} + arguments, "wrong\n", environment);
        const Ran human = Run(arguments, "wrong\n", environment);
        m_server.Reset();
        QCOMPARE(ran.out.count('\n'), 1);
        const QJsonObject json = ran.Json();
        QVERIFY(json.contains("result") && json.contains("text"));
        if (cause.isEmpty()) {
            QCOMPARE(ran.code, 0);
            QCOMPARE(json.value("result").toInt(), 2);
            QCOMPARE(json.value("data").toObject().value("path").toString(), QStringLiteral("/qmtest/echo"));
            return;
        }
        QCOMPARE(ran.code, 1);
        const QJsonObject error = json.value("error").toObject();
        QCOMPARE(error.value("cause").toString(), cause);
        QCOMPARE(error.value("net_error").toInt(), netError);
        QVERIFY2(error.value("hint").toString().contains(hint), qPrintable(error.value("hint").toString()));
        // People get the cause in words with the number, on standard error.
        QVERIFY2(netError == 0 || human.err.contains(QByteArray::number(netError)), human.err);
    }

    void accountAndNoSecrets()
    {
        // Every debug category on: the log must still hold no token and no password.
        const QMap<QString, QString> loud{{"QT_LOGGING_RULES", "*=true"}};
        QByteArray everything;
        auto run = [&](const QStringList& arguments, const QByteArray& input = QByteArray()) {
            const Ran ran = Run(QStringList{"--verbose"} + arguments, input, loud);
            everything += ran.out + ran.err;
            return ran;
        };
        QTemporaryDir early;
        const Ran none = run({"token", "export", early.path()});
        QCOMPARE(none.code, 0);
        QVERIFY2(none.err.contains("no backup token"), none.err);
        QCOMPARE(run({"login", "--email", kEmail, "--password-stdin"}, "\n").code, 2); // empty: refused
        QVERIFY(m_server.Requests("/MemberAPI/Token").isEmpty());
        QCOMPARE(run({"login", "--email", kEmail, "--password-stdin"}, kPassword.toUtf8() + "\n").code, 0);
        QCOMPARE(run({"--json", "profile", "--force"}).Json().value("source").toString(), QStringLiteral("server"));
        QCOMPARE(run({"get", "/qmtest/member", "--login"}).code, 0);
        QCOMPARE(run({"store", "get", "HKCU", "SOFTWARE\\Quillmarsh", "QMToken"}).code, 0);
        QCOMPARE(run({"doctor"}).code, 0);
        const QJsonObject who = run({"--json", "whoami"}).Json();
        QVERIFY(who.value("signed_in").toBool());
        QVERIFY(!who.value("member_id").toString().isEmpty());
        QTemporaryDir folder;
        QCOMPARE(run({"token", "export", folder.path()}).code, 0);
        const QString exported = folder.path() + "/QMBakToken.reg";
        QCOMPARE(QFileInfo(exported).permissions(), QFileDevice::ReadOwner | QFileDevice::WriteOwner
                                                        | QFileDevice::ReadUser | QFileDevice::WriteUser);
        QCOMPARE(run({"token", "export", folder.path()}).code, 1); // kept without --force
        QCOMPARE(run({"token", "export", folder.path(), "--force"}).code, 0);

        QStringList secrets{kPassword};
        for (const char* name : {"QMToken", "QMReToken", "QMBakToken"})
            secrets << QMRegistryTool::Store::Read(true, "SOFTWARE\\Quillmarsh", name).toString();
        for (const QString& secret : secrets) {
            QVERIFY(secret.size() > 8);
            QVERIFY2(!everything.contains(secret.toUtf8()), "a secret was printed");
        }
        // A failed exchange logs: the categories were on.
        const Ran refused = Run({"--verbose", "get", "/qmtest/member", "--login"}, QByteArray(),
                                {{"QT_LOGGING_RULES", "*=true"}, {"QM_API_HOST", "127.0.0.1:1"}});
        QVERIFY(refused.err.contains("qm.network"));
        for (const QString& secret : secrets)
            QVERIFY2(!(refused.out + refused.err).contains(secret.toUtf8()), "a secret was printed");

        // After logout: nobody signed in, but the backup token's member is named.
        QCOMPARE(run({"logout"}).code, 0);
        const Ran after = run({"--json", "whoami"});
        QCOMPARE(after.code, 1);
        QCOMPARE(after.Json().value("signed_in").toBool(), false);
        QCOMPARE(after.Json().value("backup_member_id").toString(), who.value("member_id").toString());
    }

    void doctor_data()
    {
        QTest::addColumn<QString>("setUp");
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("failing"); // the check that fails, if any
        QTest::newRow("healthy") << "healthy" << 0 << "";
        QTest::newRow("untrusted CA") << "untrusted" << 1 << "tls";
        QTest::newRow("stopped server") << "stopped" << 1 << "connect";
    }
    void doctor()
    {
        QFETCH(QString, setUp);
        QFETCH(int, code);
        QFETCH(QString, failing);
        ServerFixture server;
        QVERIFY(server.Start());
        const QMap<QString, QString> environment{
            {"QM_API_HOST", server.Host()}, {"QM_WEB_HOST", server.Host()},
            {"QM_CA_FILE", setUp == "untrusted" ? QString() : server.CaFile()}};
        if (setUp == "stopped")
            server.Stop();
        const Ran ran = Run({"--json", "doctor", "--timeout", "5"}, QByteArray(), environment);
        QCOMPARE(ran.code, code);
        QCOMPARE(ran.out.count('\n'), 1);
        QStringList names;
        QStringList failed;
        for (const QJsonValue& value : ran.Json().value("checks").toArray()) {
            const QJsonObject check = value.toObject();
            names << check.value("name").toString();
            const QString status = check.value("status").toString();
            QVERIFY(status == "ok" || status == "warn" || status == "fail");
            if (status == "fail")
                failed << names.last();
            if (status != "ok")
                QVERIFY(!check.value("advice").toString().isEmpty());
        }
        // The cause fails, and the timed request that it spoils.
        const QStringList expected = failing.isEmpty() ? QStringList() : QStringList{failing, "request"};
        QCOMPARE(failed, expected);
        QVERIFY(names.contains("hosts") && names.contains("store") && names.contains("cache")
                && names.contains("proxy"));
        if (setUp != "stopped")
            QVERIFY(names.contains("tls") && names.contains("clock") && names.contains("resolve"));
    }

    void readOnlyCommandsLeaveNoStore()
    {
        QTemporaryDir root;
        const QString store = root.path() + "/store";
        const QMap<QString, QString> environment{{"QM_REGISTRY_DIR", store}};
        for (const QStringList& arguments :
             {QStringList{"whoami"}, {"info"}, {"store", "get", "HKCU", "X", "Y"}, {"urlscheme", "encode", "a"},
              {"cache", "path"}, {"doctor", "--timeout", "2"}})
            Run(arguments, QByteArray(), environment);
        QVERIFY(!QFileInfo::exists(store));
    }

    void filesTheCliReads()
    {
        QTemporaryDir root;
        QFile victim(root.path() + "/victim.txt");
        QVERIFY(victim.open(QIODevice::WriteOnly));
        victim.close();
        const Ran cleared = Run({"cache", "clear", "../../../../../../../.." + victim.fileName()});
        QCOMPARE(cleared.code, 2);
        QVERIFY(victim.exists());
        QElapsedTimer timer;
        timer.start();
        const Ran endless = Run({"lz", "decode", "/dev/zero"});
        QCOMPARE(endless.code, 1);
        QVERIFY(endless.err.contains("larger than"));
        QVERIFY(timer.elapsed() < 20000);
    }

    void onTerminal()
    {
        if (QStandardPaths::findExecutable("script").isEmpty())
            QSKIP("script(1) is not installed");
        // An empty password typed at the prompt is refused before anything is sent.
        QByteArray shown;
        QCOMPARE(RunOnTerminal({"login", "--email", kEmail}, "\n", shown), 2);
        QVERIFY2(shown.contains("empty"), shown);
        // A browser sign-in against a stopped server: failing polls on the progress line, then it gives up.
        shown.clear();
        qputenv("QM_API_HOST", "127.0.0.1:1");
        const int code = RunOnTerminal({"login", "--browser", "--timeout", "60"}, QByteArray(), shown);
        m_server.Export();
        QCOMPARE(code, 1);
        QVERIFY2(shown.contains("poll(s) in a row failed"), shown);
        QVERIFY2(shown.contains("gave up after 5 polls"), shown);
    }

    void serverByHand()
    {
        // --print-env gives the export lines; --log-requests one line per request, token values redacted.
        QTemporaryDir state;
        QProcess server;
        server.start(ServerFixture::ServerBinary(),
                     {"--state", state.path(), "--print-env", "--log-requests"});
        QByteArray printed;
        QTRY_VERIFY_WITH_TIMEOUT((printed += server.readAllStandardOutput()).contains("QM_CA_FILE"), 20000);
        const QString port = QString::fromUtf8(printed).section("QM_API_HOST=127.0.0.1:", 1).section('\n', 0, 0);
        QVERIFY2(printed.contains("export QM_WEB_HOST=127.0.0.1:" + port.toUtf8()), printed);
        const Ran ran = Run({"get", "/qmtest/echo?token=topsecret&x=1"}, QByteArray(),
                            {{"QM_API_HOST", "127.0.0.1:" + port}, {"QM_CA_FILE", state.path() + "/ca.pem"}});
        QCOMPARE(ran.code, 0);
        QByteArray log;
        QTRY_VERIFY_WITH_TIMEOUT((log += server.readAllStandardError()).contains("/qmtest/echo"), 10000);
        QVERIFY2(log.contains("token=<redacted>&x=1 -> 200"), log);
        QVERIFY(!log.contains("topsecret"));
        server.terminate();
        QVERIFY(server.waitForFinished(10000));
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
        QCOMPARE(Run({"lz", "decode", file.fileName(), "--json-string"}).out.trimmed(),
                 QByteArray("ababababababababab"));
    }

    // The content commands as scripts read them: the reply's data as it came, new versions, cart.
    void contentCommands()
    {
        m_server.Admin("/admin/content/item", {{"ContentID", "CLI-1"}, {"ProductID", "CliStudio"}, {"Version", "3"},
                                               {"Title", "Cli Poster"}, {"Price", 1.5},
                                               {"MetaData", QJsonObject{{"Author", "cli"}}}});
        const Ran signedOut = Run({"--json", "content", "get", "CLI-1"});
        QCOMPARE(signedOut.code, 1);
        QCOMPARE(signedOut.Json().value("error").toObject().value("cause").toString(), QStringLiteral("not_signed_in"));
        QCOMPARE(Run({"login", "--email", kEmail, "--password-stdin"}, kPassword.toUtf8() + "\n").code, 0);
        const Ran meta = Run({"--json", "content", "meta", "CliStudio", "3", "CLI-1", "nope"});
        QCOMPARE(meta.code, 0);
        QCOMPARE(meta.out.count('\n'), 1);
        const QJsonObject data = meta.Json().value("data").toObject();
        QCOMPARE(data.value("Items").toArray().first().toObject().value("MetaData").toObject().value("Author"),
                 QJsonValue("cli"));
        QCOMPARE(data.value("Missing").toArray(), QJsonArray{"nope"});
        const Ran table = Run({"content", "meta", "CliStudio", "3", "CLI-1"});
        QVERIFY2(table.out.contains("Cli Poster") && table.out.contains("ContentID"), table.out);
        m_server.Admin("/admin/content/publish", {{"ContentID", "CLI-1"}});
        QCOMPARE(Run({"--json", "content", "new-versions", "CliStudio", "3", "CLI-1"}).Json().value("new_versions"),
                 QJsonValue(QJsonArray{"CLI-1"}));
        const Ran cart = Run({"--json", "cart", "add", "CLI-1", "CLI-1", "nope"});
        QCOMPARE(cart.code, 0);
        QCOMPARE(cart.Json().value("cart_links").toArray().size(), 1);
        QCOMPARE(Run({"logout"}).code, 0);
    }

    void cacheRoundTripAndProfileSource()
    {
        const QString folder = m_cache.path() + "/Quillmarsh/QMLCache/";
        QVERIFY(QDir().mkpath(folder));
        QFile cached(folder + "MemberInfo.json");
        QVERIFY(cached.open(QIODevice::WriteOnly));
        cached.write(QMCipher::ToUpperHex(QMCipher::Rc4("{\"Email\":\"a@b.c\"}", QMCipher::CacheKey())));
        cached.close();
        Ran ran = Run({"--json", "cache", "show", "MemberInfo.json"});
        QCOMPARE(ran.Json().value("content").toString(), QStringLiteral("{\"Email\":\"a@b.c\"}"));
        // A fresh cache file the library cannot use: it asks the server, and the label says so.
        QCOMPARE(Run({"login", "--email", kEmail, "--password-stdin"}, kPassword.toUtf8() + "\n").code, 0);
        ran = Run({"--json", "profile"});
        QCOMPARE(ran.Json().value("source").toString(), QStringLiteral("server"));
        QCOMPARE(Run({"--json", "profile"}).Json().value("source").toString(), QStringLiteral("cache"));
        QCOMPARE(Run({"cache", "clear", "MemberInfo.json"}).code, 0);
        QVERIFY(!cached.exists());
    }
};

QTEST_GUILESS_MAIN(TestCli)
#include "tst_cli.moc"
