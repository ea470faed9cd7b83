#include "QMMemberWebService.h"

#include "QMMemberWebService/Cache.h"
#include "ServerFixture.h"
#include "TestService.h"
#include "registry/QMRegistryAgent.h"

#include <QApplication>
#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QLoggingCategory>
#include <QProcess>
#include <QStandardPaths>
#include <QtTest>

#include <cstring>
#include <iostream>

namespace {

const std::wstring kProduct = L"SOFTWARE\\Quillmarsh\\Launcher Test";
const QString kDemo = QStringLiteral("demo@quillmarsh.test");
const QString kMyProduct = QStringLiteral("/MemberAPI/v1/Launcher/MyProduct");
const QString kRenewal = QStringLiteral("/ContentManager/v1/User/EULARenew");
const char* const kRenewError = "CQMMemberWebService::CheckIfNeedToAgreeEula Check renew eula error, error code:";

using Service = TestService;
using Installed = CQMMemberWebService::ProductIDList;

QString S(const std::wstring& text)
{
    return QString::fromStdWString(text);
}

QJsonObject Json(const std::wstring& text)
{
    return QJsonDocument::fromJson(S(text).toUtf8()).object();
}

// A reply the server never sends, to tell a cached answer from a fresh one.
const QString kCachedReply = QStringLiteral("{\"apiStatus\":2,\"result\":{\"data\":{\"From\":\"cache\"},\"status\":2}}");

QStringList g_log;
void Capture(QtMsgType, const QMessageLogContext&, const QString& message)
{
    g_log.append(message);
}

// The child of the locale rows: asks for the agreement of the system language and
// prints the text's first line.
int EulaChild()
{
    static QMRegistryTool::CQMRegistryAgent agent;
    CQMMemberWebService::SetRegistryInterface(&agent);
    CQMMemberWebService service(kProduct, false, 10000, 0);
    service.CheckIfNeedToShowEula(CQMMemberWebService::EULA_APPLICATION, 5000);
    std::wstring text;
    if (service.GetWebEndUserLicenseAgreement(CQMMemberWebService::EULA_APPLICATION, text,
                                              CQMMemberWebService::LID_SYSTEM)
        != CQMMemberWebService::WS_OK)
        return 1;
    std::cout << S(text).section(QLatin1Char('\n'), 0, 0).toStdString() << std::endl;
    return 0;
}

} // namespace

Q_DECLARE_METATYPE(CQMMemberWebService::EWSResult)
Q_DECLARE_METATYPE(std::wstring)

class TestLauncher : public QObject
{
    Q_OBJECT

private:
    ServerFixture m_server;
    std::unique_ptr<StoreFolder> m_store;
    QTemporaryDir m_cache;
    QMRegistryTool::CQMRegistryAgent* m_agent = nullptr;

    int Count(const QString& path) { return m_server.Requests(path).size(); }
    QString CacheFile(const QString& name) const { return CQMMemberWebService::GetCacheFolderPath() + name; }

    // The demo member's tokens in the store; \a ttl 0 stores an access token that has expired.
    void SignIn(int ttl = -1)
    {
        QJsonObject body{{"email", kDemo}};
        if (ttl >= 0)
            body.insert("ttl", ttl);
        const QJsonObject tokens = m_server.Admin("/admin/token", body);
        Service service(0);
        QVERIFY(service.SaveMemberToken(tokens.value("access_token").toString().toStdWString(),
                                        tokens.value("refresh_token").toString().toStdWString()));
    }
    std::wstring AccessToken()
    {
        std::wstring token;
        m_agent->ReadString(true, L"SOFTWARE\\Quillmarsh", L"QMToken", token);
        return token;
    }

private slots:
    void initTestCase()
    {
        qRegisterMetaType<CQMMemberWebService::EWSResult>("EWSResult");
        qRegisterMetaType<std::wstring>("std::wstring");
        QStandardPaths::setTestModeEnabled(true);
        QVERIFY(m_server.Start({"--seed", "demo"}));
        m_server.Export();
        static QMRegistryTool::CQMRegistryAgent agent;
        m_agent = &agent;
        CQMMemberWebService::SetRegistryInterface(m_agent);
    }

    void init()
    {
        m_store = std::make_unique<StoreFolder>();
        m_agent->WriteString(false, kProduct, L"Check Update Edition", L"Pro");
        m_agent->WriteString(false, kProduct, L"Product Build", L"8.1.0101.1");
        m_agent->WriteString(false, kProduct, L"Version Code", L"850");
        m_server.Reset();
        CQMMemberWebService::SetCacheFolderPath(m_cache.path() + "/" + QTest::currentTestFunction() + "/"
                                                + QTest::currentDataTag() + "/");
        CQMMemberWebService::SetInHouseTest(false);
        SignIn();
    }

    void productCacheRules_data()
    {
        QTest::addColumn<QString>("change");
        QTest::addColumn<int>("result");
        QTest::addColumn<int>("requests");
        QTest::addColumn<bool>("fromCache");
        QTest::addColumn<int>("errorNotices");
        QTest::newRow("fresh cache, same list") << "" << -1 << 0 << true << 0;
        QTest::newRow("one language changed") << "language" << 2 << 1 << false << 0;
        QTest::newRow("expired file") << "expired" << 2 << 1 << false << 0;
        QTest::newRow("cache folder empty") << "off" << 2 << 1 << false << 0;
        QTest::newRow("offline") << "offline" << -7 << 0 << true << 1;
        QTest::newRow("server failure") << "failure" << -1 << 1 << true << 0;
    }
    void productCacheRules()
    {
        QFETCH(QString, change);
        QFETCH(int, result);
        QFETCH(int, requests);
        QFETCH(bool, fromCache);
        QFETCH(int, errorNotices);
        Installed installed{{L"Pro", 1}, {L"Director", 2}};
        {
            Service primer(kProduct, false, 10000, 0);
            std::wstring info;
            QCOMPARE(primer.GetMemberProductInfo(installed, info, true, nullptr, true, 5000, true), Service::WS_OK);
            QCOMPARE(QMCache::Content("InstalledProductList"), QStringLiteral("Pro:1;Director:2"));
        }
        QVERIFY(QMCache::Create(kCachedReply, "ProductInfoList.json"));
        m_server.Reset();
        if (change == "language")
            installed[1].second = 3;
        if (change == "expired") {
            QFile file(CacheFile("ProductInfoList.json"));
            QVERIFY(file.open(QIODevice::Append));
            QVERIFY(file.setFileTime(QDateTime::currentDateTime().addDays(-1), QFileDevice::FileModificationTime));
        }
        if (change == "off") {
            CQMMemberWebService::SetCacheFolderPath(QString());
            QMCache::Clear("ProductInfoList.json");
            QMCache::Clear("InstalledProductList");
        }
        if (change == "failure")
            m_server.Fault({{"path", kMyProduct}, {"http", 500}});
        if (change == "offline") {
            qputenv("QM_API_HOST", "127.0.0.1:1");
            CQMMemberWebService probe(0);
            QVERIFY(!CQMMemberWebService::CheckInternetConnection(1000, false, false));
            m_server.Export();
        }

        Service service(kProduct, false, 10000, 0);
        QSignalSpy errors(&service, QOverload<QString, CQMMemberWebService::EWSResult>::of(&Service::ErrorNotice));
        QSignalSpy finished(&service, &Service::FinishCurrentFunction);
        std::wstring info;
        QCOMPARE(int(service.GetMemberProductInfo(installed, info, change == "failure", nullptr, true, 5000, true)),
                 result);
        QCOMPARE(Count(kMyProduct), requests);
        QCOMPARE(S(info) == kCachedReply, fromCache);
        QVERIFY(!info.empty());
        QCOMPARE(errors.size(), errorNotices);
        QCOMPARE(finished.size(), 1);
        if (change == "offline") {
            QCOMPARE(errors.first().at(0).toString(), QString());
            QVERIFY(CQMMemberWebService::CheckInternetConnection(2000, false, false));
        }
        if (change == "language" || change == "expired") {
            // Rewritten whole by the fetch, with the list it was fetched for.
            QVERIFY(QMCache::Content("ProductInfoList.json").contains("\"Products\""));
            QCOMPARE(QMCache::Content("InstalledProductList"), QMCache::ListToString(installed));
            QCOMPARE(QDir(CQMMemberWebService::GetCacheFolderPath()).entryList(QDir::Files).size(), 2);
        }
        if (change == "off")
            QVERIFY(!QFile::exists(CacheFile("ProductInfoList.json")) && !QFile::exists(CacheFile("InstalledProductList")));
    }

    void bodiesAsTheServerSawThem_data()
    {
        QTest::addColumn<bool>("purchase");
        QTest::addColumn<bool>("withAp");
        QTest::addColumn<bool>("inHouse");
        QTest::addColumn<QString>("body");
        QTest::newRow("products") << false << false << false
                                  << "{\"InstalledProducts\":[{\"ProductID\":\"Pro\",\"Lang\":1},{\"ProductID\":"
                                     "\"Director\",\"Lang\":2}],\"InHouseTest\":false}";
        QTest::newRow("products, in-house, RequestAp")
            << false << true << true
            << "{\"InstalledProducts\":[{\"ProductID\":\"Pro\",\"Lang\":1},{\"ProductID\":\"Director\",\"Lang\":2}],"
               "\"InHouseTest\":true,\"RequestAp\":{\"ProductID\":\"Pro\",\"ProductBuild\":\"8.1.0101.1\"}}";
        QTest::newRow("purchases") << true << false << false
                                   << "{\"InstalledProducts\":[],\"InHouseTest\":false,\"CheckBuyFullProduct\":true}";
        QTest::newRow("purchases, RequestAp")
            << true << true << false
            << "{\"InstalledProducts\":[],\"InHouseTest\":false,\"CheckBuyFullProduct\":true, \"RequestAp\":{"
               "\"ProductID\":\"Pro\",\"ProductBuild\":\"8.1.0101.1\"} }";
    }
    void bodiesAsTheServerSawThem()
    {
        QFETCH(bool, purchase);
        QFETCH(bool, withAp);
        QFETCH(bool, inHouse);
        QFETCH(QString, body);
        CQMMemberWebService::SetInHouseTest(inHouse);
        Service service(kProduct, false, 10000, 0);
        service.SetUserAgent(L"Pro/8.1.0101.1");
        std::pair<std::wstring, std::wstring> ap{L"Pro", L"8.1.0101.1"};
        Installed installed{{L"Pro", 1}, {L"Director", 2}};
        std::wstring info;
        const auto result = purchase
                                ? service.GetPurchaseProductInfo(1, 0, 0, info, withAp ? &ap : nullptr, 5000, true)
                                : service.GetMemberProductInfo(installed, info, true, withAp ? &ap : nullptr, true,
                                                               5000, true);
        QCOMPARE(result, Service::WS_OK);
        const QJsonObject seen = m_server.Requests(kMyProduct).last();
        QCOMPARE(seen.value("body").toString(), body);
        const QJsonObject headers = seen.value("headers").toObject();
        QCOMPARE(headers.value("Compress-Output").toString(), QStringLiteral("false"));
        QCOMPARE(headers.value("User-Agent").toString(), QStringLiteral("Pro/8.1.0101.1"));
        QCOMPARE(headers.value("Authorization").toString(), "Token " + ServerFixture::Redacted(S(AccessToken())));
        // The reply comes back whole, as the service sent it.
        const QJsonValue data = Json(info).value("result").toObject().value("data");
        if (purchase) {
            QVERIFY(data.isArray() && !data.toArray().isEmpty());
            for (const QJsonValue& entry : data.toArray())
                QVERIFY(entry.toObject().value("FullProduct").toBool());
        } else {
            QCOMPARE(data.toObject().value("Products").toArray().first().toObject().value("PreReleaseBuild").isString(),
                     inHouse);
            QCOMPARE(data.toObject().value("RequestAp").toObject().value("UpdateAvailable").toBool(), withAp);
        }
    }

    void purchases_data()
    {
        QTest::addColumn<bool>("demo");
        QTest::addColumn<int>("full");
        QTest::addColumn<bool>("sync");
        QTest::addColumn<QStringList>("products");
        const QStringList all{"AudioDesk", "ColorLab", "MotionLab", "PhotoDesk", "Pro", "Ultra"};
        QTest::newRow("all licences") << true << 0 << true << all;
        QTest::newRow("full licences") << true << 1 << true << QStringList{"AudioDesk", "PhotoDesk", "Pro", "Ultra"};
        QTest::newRow("asynchronous") << true << 0 << false << all;
        QTest::newRow("nothing bought") << false << 0 << true << QStringList();
    }
    void purchases()
    {
        QFETCH(bool, demo);
        QFETCH(int, full);
        QFETCH(bool, sync);
        QFETCH(QStringList, products);
        if (!demo) {
            const QJsonObject tokens = m_server.Admin("/admin/token", {{"email", "buys-nothing@quillmarsh.test"}});
            QVERIFY(Service(0).SaveMemberToken(tokens.value("access_token").toString().toStdWString(),
                                               tokens.value("refresh_token").toString().toStdWString()));
        }
        Service service(kProduct, false, 10000, 0);
        QSignalSpy delivered(&service, &Service::FinishRequest);
        std::wstring info = L"untouched";
        const auto result = service.GetPurchaseProductInfo(full, 0, 0, info, nullptr, 5000, sync);
        if (!sync) {
            QCOMPARE(result, Service::WS_UNEXPECT_FAIL);
            QVERIFY(delivered.wait(10000));
            QCOMPARE(delivered.size(), 1);
            QCOMPARE(delivered.first().at(0).value<std::wstring>(), std::wstring(L"GetPurchaseProductInfo"));
            QVERIFY(info == L"untouched");
            info = delivered.first().at(1).value<std::wstring>();
        } else {
            QCOMPARE(result, Service::WS_OK);
        }
        if (products.isEmpty()) {
            QVERIFY(info == L"untouched"); // an empty list leaves the output as it was
            return;
        }
        QStringList seen;
        for (const QJsonValue& entry : Json(info).value("result").toObject().value("data").toArray())
            seen << entry.toObject().value("ProductID").toString();
        QCOMPARE(seen, products);
    }

    void expiredTokenRefreshesAndRepeats()
    {
        SignIn(0);
        const std::wstring expired = AccessToken();
        Service service(kProduct, false, 10000, 0);
        Installed installed{{L"Pro", 1}};
        std::wstring info;
        QCOMPARE(service.GetMemberProductInfo(installed, info, true, nullptr, true, 5000, true), Service::WS_TOKEN_EXPIRE);
        QCOMPARE(Count(kMyProduct), 2);
        QCOMPARE(Count("/MemberAPI/Token"), 1);
        QVERIFY(AccessToken() != expired);
        QVERIFY(Json(info).value("result").toObject().value("data").toObject().contains("Products"));
        // A server that keeps answering "expired" gets one repeat, not a loop.
        m_server.Reset();
        m_server.Fault({{"path", kMyProduct}, {"status", 6}});
        QCOMPARE(service.GetMemberProductInfo(installed, info, true, nullptr, true, 5000, true), Service::WS_TOKEN_EXPIRE);
        QCOMPARE(Count(kMyProduct), 2);
    }

    void asyncDeliversOnceInTheOwningThread_data()
    {
        QTest::addColumn<bool>("expiredToken");
        QTest::newRow("valid token") << false;
        QTest::newRow("expired token") << true;
    }
    void asyncDeliversOnceInTheOwningThread()
    {
        QFETCH(bool, expiredToken);
        if (expiredToken)
            SignIn(0);
        Service service(kProduct, false, 10000, 0);
        QSignalSpy delivered(&service, &Service::FinishRequest);
        QSignalSpy finished(&service, &Service::FinishCurrentFunction);
        QThread* deliveredIn = nullptr;
        connect(&service, &Service::FinishRequest, this, [&] { deliveredIn = QThread::currentThread(); },
                Qt::DirectConnection);
        std::pair<std::wstring, std::wstring> ap{L"Pro", L"8.1.0101.1"};
        std::wstring info = L"untouched";
        {
            Installed installed{{L"Pro", 1}};
            QCOMPARE(service.GetMemberProductInfo(installed, info, true, &ap, false, 5000, true),
                     Service::WS_UNEXPECT_FAIL);
        } // the caller's list is gone before the reply comes
        ap = {L"Changed", L"0"};
        QVERIFY(QApplication::overrideCursor()); // the wait cursor shows until the answer
        QVERIFY(finished.wait(10000));
        QVERIFY(!QApplication::overrideCursor());
        QCOMPARE(delivered.size(), 1);
        QCOMPARE(finished.size(), 1);
        QCOMPARE(deliveredIn, QThread::currentThread());
        QCOMPARE(delivered.first().at(0).value<std::wstring>(), std::wstring(L"GetMemberProductInfo"));
        QCOMPARE(delivered.first().at(2).toInt(), 0);
        const QJsonObject reply = Json(delivered.first().at(1).value<std::wstring>());
        QCOMPARE(reply.value("result").toObject().value("data").toObject().value("RequestAp").toObject().value("ProductID").toString(),
                 QStringLiteral("Pro"));
        QVERIFY(info == L"untouched");
        QCOMPARE(Count(kMyProduct), expiredToken ? 2 : 1);
        QCOMPARE(QMCache::Content("InstalledProductList"), QStringLiteral("Pro:1"));
        // Nothing more arrives later.
        QVERIFY(!finished.wait(300));
    }

    void destroyedWhileInFlight()
    {
        m_server.Fault({{"path", kMyProduct}, {"delay_ms", 300}, {"status", 2}, {"times", 2}});
        Installed installed{{L"Pro", 1}};
        std::wstring info;
        auto* doomed = new Service(kProduct, false, 10000, 0);
        QCOMPARE(doomed->GetMemberProductInfo(installed, info, true, nullptr, false, 5000, true),
                 Service::WS_UNEXPECT_FAIL);
        delete doomed;
        // A second call sent at the same time ends; the event loop that delivers it would
        // have delivered to the deleted one too.
        Service witness(kProduct, false, 10000, 0);
        QSignalSpy delivered(&witness, &Service::FinishRequest);
        QCOMPARE(witness.GetMemberProductInfo(installed, info, true, nullptr, false, 5000, true),
                 Service::WS_UNEXPECT_FAIL);
        QVERIFY(delivered.wait(10000));
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QCOMPARE(delivered.size(), 1);
        // A host that destroys the service in its slot of the answer: nothing runs on afterwards.
        auto* oneShot = new Service(kProduct, false, 10000, 0);
        connect(oneShot, &Service::FinishRequest, oneShot, [oneShot] { delete oneShot; });
        QSignalSpy gone(oneShot, &QObject::destroyed);
        oneShot->GetMemberProductInfo(installed, info, true, nullptr, false, 5000, true);
        QVERIFY(gone.wait(10000));
        QVERIFY(!QApplication::overrideCursor());
    }

    void redirectLinks_data()
    {
        QTest::addColumn<int>("type");
        QTest::addColumn<QString>("target");
        QTest::addColumn<int>("language");
        QTest::addColumn<bool>("signedIn");
        QTest::addColumn<int>("result");
        QTest::addColumn<QString>("query"); // %1 the token
        const QString page = QStringLiteral("https://127.0.0.1/member/store?a=1&b=ü");
        const QString encoded = QStringLiteral("https%3A%2F%2F127.0.0.1%2Fmember%2Fstore%3Fa%3D1%26b%3D%C3%BC");
        QTest::newRow("type 0") << 0 << page << 1 << true << 2 << "?Url=" + encoded + "&LID=1&Token=%1&Type=0";
        QTest::newRow("type 1 sends no URL") << 1 << page << 8 << true << 2 << "?Url=&LID=8&Token=%1&Type=1";
        QTest::newRow("type 1 without URL") << 1 << "" << 2 << true << 2 << "?Url=&LID=2&Token=%1&Type=1";
        QTest::newRow("type 2") << 2 << page << 4 << true << 2 << "?Url=" + encoded + "&LID=4&Token=%1&Type=2";
        QTest::newRow("language 0") << 0 << page << 0 << true << 4 << "";
        QTest::newRow("no URL") << 2 << "" << 1 << true << 4 << "";
        QTest::newRow("unknown type") << 3 << page << 1 << true << 4 << "";
        QTest::newRow("signed out") << 1 << page << 1 << false << 4 << "";
    }
    void redirectLinks()
    {
        QFETCH(int, type);
        QFETCH(QString, target);
        QFETCH(int, language);
        QFETCH(bool, signedIn);
        QFETCH(int, result);
        QFETCH(QString, query);
        if (!signedIn)
            QVERIFY(CQMMemberWebService::MemberLogOut());
        Service service(kProduct, false, 10000, 0);
        std::wstring link = target.toStdWString();
        QCOMPARE(int(service.GetMemberRedirectLink(link, language, CQMMemberWebService::ERedirectType(type))), result);
        // Compared without printing: the link carries the token.
        const QString expected = result == 2 ? "https://" + m_server.Host() + "/MemberAPI/v1/Launcher/MemberRedirect"
                                                   + QString(query).replace("%1", S(AccessToken()))
                                             : target;
        QVERIFY2(S(link) == expected, qPrintable(QString(expected).replace(S(AccessToken()), "<token>")));
        QCOMPARE(Count("/MemberAPI/v1/Launcher/MemberRedirect"), 0);
        // Rate-limited: a token saved this very second is refreshed, one saved a minute ago is not.
        m_agent->WriteString(true, L"SOFTWARE\\Quillmarsh", L"QMLastRefreshTime",
                             QDateTime::currentDateTime().addSecs(-60).toString("yyyy-MM-dd hh:mm:ss").toStdWString());
        const int refreshes = Count("/MemberAPI/Token");
        service.GetMemberRedirectLink(link, language, CQMMemberWebService::ERedirectType(type));
        QCOMPARE(Count("/MemberAPI/Token"), refreshes);
    }

    void followRedirectInBrowser()
    {
        if (qEnvironmentVariableIsEmpty("NODE_PATH") || !QFile::exists("/usr/bin/chromium"))
            QSKIP("needs node with playwright-core on NODE_PATH and /usr/bin/chromium: run ./qm test");
        Service service(kProduct, false, 10000, 0);
        std::wstring link = QStringLiteral("https://%1/member/store").arg(m_server.Host()).toStdWString();
        QCOMPARE(service.GetMemberRedirectLink(link, 1, CQMMemberWebService::REDIRECT_WEB_PAGE), Service::WS_OK);
        QProcess node;
        node.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        node.start(QStringLiteral("node"), {QStringLiteral(QM_REDIRECT_DRIVER), S(link)});
        QVERIFY(node.waitForFinished(60000));
        QCOMPARE(node.exitCode(), 0);
        const QString shown = QString::fromUtf8(node.readAllStandardOutput()).trimmed();
        QCOMPARE(shown, QStringLiteral("Signed in as Demo (demo@quillmarsh.test) at /member/store"));
        // The server's log has seen the link, without its token.
        const QList<QJsonObject> seen = m_server.Requests("/MemberAPI/v1/Launcher/MemberRedirect");
        QCOMPARE(seen.size(), 1);
        const QString logged = seen.first().value("target").toString();
        QVERIFY2(logged.contains("Token=" + ServerFixture::Redacted(S(AccessToken()))), "token in the request log");
    }

    void languagePacks_data()
    {
        QTest::addColumn<QJsonObject>("fault");
        QTest::addColumn<int>("result");
        QTest::addColumn<int>("requests");
        QTest::addColumn<int>("refreshes");
        QTest::newRow("compressed reply") << QJsonObject() << 2 << 1 << 0;
        QTest::newRow("status 6 once") << QJsonObject{{"status", 6}, {"times", 1}} << 2 << 2 << 1;
        QTest::newRow("status 3") << QJsonObject{{"status", 3}} << 3 << 1 << 0;
        QTest::newRow("not JSON") << QJsonObject{{"body", "<html>"}} << -1 << 1 << 0;
    }
    void languagePacks()
    {
        QFETCH(QJsonObject, fault);
        QFETCH(int, result);
        QFETCH(int, requests);
        QFETCH(int, refreshes);
        m_agent->WriteString(false, L"SOFTWARE\\Quillmarsh\\Photo", L"Check Update Edition", L"PhotoDesk");
        const QString path = QStringLiteral("/MemberAPI/v1/Launcher/LanguagePack");
        if (!fault.isEmpty()) {
            fault.insert("path", path);
            m_server.Fault(fault);
        }
        Service service(kProduct, false, 10000, 0);
        std::wstring info = L"untouched";
        QCOMPARE(int(service.GetLanguagePackInfo(info, L"SOFTWARE\\Quillmarsh\\Photo", 5000)), result);
        QCOMPARE(Count(path), requests);
        QCOMPARE(Count("/MemberAPI/Token"), refreshes);
        const QJsonObject seen = m_server.Requests(path).last();
        QCOMPARE(seen.value("target").toString(), path + "?ProductID=PhotoDesk&APProductID=Pro&APVersion=8.1.0101.1");
        QVERIFY(!seen.value("headers").toObject().contains("Authorization"));
        if (result != 2) {
            QVERIFY(info == L"untouched");
            return;
        }
        // The compressed "result" arrives expanded.
        const QJsonObject data = Json(info).value("result").toObject().value("data").toObject();
        QCOMPARE(data.value("Packs").toArray().size(), 4);
        QCOMPARE(data.value("Packs").toArray().at(3).toObject().value("LanguageName").toString(), QStringLiteral("German"));
    }

    void pluginQueryIsNotEncoded()
    {
        Service service(kProduct, false, 10000, 0);
        std::wstring info;
        QCOMPARE(service.GetPluginInfo(L"QMFX&note=1", L"3.0", info, 5000), Service::WS_OK);
        const QJsonObject seen = m_server.Requests("/MemberAPI/v1/PluginInfo").last();
        QCOMPARE(seen.value("target").toString(), QStringLiteral("/MemberAPI/v1/PluginInfo?aPProductID=Pro&aPVersion=850"
                                                                 "&pluginProductID=QMFX&note=1&pluginVersion=3.0"));
        // The "&" split the query: the service saw the plug-in "QMFX".
        const QJsonObject data = Json(info).value("result").toObject().value("data").toObject();
        QCOMPARE(data.value("PluginProductID").toString(), QStringLiteral("QMFX"));
        QVERIFY(data.value("Compatible").toBool());
        std::wstring unknown = L"untouched";
        QCOMPARE(service.GetPluginInfo(L"QMFX", L"3.0", unknown, 5000), Service::WS_OK);
        m_agent->WriteString(false, kProduct, L"Version Code", L"not-a-number");
        QCOMPARE(service.GetPluginInfo(L"QMFX", L"3.0", unknown, 5000), Service::WS_PARAM_FAIL);
    }

    void agreementTexts_data()
    {
        QTest::addColumn<int>("type");
        QTest::addColumn<int>("language");
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("title");
        QTest::newRow("general") << 0 << 8 << "/content/EULA/EULA.txt" << "Quillmarsh General Terms of Use";
        QTest::newRow("English") << 4 << 1 << "/Content/EULA/AP/EULA_AP.txt"
                                 << "Quillmarsh Application End-User Licence Agreement";
        QTest::newRow("German") << 4 << 8 << "/Content/EULA/AP/EULA_DEAP.txt"
                                << QString::fromUtf8("Quillmarsh Endbenutzer-Lizenzvertrag für Anwendungen");
        QTest::newRow("Traditional Chinese") << 4 << 2 << "/Content/EULA/AP/EULA_TWAP.txt" << "";
        QTest::newRow("another language bit") << 4 << 16 << "/Content/EULA/AP/EULA_AP.txt" << "";
        QTest::newRow("another type") << 7 << 2 << "" << "";
    }
    void agreementTexts()
    {
        QFETCH(int, type);
        QFETCH(int, language);
        QFETCH(QString, path);
        QFETCH(QString, title);
        Service service(kProduct, false, 10000, 0);
        std::wstring text = L"untouched";
        const auto result = service.GetWebEndUserLicenseAgreement(
            CQMMemberWebService::EContentManagerEulaServiceType(type), text, CQMMemberWebService::ELanguageID(language));
        if (path.isEmpty()) {
            QCOMPARE(result, Service::WS_UNEXPECT_FAIL);
            QVERIFY(text == L"untouched");
            return;
        }
        QCOMPARE(result, Service::WS_OK);
        QCOMPARE(Count(path), 1);
        QVERIFY(S(text).contains(QRegularExpression("\\n\\S+: 1\\n")));
        if (!title.isEmpty())
            QCOMPARE(S(text).section('\n', 0, 0), title);
        // A failed download is -1 with the text untouched.
        m_server.Fault({{"path", path}, {"http", 404}});
        text = L"untouched";
        QCOMPARE(service.GetWebEndUserLicenseAgreement(CQMMemberWebService::EContentManagerEulaServiceType(type), text,
                                                       CQMMemberWebService::ELanguageID(language)),
                 Service::WS_UNEXPECT_FAIL);
        QVERIFY(text == L"untouched");
    }

    void renewalConsentAndNewVersion()
    {
        Service service(kProduct, false, 10000, 0);
        const auto general = CQMMemberWebService::EULA_GENERAL;
        g_log.clear();
        // The line is a debug line of "qm.service", which is off by default.
        QLoggingCategory::setFilterRules(QStringLiteral("qm.service.debug=true"));
        const QtMessageHandler previous = qInstallMessageHandler(Capture);
        const bool due = service.CheckIfNeedToShowEula(general, 5000);
        service.SetUserEulaConsent(general, 5000);
        const bool afterConsent = service.CheckIfNeedToShowEula(general, 5000);
        m_server.Admin("/admin/eula", {{"type", 0}});
        const bool afterNewVersion = service.CheckIfNeedToShowEula(general, 5000);
        const QStringList quiet = g_log.filter("Check renew eula error");
        m_server.Fault({{"path", kRenewal + "/0"}, {"drop", true}});
        const bool dropped = service.CheckIfNeedToShowEula(general, 5000);
        qInstallMessageHandler(previous);
        QLoggingCategory::setFilterRules(QString());
        QVERIFY(due);
        QVERIFY(!afterConsent);
        QVERIFY(afterNewVersion);
        QVERIFY(!dropped);
        QCOMPARE(quiet, QStringList()); // 2 and 5 write nothing
        // A dropped connection: the pipeline's result for an exchange that brought nothing.
        QCOMPARE(g_log.filter("Check renew eula error"),
                 QStringList{QString(kRenewError) + QString::number(Service::WS_PARSE_CONTENT_FAIL)});
        const QList<QJsonObject> consent = m_server.Requests("/ContentManager/v1/User/EULAConsent/0");
        QCOMPARE(consent.size(), 1);
        QCOMPARE(consent.first().value("method").toString(), QStringLiteral("GET"));
    }

    void commandLine_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("shown");
        const QStringList products{"products", "--installed", "Pro:1,Director:2", "--product-key",
                                   QString::fromStdWString(kProduct)};
        QTest::newRow("products from the server") << products << 0 << "from the server\nPro ";
        QTest::newRow("products, async") << products + QStringList{"--async", "--force"} << 0
                                         << "from the server (asynchronous)\nPro ";
        QTest::newRow("agreement due") << QStringList{"eula", "check", "--type", "4"} << 0 << "consent_needed  true";
        QTest::newRow("bad installed list") << QStringList{"products", "--installed", "Pro"} << 2 << "";
        QTest::newRow("unknown link type") << QStringList{"redirect-link", "--type", "5"} << 2 << "";
        QTest::newRow("type 0 without URL") << QStringList{"redirect-link", "--type", "0"} << 2 << "";
        QTest::newRow("agreement type 7 has no text") << QStringList{"eula", "text", "--type", "7"} << 2 << "";
        QTest::newRow("plugin needs a version") << QStringList{"plugin", "QMFX"} << 2 << "";
    }
    void commandLine()
    {
        QFETCH(QStringList, arguments);
        QFETCH(int, exitCode);
        QFETCH(QString, shown);
        QTemporaryDir data;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("XDG_DATA_HOME", data.path());
        QProcess cli;
        cli.setProcessEnvironment(environment);
        cli.start(QStringLiteral(QM_CLI_BINARY), arguments);
        QVERIFY(cli.waitForFinished(30000));
        const QString out = QString::fromUtf8(cli.readAllStandardOutput());
        QCOMPARE(cli.exitCode(), exitCode);
        QVERIFY2(out.contains(shown), qPrintable(out));
        if (exitCode == 0 && arguments.first() == "products" && !arguments.contains("--async")) {
            // The second answer comes from the cache, without a request.
            const int asked = Count(kMyProduct);
            cli.start(QStringLiteral(QM_CLI_BINARY), arguments);
            QVERIFY(cli.waitForFinished(30000));
            QVERIFY(QString::fromUtf8(cli.readAllStandardOutput()).startsWith("from the cache\n"));
            QCOMPARE(Count(kMyProduct), asked);
        }
    }

    void agreementLanguageFromTheSystem_data()
    {
        QTest::addColumn<QString>("lang");
        QTest::addColumn<int>("number");
        QTest::addColumn<QString>("file");
        QTest::newRow("de_DE.UTF-8") << "de_DE.UTF-8" << 9 << "/Content/EULA/AP/EULA_DEAP.txt";
        QTest::newRow("zh_TW") << "zh_TW" << 7 << "/Content/EULA/AP/EULA_TWAP.txt";
        QTest::newRow("ja_JP") << "ja_JP" << 8 << "/Content/EULA/AP/EULA_JPAP.txt";
        QTest::newRow("fr_FR") << "fr_FR" << 4 << "/Content/EULA/AP/EULA_AP.txt";
        QTest::newRow("en_DE: English first") << "en_DE" << 4 << "/Content/EULA/AP/EULA_AP.txt";
    }
    void agreementLanguageFromTheSystem()
    {
        QFETCH(QString, lang);
        QFETCH(int, number);
        QFETCH(QString, file);
        // The system locale is read once per process: each language gets a process of its own.
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        for (const char* name : {"LC_ALL", "LC_MESSAGES", "LC_NUMERIC", "LC_CTYPE", "LANGUAGE"})
            environment.remove(name);
        environment.insert("LANG", lang);
        QProcess child;
        child.setProcessEnvironment(environment);
        child.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        child.start(QCoreApplication::applicationFilePath(), {"--eula-child"});
        QVERIFY(child.waitForFinished(30000));
        QCOMPARE(child.exitCode(), 0);
        QCOMPARE(Count(kRenewal + "/" + QString::number(number)), 1);
        QCOMPARE(Count(file), 1);
        QVERIFY(!child.readAllStandardOutput().trimmed().isEmpty());
    }
};

int main(int argc, char** argv)
{
    if (argc == 2 && std::strcmp(argv[1], "--eula-child") == 0) {
        QCoreApplication application(argc, argv);
        return EulaChild();
    }
    // A QApplication for the wait cursor. ctest runs it on the minimal platform: Qt 5's
    // offscreen one leaks its screen at exit, which LeakSanitizer reports.
    QApplication application(argc, argv);
    TestLauncher test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "tst_launcher.moc"
