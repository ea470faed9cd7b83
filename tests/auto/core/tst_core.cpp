#include "QMMemberWebService.h"

#include "ServerFixture.h"
#include "registry/QMRegistryAgent.h"
#include "registry/RegistryStore.h"

#include <QJsonDocument>
#include <QMetaMethod>
#include <QProcess>
#include <QtTest>

#include <stdexcept>

using Service = CQMMemberWebService;

namespace {
const std::wstring kProduct = L"SOFTWARE\\Quillmarsh\\Test Product";
}

class TestCore : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<StoreFolder> m_store;
    QMRegistryTool::CQMRegistryAgent* m_agent = nullptr;

    void Set(const wchar_t* name, const wchar_t* value, bool currentUser = false)
    {
        QVERIFY(m_agent->WriteString(currentUser, kProduct, name, value));
    }

private slots:
    void init()
    {
        qunsetenv("QM_API_HOST");
        qunsetenv("QM_WEB_HOST");
        m_store = std::make_unique<StoreFolder>();
        static QMRegistryTool::CQMRegistryAgent agent;
        m_agent = &agent;
        Service::SetRegistryInterface(m_agent);
    }

    void hostSelection_data()
    {
        QTest::addColumn<int>("constructorTarget");
        QTest::addColumn<int>("registryTarget"); // -1: value absent
        QTest::addColumn<QString>("apiOverride");
        QTest::addColumn<QString>("webHost");
        QTest::addColumn<QString>("apiHost");
        QTest::newRow("production by default") << 0 << -1 << "" << "member.quillmarsh.com" << "memberapi.quillmarsh.com";
        QTest::newRow("development") << 1 << -1 << "" << "dev-member.quillmarsh.com" << "dev-memberapi.quillmarsh.com";
        QTest::newRow("second development") << 2 << -1 << "" << "dev2-member.quillmarsh.com"
                                            << "dev2-memberapi.quillmarsh.com";
        QTest::newRow("registry 3 overrides 0") << 0 << 3 << "" << "stage-member.quillmarsh.com"
                                                << "stage-memberapi.quillmarsh.com";
        QTest::newRow("registry 4 is production") << 1 << 4 << "" << "member.quillmarsh.com"
                                                  << "memberapi.quillmarsh.com";
        QTest::newRow("environment wins") << 3 << 1 << "127.0.0.1:8443" << "dev-member.quillmarsh.com" << "127.0.0.1:8443";
    }
    void hostSelection()
    {
        QFETCH(int, constructorTarget);
        QFETCH(int, registryTarget);
        QFETCH(QString, apiOverride);
        QFETCH(QString, webHost);
        QFETCH(QString, apiHost);
        if (registryTarget >= 0)
            QVERIFY(m_agent->WriteNumber(false, kProduct, L"Target Server", registryTarget));
        if (!apiOverride.isEmpty())
            qputenv("QM_API_HOST", apiOverride.toUtf8());
        Service service(kProduct, false, 10000, constructorTarget);
        QCOMPARE(QString::fromStdWString(service.GetWebHost()), webHost);
        QCOMPARE(QString::fromStdWString(service.GetApiHost()), apiHost);
        // The internal constructor has no product key, so no registry override.
        Service internal(constructorTarget);
        QCOMPARE(QString::fromStdWString(internal.GetHttpRequestUserAgent()), QStringLiteral("QMAutoTestAgent"));
    }

    void metaObjectOrder()
    {
        const QStringList expected = {
            "UploadMetaDataProgress(int)|nProgress",
            "InnerMemberLogInStop()|",
            "LoginStatus(int)|nStatus",
            "LoginResult(EWSResult,std::wstring)|eResult,strError",
            "UploadResult(int)|",
            "FinishCurrentFunction()|",
            "FinishGetMemberLoginInfo()|",
            "FinishApiRequest(std::wstring,bool,QString)|strRaw,bServerBusy,kGuid",
            "FinishApiRequest(std::wstring,bool)|strRaw,bServerBusy",
            "ErrorNotice(QString,EWSResult)|kGuid,eResult",
            "ErrorNotice(QString)|kGuid",
            "ErrorNotice()|",
            "GetTokenFailed()|",
            "ServerBusy()|",
            "FinishRequest(std::wstring,std::wstring,int)|strService,strReturnData,nNetWorkError",
            "OnMemberLogInStop()|",
            "OnMemberLogInPolling()|",
            "OnMemberUploadPolling()|",
            "ReleaseServiceHttpRequest(CHttpRequest*)|pHttp",
        };
        const QMetaObject& meta = Service::staticMetaObject;
        QCOMPARE(meta.methodCount() - meta.methodOffset(), expected.size());
        for (int i = 0; i < expected.size(); ++i) {
            const QMetaMethod method = meta.method(meta.methodOffset() + i);
            const QString actual = QString::fromLatin1(method.methodSignature()) + '|'
                                   + QString::fromLatin1(method.parameterNames().join(','));
            QCOMPARE(actual, expected.at(i));
            QCOMPARE(method.methodType(), i < 15 ? QMetaMethod::Signal : QMetaMethod::Slot);
        }
        QCOMPARE(meta.method(meta.methodOffset() + 16).access(), QMetaMethod::Private);
        QCOMPARE(meta.method(meta.methodOffset() + 18).access(), QMetaMethod::Private);
    }

    void errorTexts_data()
    {
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("text");
        const QList<QPair<int, const char*>> table = {
            {2, "Unexpect Fail"},         {0, "Unexpect Fail"},          {999, "Unexpect Fail"},
            {-1, "Unexpect Fail"},        {-2, "No Login"},              {-3, "Account Not Match"},
            {-6, "Connection Failed"},    {-7, "No Internet"},           {-8, "Connection Timeout"},
            {-9, "Login Staus Fail"},     {-10, "Get Registry Infomation Fail"},
            {-11, "Memory Allocate Fail"}, {-12, "Parse Content Fail"},  {1, "Unexpect Fail"},
            {3, "DB Operation Fail"},     {4, "Param Fail"},             {5, "Unexpect Fail"},
            {6, "Token Expire"},          {7, "Unexpect Fail"},          {13, "Token Verify Fail"},
            {14, "Unexpect Fail"},        {15, "Unexpect Fail"},         {-14, "Unexpect Fail"},
        };
        for (const auto& [code, text] : table)
            QTest::addRow("%d", code) << code << QString::fromLatin1(text);
    }
    void errorTexts()
    {
        QFETCH(int, code);
        QFETCH(QString, text);
        Service service(0);
        QCOMPARE(QString::fromStdWString(service.GetErrorCodeString(code)), text);
    }

    void productValues()
    {
        Set(L"Program Group", L"Quillmarsh Studio");
        Set(L"Product Title", L"Studio Title");
        Set(L"Language ID", L"12");
        Service service(kProduct, false, 10000, 0);
        std::wstring value = L"untouched";
        QCOMPARE(service.GetProductName(value), Service::WS_OK);
        QCOMPARE(QString::fromStdWString(value), QStringLiteral("Quillmarsh Studio"));
        value = L"untouched";
        QCOMPARE(service.GetVersionCode(value), Service::WS_UNEXPECT_FAIL);
        QCOMPARE(QString::fromStdWString(value), QStringLiteral("untouched"));
        int language = 0;
        QCOMPARE(service.GetLanguageID(language), Service::WS_OK);
        QCOMPARE(language, 12);
        // A store build reads the current user's hive, where nothing is registered.
        Service store(kProduct, true, 10000, 0);
        QCOMPARE(store.GetProductName(value), Service::WS_UNEXPECT_FAIL);
        QCOMPARE(QString::fromStdWString(store.GetMachineID()), QStringLiteral("QMMACSTOREID"));
        QCOMPARE(QString::fromStdWString(store.GetHttpRequestUserAgent()), QStringLiteral("UnknowAgent"));
    }

    void languageIdErrors_data()
    {
        QTest::addColumn<QString>("stored");
        QTest::addColumn<QString>("error");
        QTest::newRow("not a number") << "abc" << "invalid stoi argument";
        QTest::newRow("out of range") << "99999999999" << "stoi argument out of range";
    }
    void languageIdErrors()
    {
        QFETCH(QString, stored);
        QFETCH(QString, error);
        Set(L"Language ID", stored.toStdWString().c_str());
        Service service(kProduct, false, 10000, 0);
        int language = 7;
        try {
            service.GetLanguageID(language);
            QFAIL("no exception");
        } catch (const std::exception& e) {
            QCOMPARE(QString::fromLatin1(e.what()), error);
        }
        QCOMPARE(language, 7);
    }

    void userAgent_data()
    {
        QTest::addColumn<bool>("withEdition");
        QTest::addColumn<int>("result");
        QTest::addColumn<QString>("agent");
        QTest::newRow("both values") << true << 2 << "Pro/8.1.0101.1";
        QTest::newRow("edition missing") << false << -10 << "UnknowAgent";
    }
    void userAgent()
    {
        QFETCH(bool, withEdition);
        QFETCH(int, result);
        QFETCH(QString, agent);
        Set(L"Product Build", L"8.1.0101.1");
        if (withEdition)
            Set(L"Check Update Edition", L"Pro");
        std::wstring text;
        QCOMPARE(int(Service::GetUserAgent(kProduct, text, false)), result);
        QCOMPARE(QString::fromStdWString(text), agent);
        Service service(kProduct, false, 10000, 0);
        QCOMPARE(QString::fromStdWString(service.GetHttpRequestUserAgent()), agent);
    }

    void machineIdentity()
    {
        Service first(kProduct, false, 10000, 0);
        Service second(0);
        QVERIFY(!first.GetSecondaryMachineKey().empty());
        // Made once per user and kept under the company key.
        QCOMPARE(first.GetSecondaryMachineKey(), second.GetSecondaryMachineKey());
        const QVariant kept = QMRegistryTool::Store::Read(true, "SOFTWARE\\Quillmarsh", "QMMachineKey");
        QCOMPARE(kept.toString(), QString::fromStdWString(first.GetSecondaryMachineKey()));
        if (!QSysInfo::machineUniqueId().isEmpty()) {
            QCOMPARE(first.GetMachineID().size(), size_t(32));
            QCOMPARE(first.GetMachineID(), second.GetMachineID());
        }
        QVERIFY(first.InnerMemberService() == nullptr); // no browser sign-in under way
    }

    void localeLanguage_data()
    {
        QTest::addColumn<QString>("locale");
        QTest::addColumn<int>("expected");
        QTest::newRow("German") << "de_DE.UTF-8" << 8;
        QTest::newRow("French") << "fr_FR.UTF-8" << 1;
        QTest::newRow("Taiwan") << "zh_TW.UTF-8" << 2;
        QTest::newRow("Japan") << "ja_JP.UTF-8" << 4;
    }
    void localeLanguage()
    {
        QFETCH(QString, locale);
        QFETCH(int, expected);
        // The system locale is read once per process, so each case runs the CLI.
        QProcess cli;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("LC_ALL"), locale);
        cli.setProcessEnvironment(environment);
        cli.start(QStringLiteral(QM_CLI_BINARY), {QStringLiteral("--json"), QStringLiteral("info")});
        QVERIFY(cli.waitForFinished(30000));
        const QJsonObject info = QJsonDocument::fromJson(cli.readAllStandardOutput()).object();
        QCOMPARE(info.value(QStringLiteral("locale_language_id")).toInt(), expected);
    }

    // The library's categories stay below the host's log until it asks for their debug lines.
    void loggingCategories()
    {
        static QStringList categories;
        categories.clear();
        const QtMessageHandler previous = qInstallMessageHandler(
            [](QtMsgType, const QMessageLogContext& context, const QString&) {
                categories << QString::fromLatin1(context.category);
            });
        CQMMemberWebService service(0);
        service.OnMemberLogInStop(); // a debug line of qm.service
        const bool quietByDefault = !categories.contains("qm.service");
        QLoggingCategory::setFilterRules(QStringLiteral("qm.*.debug=true"));
        service.OnMemberLogInStop();
        QLoggingCategory::setFilterRules(QString());
        qInstallMessageHandler(previous);
        QVERIFY(quietByDefault);
        QVERIFY(categories.contains("qm.service"));
    }
};

QTEST_GUILESS_MAIN(TestCore)
#include "tst_core.moc"
