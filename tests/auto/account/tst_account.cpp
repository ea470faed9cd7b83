#include "QMMemberWebService.h"

#include "QMMemberWebService/Cache.h"
#include "QMMemberWebService/Cipher.h"
#include "ServerFixture.h"
#include "TestService.h"
#include "parameters/QMMemberWebServiceParameterCook.h"
#include "registry/QMRegistryAgent.h"

#include <QDateTime>
#include <QFileInfo>
#include <QJsonDocument>
#include <QProcess>
#include <QStandardPaths>
#include <QtTest>

namespace {

const std::wstring kCompany = L"SOFTWARE\\Quillmarsh";
const std::wstring kProduct = L"SOFTWARE\\Quillmarsh\\Account Test";
const QString kEmail = QStringLiteral("grüße@quillmarsh.test");
const QString kPassword = QStringLiteral("p4ss:wörd");

using Service = TestService;

std::wstring W(const QString& text)
{
    return text.toStdWString();
}

} // namespace

Q_DECLARE_METATYPE(CQMMemberWebService::EWSResult)

class TestAccount : public QObject
{
    Q_OBJECT

private:
    ServerFixture m_server;
    std::unique_ptr<StoreFolder> m_store;
    QTemporaryDir m_cache;
    QMRegistryTool::CQMRegistryAgent* m_agent = nullptr;

    std::wstring Read(const wchar_t* name)
    {
        std::wstring value;
        m_agent->ReadString(true, kCompany, name, value);
        return value;
    }
    int Count(const QString& path) { return m_server.Requests(path).size(); }
    QString CacheFile() const { return CQMMemberWebService::GetCacheFolderPath() + "MemberInfo.json"; }

    // Signs in through the password grant; the profile cache is then empty.
    void SignIn(Service& service)
    {
        std::wstring credential;
        QCOMPARE(service.MemberLogIn(W(kEmail), W(kPassword), credential, 5000, true), Service::WS_OK);
    }

private slots:
    void initTestCase()
    {
        qRegisterMetaType<CQMMemberWebService::EWSResult>("EWSResult");
        QVERIFY(m_server.Start());
        m_server.Export();
        m_server.Admin("/admin/member", {{"email", kEmail}, {"password", kPassword}, {"nickname", "Gruß"}});
        static QMRegistryTool::CQMRegistryAgent agent;
        m_agent = &agent;
        CQMMemberWebService::SetRegistryInterface(m_agent);
    }

    void init()
    {
        m_store = std::make_unique<StoreFolder>();
        m_server.Reset();
        CQMMemberWebService::SetCacheFolderPath(m_cache.path() + "/" + QTest::currentTestFunction() + "/");
        CQMMemberWebService::SetCheckCurrentInternetConnection(true);
    }

    void passwordGrantAsTheServerSawIt()
    {
        Service service(kProduct, false, 10000, 0);
        service.SetUserAgent(L"Pro/8.1");
        QVERIFY(QMCache::Create("{}", "MemberInfo.json"));
        QVERIFY(QMCache::Create("{}", "ProductInfoList.json"));
        std::wstring credential;
        QCOMPARE(service.MemberLogIn(W(kEmail), W(kPassword), credential, 5000, true), Service::WS_OK);

        const QString expected = QString::fromLatin1(
            ("launcher:" + kEmail.toUtf8().toBase64() + ":" + kPassword.toUtf8().toBase64() + ":"
             + QString::fromStdWString(service.GetMachineID()).toUtf8() + ":"
             + QString::fromStdWString(service.GetPrimaryMachineKey()).toUtf8() + ":"
             + QString::fromStdWString(service.GetSecondaryMachineKey()).toUtf8())
                .toBase64());
        QVERIFY(credential == W(expected));
        // The server's log keeps the credential's fields, the password redacted.
        QStringList logged = QString::fromLatin1(QByteArray::fromBase64(expected.toLatin1())).split(':');
        logged[2] = QStringLiteral("[redacted]");
        const QJsonObject seen = m_server.Requests("/MemberAPI/Token").last();
        const QJsonObject headers = seen.value("headers").toObject();
        QCOMPARE(seen.value("method").toString(), QStringLiteral("POST"));
        QCOMPARE(seen.value("body").toString(),
                 QStringLiteral("{\"grant_type\":\"password\",\"state\":\"\",\"scope\":\"\"}"));
        QCOMPARE(headers.value("User-Agent").toString(), QStringLiteral("Pro/8.1"));
        QCOMPARE(headers.value("Authorization").toString(), "Basic " + logged.join(':'));
        QCOMPARE(headers.value("ParameterCheckType").toString(), QStringLiteral("1"));
        QCOMPARE(headers.value("Content-Type").toString(), QStringLiteral("application/json"));
        // Tokens stored, caches cleared for the next reads.
        QVERIFY(!Read(L"QMToken").empty() && !Read(L"QMReToken").empty());
        QVERIFY(Read(L"QMBakToken") == Read(L"QMToken"));
        QVERIFY(!QMCache::Exists("MemberInfo.json") && !QMCache::Exists("ProductInfoList.json"));
    }

    void codeGrantAsTheServerSawIt_data()
    {
        QTest::addColumn<bool>("compressed");
        QTest::newRow("result object") << false;
        QTest::newRow("result compressed") << true;
    }
    void codeGrantAsTheServerSawIt()
    {
        QFETCH(bool, compressed);
        const QString guid = CQMMemberWebService::GenerateApiRequestID();
        m_server.Admin("/admin/signin", {{"guid", guid}, {"email", kEmail}});
        if (compressed)
            m_server.Fault({{"path", "/MemberAPI/AuthorizationCode"}, {"compress", true}});
        Service service(kProduct, false, 10000, 0);
        std::wstring credential;
        QCOMPARE(service.MemberLogIn(W(guid), credential, 5000, true), Service::WS_OK);
        const QJsonObject code = m_server.Requests("/MemberAPI/AuthorizationCode").last();
        QCOMPARE(code.value("target").toString(), "/MemberAPI/AuthorizationCode?GUID=" + guid);
        QCOMPARE(code.value("method").toString(), QStringLiteral("GET"));
        QVERIFY(!code.value("headers").toObject().contains("Authorization"));
        QCOMPARE(code.value("headers").toObject().value("Compress-Output").toString(), QStringLiteral("false"));
        const QJsonObject grant = m_server.Requests("/MemberAPI/Token").last();
        QCOMPARE(grant.value("body").toString(),
                 QStringLiteral("{\"grant_type\":\"authorization_code\",\"state\":\"\",\"scope\":\"\"}"));
        QVERIFY(!grant.value("headers").toObject().contains("ParameterCheckType"));
        // Logged as its fields, the one-time code redacted.
        const QStringList basic = grant.value("headers").toObject().value("Authorization").toString().mid(6).split(':');
        QCOMPARE(basic.size(), 5);
        QVERIFY(basic.at(1).startsWith("[redacted "));
        QVERIFY(!Read(L"QMToken").empty());
        // A code serves once: the same GUID cannot sign in twice.
        QCOMPARE(service.MemberLogIn(W(guid), credential, 5000, true), CQMMemberWebService::WS_STATUS_7);
    }

    void refusedSignIns_data()
    {
        QTest::addColumn<QString>("email");
        QTest::addColumn<QString>("password");
        QTest::addColumn<QString>("reply"); // a raw token reply, or empty for the server's own
        QTest::addColumn<int>("result");
        QTest::addColumn<int>("tokenRequests");
        QTest::newRow("wrong password") << kEmail << "nope" << "" << 5 << 1;
        QTest::newRow("unknown member") << "nobody@quillmarsh.test" << "x" << "" << 5 << 1;
        QTest::newRow("empty e-mail") << "" << "x" << "" << 4 << 0;
        QTest::newRow("empty password") << kEmail << "" << "" << 4 << 0;
        QTest::newRow("no refresh token") << kEmail << kPassword << "{\"access_token\":\"a.b.c\"}" << -1 << 1;
        QTest::newRow("error 4") << kEmail << kPassword << "{\"error\":4}" << 4 << 1;
        QTest::newRow("error 99") << kEmail << kPassword << "{\"error\":99}" << -1 << 1;
        QTest::newRow("not JSON") << kEmail << kPassword << "<html>" << -1 << 1;
    }
    void refusedSignIns()
    {
        QFETCH(QString, email);
        QFETCH(QString, password);
        QFETCH(QString, reply);
        QFETCH(int, result);
        QFETCH(int, tokenRequests);
        if (!reply.isEmpty())
            m_server.Fault({{"path", "/MemberAPI/Token"}, {"body", reply}});
        Service service(kProduct, false, 10000, 0);
        std::wstring credential;
        QCOMPARE(int(service.MemberLogIn(W(email), W(password), credential, 5000, true)), result);
        QCOMPARE(Count("/MemberAPI/Token"), tokenRequests);
        std::wstring token;
        QVERIFY(!m_agent->ReadString(true, kCompany, L"QMToken", token));
        QVERIFY(!m_agent->ReadString(true, kCompany, L"QMReToken", token));
    }

    void browserSignInStatuses()
    {
        Service service(kProduct, false, 10000, 0);
        QSignalSpy status(&service, &CQMMemberWebService::LoginStatus);
        std::wstring credential;
        const QString refused = CQMMemberWebService::GenerateApiRequestID();
        m_server.Admin("/admin/signin", {{"guid", refused}, {"status", 3}});
        QCOMPARE(service.MemberLogIn(W(refused), credential, 5000, true), Service::WS_LOGIN_STATUS_FAIL);
        QCOMPARE(status.size(), 1);
        QCOMPARE(status.first().first().toInt(), 3);
        // Pending and unknown GUIDs are the server's statuses, passed through.
        const QString pending = CQMMemberWebService::GenerateApiRequestID();
        m_server.Admin("/admin/signin", {{"guid", pending}});
        QCOMPARE(service.MemberLogIn(W(pending), credential, 5000, true), CQMMemberWebService::WS_STATUS_1);
        QCOMPARE(service.MemberLogIn(L"unknown", credential, 5000, true), Service::WS_PARAM_FAIL);
        QCOMPARE(status.size(), 1);
        QCOMPARE(Count("/MemberAPI/Token"), 0);
    }

    void credentialCook_data()
    {
        QTest::addColumn<QString>("code");
        QTest::addColumn<QString>("machine");
        QTest::addColumn<bool>("built");
        QTest::newRow("code") << "abc" << "M1" << true;
        QTest::newRow("no code") << "" << "M1" << false;
        QTest::newRow("no machine id") << "abc" << "" << false;
    }
    void credentialCook()
    {
        QFETCH(QString, code);
        QFETCH(QString, machine);
        QFETCH(bool, built);
        const CQMMemberWebServiceParameterCook cook(false);
        std::wstring credential;
        QCOMPARE(cook.CookAuthorizationCodeCredential(W(code), W(machine), L"K1", L"K2", credential), built);
        if (built)
            QCOMPARE(QByteArray::fromBase64(QString::fromStdWString(credential).toLatin1()),
                     ("launcher:" + code + ":" + machine + ":K1:K2").toUtf8());
    }

    void profileCacheRules_data()
    {
        QTest::addColumn<QString>("cache");      // "none", "fresh" or "stale"
        QTest::addColumn<bool>("force");
        QTest::addColumn<bool>("offline");
        QTest::addColumn<int>("requests");
        QTest::addColumn<bool>("rewritten");
        QTest::newRow("fresh cache") << "fresh" << false << false << 0 << false;
        QTest::newRow("fresh cache, forced") << "fresh" << true << false << 1 << true;
        QTest::newRow("no cache") << "none" << false << false << 1 << true;
        QTest::newRow("stale cache is not rewritten") << "stale" << false << false << 1 << false;
        QTest::newRow("stale cache, forced") << "stale" << true << false << 1 << true;
        QTest::newRow("offline, stale cache") << "stale" << false << true << 0 << false;
    }
    void profileCacheRules()
    {
        QFETCH(QString, cache);
        QFETCH(bool, force);
        QFETCH(bool, offline);
        QFETCH(int, requests);
        QFETCH(bool, rewritten);
        Service service(kProduct, false, 10000, 0);
        SignIn(service);
        const QString cached = "{\"apiStatus\":2,\"result\":{\"status\":2,\"data\":{\"CartQty\":9,\"userinfo\":"
                               "{\"MemberID\":\"cached-id\",\"Email\":\"cached@quillmarsh.test\"}}}}";
        const QDateTime old = QDateTime::currentDateTime().addDays(-2);
        if (cache != "none") {
            QVERIFY(QMCache::Create(cached, "MemberInfo.json"));
            if (cache == "stale") {
                QFile file(CacheFile());
                QVERIFY(file.open(QIODevice::ReadWrite));
                QVERIFY(file.setFileTime(old, QFileDevice::FileModificationTime));
            }
        }
        if (offline) {
            CQMNetworkCenterProbe();
        }
        QSignalSpy finished(&service, &CQMMemberWebService::FinishGetMemberLoginInfo);
        QSignalSpy errors(&service, QOverload<QString, CQMMemberWebService::EWSResult>::of(&Service::ErrorNotice));
        _CMemberLoginInfo info;
        QCOMPARE(service.GetMemberLoginInfo(info, force, true, 5000), Service::WS_OK);
        QCOMPARE(finished.size(), 1);
        QCOMPARE(Count("/MemberAPI/v2/Logininfo"), requests);
        const bool fromServer = requests > 0;
        QCOMPARE(QString::fromStdWString(info.strEmail), fromServer ? kEmail : QStringLiteral("cached@quillmarsh.test"));
        QCOMPARE(QString::fromStdWString(service.GetMemberID()), QString::fromStdWString(info.strMemberID));
        if (fromServer) {
            QCOMPARE(QString::fromStdWString(info.strNickName), QStringLiteral("Gruß"));
            QCOMPARE(info.nMemberType, 2);
            QCOMPARE(info.nClass, 1);
            QCOMPARE(info.nWishListQty, 3);
            QVERIFY(!info.strAvatarUrl.empty() && !info.strRegistrationDate.empty());
        }
        QCOMPARE(QMCache::Content("MemberInfo.json").contains(kEmail), rewritten);
        if (offline) {
            QCOMPARE(errors.size(), 1);
            QCOMPARE(int(errors.first().at(1).value<CQMMemberWebService::EWSResult>()), -7);
            m_server.Export();
            Service online(0); // points the connection probe at the server again
            QVERIFY(CQMMemberWebService::CheckInternetConnection(2000, false, false));
        }
    }

    void profileFallsBackToTheCache()
    {
        Service service(kProduct, false, 10000, 0);
        SignIn(service);
        QVERIFY(QMCache::Create("{\"apiStatus\":2,\"result\":{\"status\":2,\"data\":{\"userinfo\":{\"MemberID\":\"c\"}}}}",
                                "MemberInfo.json"));
        m_server.Fault({{"path", "/MemberAPI/v2/Logininfo"}, {"status", 3}});
        _CMemberLoginInfo info;
        QCOMPARE(service.GetMemberLoginInfo(info, true, true, 5000), Service::WS_OK);
        QCOMPARE(QString::fromStdWString(info.strMemberID), QStringLiteral("c"));
        // With nothing cached the server's status stands.
        QVERIFY(QMCache::Clear("MemberInfo.json"));
        QSignalSpy errors(&service, QOverload<QString, CQMMemberWebService::EWSResult>::of(&Service::ErrorNotice));
        QCOMPARE(service.GetMemberLoginInfo(info, true, true, 5000), Service::WS_DB_OPERATION_FAIL);
        QCOMPARE(errors.size(), 1);
    }

    void profileAfterExpiry()
    {
        Service service(kProduct, false, 10000, 0);
        SignIn(service);
        const QJsonObject expired = m_server.Admin("/admin/token", {{"email", kEmail}, {"ttl", 0}});
        QVERIFY(service.SaveMemberToken(W(expired.value("access_token").toString()),
                                        W(expired.value("refresh_token").toString())));
        _CMemberLoginInfo info;
        QCOMPARE(service.GetMemberLoginInfo(info, true, true, 5000), Service::WS_OK);
        QCOMPARE(QString::fromStdWString(info.strEmail), kEmail);
        QCOMPARE(Count("/MemberAPI/Token"), 2); // the sign-in, then one refresh
        // A server that keeps saying "expired" ends in 6, not in endless recursion.
        const int before = Count("/MemberAPI/v2/Logininfo");
        m_server.Fault({{"path", "/MemberAPI/v2/Logininfo"}, {"status", 6}});
        QCOMPARE(service.GetMemberLoginInfo(info, true, true, 5000), Service::WS_TOKEN_EXPIRE);
        QVERIFY(Count("/MemberAPI/v2/Logininfo") - before <= 3);
    }

    void syncMemberId()
    {
        Service service(kProduct, false, 10000, 0);
        SignIn(service);
        QCOMPARE(service.SyncMemberID(), Service::WS_OK);
        QCOMPARE(service.SyncMemberID(), Service::WS_OK);
        QCOMPARE(Count("/MemberAPI/v2/Logininfo"), 1);
        QVERIFY(!service.GetMemberID().empty());
        SignIn(service); // a new refresh token: fetched again
        QCOMPARE(service.SyncMemberID(), Service::WS_OK);
        QCOMPARE(Count("/MemberAPI/v2/Logininfo"), 2);
    }

    void requestInfo()
    {
        Service service(kProduct, false, 10000, 0);
        SignIn(service);
        QString text;
        QVERIFY(QMCipher::Decrypt(QString::fromStdWString(service.GetQMMemberRequestInfo()).toLatin1(),
                                  QMCipher::RequestInfoKey(), text));
        const QStringList parts = text.split(',');
        QCOMPARE(parts.size(), 6);
        QVERIFY(parts.at(0) == QString::fromStdWString(Read(L"QMToken")));
        QVERIFY(parts.at(1) == QString::fromStdWString(Read(L"QMReToken")));
        QCOMPARE(parts.at(3), QString::fromStdWString(service.GetMachineID()));
        QCOMPARE(parts.at(5), QString::fromStdWString(service.GetSecondaryMachineKey()));
    }

    void commandLine()
    {
        auto run = [](const QStringList& arguments, const QByteArray& input, QByteArray& output) {
            QProcess cli;
            cli.setProcessChannelMode(QProcess::MergedChannels);
            cli.start(QStringLiteral(QM_CLI_BINARY), arguments);
            cli.write(input);
            cli.closeWriteChannel();
            cli.waitForFinished(30000);
            output = cli.readAll();
            return cli.exitCode();
        };
        qputenv("XDG_DATA_HOME", m_cache.path().toLocal8Bit() + "/cli");
        QByteArray out;
        QCOMPARE(run({"login", "--email", kEmail, "--password-stdin"}, "wrong\n", out), 1);
        QVERIFY(out.contains("wrong e-mail or password"));
        QCOMPARE(run({"login", "--email", kEmail, "--password-stdin"}, kPassword.toUtf8() + "\n", out), 0);
        QVERIFY(!out.contains(kPassword.toUtf8()));
        QCOMPARE(run({"login", "--email", kEmail, "--password", kPassword}, "", out), 2);
        QCOMPARE(run({"login", "--email", kEmail}, "", out), 2); // no terminal, no --password-stdin
        QCOMPARE(run({"--json", "profile"}, "", out), 0);
        QCOMPARE(QJsonDocument::fromJson(out).object().value("source").toString(), QStringLiteral("server"));
        QCOMPARE(run({"--json", "profile"}, "", out), 0);
        QCOMPARE(QJsonDocument::fromJson(out).object().value("source").toString(), QStringLiteral("cache"));
        QCOMPARE(run({"whoami"}, "", out), 0);
        QTemporaryDir folder;
        QCOMPARE(run({"token", "export", folder.path()}, "", out), 0);
        QVERIFY(!out.contains(QString::fromStdWString(Read(L"QMBakToken")).toUtf8()));
        QVERIFY(QFileInfo::exists(folder.path() + "/QMBakToken.reg"));
        QCOMPARE(run({"logout"}, "", out), 0);
        QCOMPARE(run({"logout"}, "", out), 1);
        QCOMPARE(run({"profile", "--force"}, "", out), 1);
        QVERIFY(out.contains("no member is signed in"));
        qputenv("QM_API_HOST", "127.0.0.1:1");
        QCOMPARE(run({"login", "--email", kEmail, "--password-stdin"}, "x\n", out), 1);
        QVERIFY(out.contains("server unreachable"));
        m_server.Export();
    }

    void browserLoginFromTheCommandLine_data()
    {
        QTest::addColumn<bool>("interrupt");
        QTest::newRow("signed in on the page") << false;
        QTest::newRow("Ctrl-C") << true;
    }
    void browserLoginFromTheCommandLine()
    {
        QFETCH(bool, interrupt);
        QProcess cli;
        cli.start(QStringLiteral(QM_CLI_BINARY), {"login", "--browser", "--timeout", "30"});
        QByteArray printed;
        QTRY_VERIFY_WITH_TIMEOUT((printed += cli.readAllStandardOutput()).contains('\n'), 10000);
        const QString url = QString::fromUtf8(printed).section(QStringLiteral("Sign in at: "), 1).trimmed();
        QVERIFY2(url.startsWith("https://" + m_server.Host() + "/signin?GUID="), qPrintable(url));
        if (interrupt)
            cli.terminate(); // SIGTERM: handled as Ctrl-C is
        else
            m_server.Admin("/admin/signin", {{"guid", url.section("GUID=", 1)}, {"email", kEmail}});
        QVERIFY(cli.waitForFinished(20000));
        QCOMPARE(cli.exitCode(), interrupt ? 130 : 0);
        if (interrupt)
            QVERIFY(cli.readAllStandardError().contains("stopped"));
        else
            QVERIFY(cli.readAllStandardOutput().contains("member_id"));
    }

    void noPasswordEchoOnATerminal()
    {
        // `script` gives the command a terminal; what the terminal shows must not hold the password.
        if (QStandardPaths::findExecutable("script").isEmpty())
            QSKIP("script(1) is not installed");
        QProcess terminal;
        terminal.setProcessChannelMode(QProcess::MergedChannels);
        const QString command = QStringLiteral("'%1' login --email '%2'").arg(QM_CLI_BINARY, kEmail);
        terminal.start("script", {"-q", "-e", "-c", command, "/dev/null"});
        QVERIFY(terminal.waitForStarted());
        QByteArray shown;
        QTRY_VERIFY_WITH_TIMEOUT((shown += terminal.readAll()).contains("Password"), 10000);
        terminal.write(kPassword.toUtf8() + "\n");
        QVERIFY(terminal.waitForFinished(30000));
        shown += terminal.readAll();
        QVERIFY2(!shown.contains(kPassword.toUtf8()), "the password was echoed");
        QCOMPARE(terminal.exitCode(), 0);
    }

private:
    // Makes the connectivity flags say "offline" without touching the network of the test.
    static void CQMNetworkCenterProbe()
    {
        qputenv("QM_API_HOST", "127.0.0.1:1");
        CQMMemberWebService probe(0);
        QVERIFY(!CQMMemberWebService::CheckInternetConnection(1000, false, false));
    }
};

QTEST_GUILESS_MAIN(TestAccount)
#include "tst_account.moc"
