#include "QMMemberWebService.h"

#include "ServerFixture.h"
#include "registry/QMRegistryAgent.h"

#include <QFile>
#include <QtTest>

#include <cstring>
#include <string>

Q_DECLARE_METATYPE(CQMMemberWebService::EWSResult)
Q_DECLARE_METATYPE(std::wstring)

namespace {

const std::wstring kProduct = L"SOFTWARE\\Quillmarsh\\Polling Test";

struct CallbackRecord {
    int calls = 0;
    int result = 0;
    std::string text;
    bool terminated = false;
};
CallbackRecord g_callback;

void OnLoginResult(int result, char* text)
{
    ++g_callback.calls;
    g_callback.result = result;
    g_callback.text = text;
    g_callback.terminated = std::strlen(text) == g_callback.text.size();
}

long ProcStatus(const char* field)
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith(field))
            return line.mid(int(std::strlen(field))).trimmed().split(' ').first().toLong();
    }
    return -1;
}

} // namespace

class TestPolling : public QObject
{
    Q_OBJECT

private:
    ServerFixture m_server;
    StoreFolder m_store;

    enum class Ending { Success, TimeOut, Stop, Refused };

    // One browser sign-in from start to clean-up; returns the signals' counts.
    void Round(Ending ending, int& results, int& statuses, int& lastResult)
    {
        CQMMemberWebService service(kProduct, false, 10000, 0);
        service.SetLoginResultCallback(&OnLoginResult);
        QSignalSpy resultSpy(&service, &CQMMemberWebService::LoginResult);
        QSignalSpy statusSpy(&service, &CQMMemberWebService::LoginStatus);
        const QString guid = CQMMemberWebService::GenerateApiRequestID();
        if (ending == Ending::Success)
            m_server.Admin("/admin/signin", {{"guid", guid}, {"email", "demo@quillmarsh.test"}});
        else if (ending == Ending::Refused)
            m_server.Admin("/admin/signin", {{"guid", guid}, {"status", 3}});
        service.MemberLogInPollingAsync(guid.toStdWString(), ending == Ending::TimeOut ? 300 : 20000, 20, true);
        QVERIFY(service.IsLoginPollingThreadRunning());
        if (ending == Ending::Stop) {
            QTest::qWait(30);
            service.OnMemberLogInStop();
        }
        QTRY_VERIFY_WITH_TIMEOUT(!service.IsLoginPollingThreadRunning(), 10000);
        QTest::qWait(ending == Ending::Stop ? 100 : 20); // nothing may arrive late
        results = resultSpy.size();
        statuses = statusSpy.size();
        lastResult = results ? int(resultSpy.last().at(0).value<CQMMemberWebService::EWSResult>()) : 0;
        if (results)
            QCOMPARE(QString::fromStdWString(resultSpy.last().at(1).value<std::wstring>()).isEmpty(), false);
    }

private slots:
    void initTestCase()
    {
        qRegisterMetaType<CQMMemberWebService::EWSResult>("EWSResult");
        qRegisterMetaType<std::wstring>("std::wstring");
        QVERIFY(m_server.Start({"--seed", "demo"}));
        m_server.Export();
        static QMRegistryTool::CQMRegistryAgent agent;
        CQMMemberWebService::SetRegistryInterface(&agent);
    }

    void outcomes_data()
    {
        QTest::addColumn<int>("ending");
        QTest::addColumn<int>("results");
        QTest::addColumn<int>("statuses");
        QTest::addColumn<int>("result");
        QTest::newRow("signed in") << int(Ending::Success) << 1 << 0 << 2;
        QTest::newRow("time out") << int(Ending::TimeOut) << 1 << 0 << -8;
        QTest::newRow("stopped") << int(Ending::Stop) << 0 << 0 << 0;
        QTest::newRow("refused in the browser") << int(Ending::Refused) << 0 << 1 << 0;
    }
    void outcomes()
    {
        QFETCH(int, ending);
        QFETCH(int, results);
        QFETCH(int, statuses);
        QFETCH(int, result);
        g_callback = CallbackRecord();
        int gotResults = 0;
        int gotStatuses = 0;
        int last = 0;
        Round(static_cast<Ending>(ending), gotResults, gotStatuses, last);
        QCOMPARE(gotResults, results);
        QCOMPARE(gotStatuses, statuses);
        QCOMPARE(last, result);
        // The plain callback sees what the signal carries, as a NUL-terminated copy.
        QCOMPARE(g_callback.calls, results);
        if (results) {
            QCOMPARE(g_callback.result, result);
            QVERIFY(g_callback.terminated);
            if (result == -8)
                QCOMPARE(QString::fromStdString(g_callback.text), QStringLiteral("time out"));
        }
        if (result == 2)
            QVERIFY(!CQMMemberWebService::GetMemberIDByTokenStaicVersion().empty());
    }

    void fiftyRoundsLeaveNothingBehind()
    {
        int results = 0;
        int statuses = 0;
        int last = 0;
        Round(Ending::Success, results, statuses, last); // warms up the transport's threads
        QTest::qWait(100);
        const long threads = ProcStatus("Threads:");
        const long rss = ProcStatus("VmRSS:");
        const Ending endings[] = {Ending::Success, Ending::TimeOut, Ending::Stop, Ending::Refused, Ending::Success};
        for (int i = 0; i < 50; ++i) {
            Round(endings[i % 5], results, statuses, last);
            QVERIFY2(results <= 1, "an outcome arrived twice");
        }
        QTRY_COMPARE_WITH_TIMEOUT(ProcStatus("Threads:"), threads, 10000);
        const long growth = ProcStatus("VmRSS:") - rss;
        qInfo("50 rounds: threads %ld before and after, resident memory %+ld KiB", threads, growth);
// Freed memory waits in quarantine under AddressSanitizer (LeakSanitizer judges instead), and
// ThreadSanitizer keeps the history of every thread that ended.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
        QVERIFY2(growth < 4096, qPrintable(QStringLiteral("resident memory grew by %1 KiB").arg(growth)));
#endif
    }

    // The host destroys its service during a browser sign-in, between two code
    // requests or with one in flight: nothing is reported and every thread ends.
    void destroyedWhilePolling_data()
    {
        QTest::addColumn<int>("delayMs");
        QTest::newRow("between requests") << 0;
        QTest::newRow("request in flight") << 400;
    }
    void destroyedWhilePolling()
    {
        QFETCH(int, delayMs);
        m_server.Reset();
        QTest::qWait(50);
        const long threads = ProcStatus("Threads:");
        if (delayMs)
            m_server.Fault({{"path", "/MemberAPI/AuthorizationCode"}, {"delay_ms", delayMs}});
        g_callback = CallbackRecord();
        {
            CQMMemberWebService service(kProduct, false, 10000, 0);
            service.SetLoginResultCallback(&OnLoginResult);
            service.MemberLogInPollingAsync(CQMMemberWebService::GenerateApiRequestID().toStdWString(), 300, 20, true);
            QTRY_VERIFY_WITH_TIMEOUT(m_server.Admin("/admin/stats").value("requests").toInt() >= 1, 5000);
        }
        QTRY_COMPARE_WITH_TIMEOUT(ProcStatus("Threads:"), threads, 10000);
        QTest::qWait(400); // past the time limit: the time-out must not fire either
        QCOMPARE(g_callback.calls, 0);
    }
};

QTEST_GUILESS_MAIN(TestPolling)
#include "tst_polling.moc"
