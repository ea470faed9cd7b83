#include "QMMemberWebService.h"

#include "ServerFixture.h"
#include "registry/QMRegistryAgent.h"

#include <QProcess>
#include <QtTest>

Q_DECLARE_METATYPE(CQMMemberWebService::EWSResult)
Q_DECLARE_METATYPE(std::wstring)

// A real browser signs in on qmmember-server's page while the library polls.
class TestBrowser : public QObject
{
    Q_OBJECT

private:
    ServerFixture m_server;
    StoreFolder m_store;
    QString m_driver;

    // Runs the page driver; returns the heading of the page after the submission.
    QString SignInInBrowser(const QString& url, const QString& password, const QString& screenshot)
    {
        QProcess node;
        node.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        node.start(QStringLiteral("node"), {m_driver, url, "demo@quillmarsh.test", password, screenshot});
        if (!node.waitForFinished(60000) || node.exitCode() != 0)
            return QString();
        return QString::fromUtf8(node.readAllStandardOutput()).trimmed();
    }

private slots:
    void initTestCase()
    {
        qRegisterMetaType<CQMMemberWebService::EWSResult>("EWSResult");
        qRegisterMetaType<std::wstring>("std::wstring");
        m_driver = QStringLiteral(QM_BROWSER_DRIVER);
        if (qEnvironmentVariableIsEmpty("NODE_PATH") || !QFile::exists("/usr/bin/chromium"))
            QSKIP("needs node with playwright-core on NODE_PATH and /usr/bin/chromium: run ./qm test");
        QVERIFY(m_server.Start({"--seed", "demo"}));
        m_server.Export();
        static QMRegistryTool::CQMRegistryAgent agent;
        CQMMemberWebService::SetRegistryInterface(&agent);
    }

    void signInSucceeds()
    {
        CQMMemberWebService service(L"SOFTWARE\\Quillmarsh\\Browser Test", false, 10000, 0);
        QSignalSpy results(&service, &CQMMemberWebService::LoginResult);
        const QString guid = CQMMemberWebService::GenerateApiRequestID();
        service.MemberLogInPollingAsync(guid.toStdWString(), 60000, 200, true);
        const QString url = QStringLiteral("https://%1/signin?GUID=%2").arg(m_server.Host(), guid);
        // A wrong password first: the page asks again with the e-mail kept.
        QCOMPARE(SignInInBrowser(url, "not-the-password|demo-password", QStringLiteral(QM_SCREENSHOT)),
                 QStringLiteral("You are signed in"));
        QVERIFY(results.wait(20000) || !results.isEmpty());
        QCOMPARE(results.size(), 1);
        QCOMPARE(int(results.first().at(0).value<CQMMemberWebService::EWSResult>()), 2);
        // The stored tokens are the demo member's.
        QCOMPARE(QString::fromStdWString(CQMMemberWebService::GetMemberIDByTokenStaicVersion()),
                 m_server.Admin("/admin/member", {{"email", "demo@quillmarsh.test"}}).value("memberid").toString());
        QTRY_VERIFY_WITH_TIMEOUT(!service.IsLoginPollingThreadRunning(), 10000);
    }

    void tooManyWrongPasswordsAreReportedByStatusOnly()
    {
        CQMMemberWebService service(L"SOFTWARE\\Quillmarsh\\Browser Test", false, 10000, 0);
        QSignalSpy results(&service, &CQMMemberWebService::LoginResult);
        QSignalSpy statuses(&service, &CQMMemberWebService::LoginStatus);
        const QString guid = CQMMemberWebService::GenerateApiRequestID();
        service.MemberLogInPollingAsync(guid.toStdWString(), 60000, 200, true);
        const QString url = QStringLiteral("https://%1/signin?GUID=%2").arg(m_server.Host(), guid);
        QCOMPARE(SignInInBrowser(url, "a|b|c|d|e", QString()), QStringLiteral("Sign-in refused"));
        QVERIFY(statuses.wait(20000) || !statuses.isEmpty());
        QCOMPARE(statuses.first().first().toInt(), 3);
        QTRY_VERIFY_WITH_TIMEOUT(!service.IsLoginPollingThreadRunning(), 10000);
        QCOMPARE(results.size(), 0);
        QCOMPARE(statuses.size(), 1);
    }
};

QTEST_GUILESS_MAIN(TestBrowser)
#include "tst_browser.moc"
