#include "ServerFixture.h"
#include "LZString/LZString.h"
#include "compat/QueuedCall.h"
#include "qmnetwork/HttpRequest.h"
#include "qmnetwork/QMNetworkCenter.h"
#include "registry/RegistryStore.h"

#include <QElapsedTimer>
#include <QJsonDocument>
#include <QThread>
#include <QtTest>

#include <algorithm>
#include <atomic>
#include <ctime>
#include <functional>
#include <future>

namespace {

// Runs \a work in \a target's thread and waits for it. Qt's blocking queued call would do, but
// its order is invisible to a ThreadSanitizer build; a future's is not.
template <typename Work>
void RunIn(QObject* target, Work work)
{
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> finished = done->get_future();
    QMetaObject::invokeMethod(target, QMCompat::Queued([done, work]() mutable {
                                  work();
                                  done->set_value();
                              }),
                              Qt::QueuedConnection);
    finished.wait();
}

} // namespace

class TestTransport : public QObject
{
    Q_OBJECT

private:
    StoreFolder m_store;
    ServerFixture m_server;
    std::wstring m_host;

    bool Get(CHttpRequest& request, const wchar_t* path, unsigned int timeoutMs = 10000)
    {
        std::wstring reply;
        std::wstring headers;
        return request.GetSync(m_host.c_str(), path, reply, headers, nullptr, timeoutMs, false, L"application/json",
                               nullptr);
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_server.Start());
        m_server.Export();
        m_host = m_server.Host().toStdWString();
    }
    void init() { m_server.Reset(); }

    void completedExchanges_data()
    {
        QTest::addColumn<int>("http");
        QTest::addColumn<unsigned int>("netError");
        QTest::newRow("200") << 0 << 0u;
        QTest::newRow("404") << 404 << 404u;
        QTest::newRow("499") << 499 << 499u;
        QTest::newRow("503") << 503 << 503u;
    }
    void completedExchanges()
    {
        QFETCH(int, http);
        QFETCH(unsigned int, netError);
        if (http)
            m_server.Fault({{"path", "/qmtest/echo"}, {"http", http}});
        for (const char* method : {"GET", "POST"}) {
            CHttpRequest request(nullptr, true);
            std::wstring reply;
            std::wstring headers;
            const bool ok = QByteArray(method) == "GET"
                                ? Get(request, L"/qmtest/echo")
                                : request.PostSync(m_host.c_str(), L"/qmtest/echo", "{}", reply, headers, 10000,
                                                   false, L"application/json", nullptr, false);
            QVERIFY2(ok, method);
            QCOMPARE(request.GetNetLastError(), netError);
            QVERIFY(!request.GetReturnData().empty());
        }
    }

    void failedExchanges_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<unsigned int>("netError");
        QTest::newRow("refused") << "refused" << unsigned(QMNet::CannotConnect);
        QTest::newRow("dropped") << "drop" << unsigned(QMNet::ConnectionAborted);
        QTest::newRow("time limit") << "delay" << unsigned(QMNet::Timeout);
        QTest::newRow("untrusted certificate") << "certificate" << unsigned(QMNet::InvalidCertificate);
    }
    void failedExchanges()
    {
        QFETCH(QString, kind);
        QFETCH(unsigned int, netError);
        ServerFixture other;
        std::wstring host = m_host;
        if (kind == "refused") {
            host = L"127.0.0.1:1"; // nothing listens on port 1
        } else if (kind == "certificate") {
            QVERIFY(other.Start()); // its CA is not trusted here
            host = other.Host().toStdWString();
        } else if (kind == "drop") {
            m_server.Fault({{"path", "/qmtest/echo"}, {"drop", true}});
        } else {
            m_server.Fault({{"path", "/qmtest/echo"}, {"delay_ms", 5000}});
        }
        CHttpRequest request(nullptr, true);
        std::wstring reply;
        std::wstring headers;
        QElapsedTimer clock;
        clock.start();
        const unsigned int limit = 300 * kSanitizerSlowdown;
        QVERIFY(!request.GetSync(host.c_str(), L"/qmtest/echo", reply, headers, nullptr, limit, false, nullptr, nullptr));
        QVERIFY2(clock.elapsed() < 1000 * kSanitizerSlowdown, qPrintable(QString::number(clock.elapsed())));
        QCOMPARE(request.GetNetLastError(), netError);

        // The asynchronous road reports the same number.
        CHttpRequest async(nullptr, false);
        QSignalSpy errors(&async, &CHttpRequest::ErrorAsync);
        async.GetAsync(host, L"/qmtest/echo", limit, false, L"application/json");
        QVERIFY(errors.wait(5000 * kSanitizerSlowdown));
        QCOMPARE(errors.first().first().toUInt(), netError);
    }

    void syncNeverRunsTheEventLoop()
    {
        bool fired = false;
        QTimer::singleShot(0, this, [&] { fired = true; });
        m_server.Fault({{"path", "/qmtest/echo"}, {"delay_ms", 100}});
        CHttpRequest request(nullptr, true);
        QVERIFY(Get(request, L"/qmtest/echo"));
        QVERIFY(!fired);
        QTRY_VERIFY(fired);

        // And from a thread of its own.
        std::atomic<bool> ok{false};
        QThread* worker = QThread::create([&] {
            CHttpRequest inThread(nullptr, true);
            ok = Get(inThread, L"/qmtest/echo");
        });
        worker->start();
        QVERIFY(worker->wait(10000));
        delete worker;
        QVERIFY(ok);
    }

    void asyncCompletesOnOwningThread()
    {
        constexpr int kCount = 100;
        QThread worker;
        worker.start();
        const auto stopWorker = qScopeGuard([&worker] {
            worker.quit();
            worker.wait();
        });
        std::vector<std::unique_ptr<CHttpRequest>> requests;
        std::map<CHttpRequest*, int> finished;
        int wrongThread = 0;
        int done = 0;
        for (int i = 0; i < kCount; ++i) {
            auto request = std::make_unique<CHttpRequest>(nullptr, false);
            CHttpRequest* raw = request.get();
            // Half live in this thread, half in a worker with its own loop.
            if (i % 2)
                raw->moveToThread(&worker);
            connect(
                raw, &CHttpRequest::FinishedAsync, raw,
                [&, raw](std::wstring) {
                    if (QThread::currentThread() != raw->thread())
                        ++wrongThread;
                    QMetaObject::invokeMethod(this, QMCompat::Queued([&, raw] {
                        ++finished[raw];
                        ++done;
                    }));
                },
                Qt::DirectConnection);
            requests.push_back(std::move(request));
        }
        for (int i = 0; i < kCount; ++i) {
            CHttpRequest* raw = requests[i].get();
            QMetaObject::invokeMethod(
                raw, QMCompat::Queued([this, raw] { raw->GetAsync(m_host, L"/qmtest/echo", 10000, false, L""); }));
        }
        QTRY_COMPARE_WITH_TIMEOUT(done, kCount, 20000);
        QTest::qWait(50); // nothing arrives twice
        QCOMPARE(done, kCount);
        QCOMPARE(int(finished.size()), kCount);
        QCOMPARE(wrongThread, 0);
        for (auto& request : requests) {
            if (request->thread() != thread())
                request.release()->deleteLater(); // posted to the request's own thread
        }
    }

    void deletingInFlightIsSafe()
    {
        m_server.Fault({{"path", "/qmtest/echo"}, {"delay_ms", 200}});
        auto* request = new CHttpRequest(nullptr, false);
        request->GetAsync(m_host, L"/qmtest/echo", 5000, false, L"");
        delete request;
        QTest::qWait(400);
        auto* ended = new CHttpRequest(nullptr, false);
        QSignalSpy destroyed(ended, &QObject::destroyed);
        ended->GetAsync(m_host, L"/qmtest/echo", 5000, false, L"");
        ended->EndSocketThread();
        QVERIFY(destroyed.wait(2000));
    }

    // An exchange in flight on the loop of a worker thread, ended every way a host can end it.
    void endingInFlightOnALoop_data()
    {
        QTest::addColumn<QString>("how");
        QTest::newRow("deleted in its thread") << "delete";
        QTest::newRow("EndSocketThread from another thread") << "end";
        QTest::newRow("its thread ends") << "quit";
    }
    void endingInFlightOnALoop()
    {
        QFETCH(QString, how);
        m_server.Fault({{"path", "/qmtest/echo"}, {"delay_ms", 300}});
        // Counted in the request's own thread: a QSignalSpy there would race with the reads here.
        std::atomic<int> heard{0};
        std::atomic<int> destroyed{0};
        std::atomic<int> next{0};
        auto start = [&](QThread* thread, const wchar_t* path, std::atomic<int>* finished) {
            auto* request = new CHttpRequest(nullptr, false);
            request->moveToThread(thread);
            RunIn(request, [&, request, path, finished] {
                auto count = [&heard] { ++heard; };
                connect(request, &CHttpRequest::FinishedAsync, request, count, Qt::DirectConnection);
                connect(request, &CHttpRequest::ErrorAsync, request, count, Qt::DirectConnection);
                connect(request, &QObject::destroyed, [&destroyed] { ++destroyed; });
                if (finished)
                    connect(request, &CHttpRequest::FinishedAsync, request, [finished] { ++*finished; },
                            Qt::DirectConnection);
                request->GetAsync(m_host, path, 5000, false, L"");
            });
            return request;
        };
        auto worker = std::make_unique<QThread>();
        worker->start();
        CHttpRequest* request = start(worker.get(), L"/qmtest/echo", nullptr);
        if (how == "delete") {
            RunIn(request, [request] { delete request; });
        } else if (how == "end") {
            request->EndSocketThread();
            QTRY_COMPARE(destroyed.load(), 1);
        } else {
            worker->quit();
            QVERIFY(worker->wait(5000));
            delete request; // its thread is gone
            worker = std::make_unique<QThread>();
            worker->start();
        }
        QCOMPARE(destroyed.load(), 1);
        // The loop's next exchange completes after the ended one would have.
        CHttpRequest* second = start(worker.get(), L"/qmtest/echo", &next);
        QTRY_COMPARE_WITH_TIMEOUT(next.load(), 1, 5000 * kSanitizerSlowdown);
        QCOMPARE(heard.load(), 1); // the second's own
        RunIn(second, [second] { delete second; });
        worker->quit();
        QVERIFY(worker->wait(5000));
    }

    // Exchanges chained from the slot that hears the last one, as hosts chain them: each is
    // heard once and only after the call that started it returned, answered ones on one connection.
    void chainedFromTheSlot_data()
    {
        QTest::addColumn<QString>("host");
        QTest::newRow("answered") << QString();
        QTest::newRow("refused") << "127.0.0.1:1";
        QTest::newRow("refused before any traffic") << "127.0.0.1:99999"; // curl ends it as it starts
    }
    void chainedFromTheSlot()
    {
        QFETCH(QString, host);
        const bool refused = !host.isEmpty();
        if (!refused)
            host = m_server.Host();
        constexpr int kChain = 20;
        const long connectionsBefore = m_server.Connections();
        QObject owner;
        QEventLoop loop;
        int heard = 0;
        int heardInside = 0;
        int failed = 0;
        bool starting = false;
        std::function<void()> start = [&] {
            auto* request = new CHttpRequest(&owner, false);
            auto ended = [&, request](bool ok) {
                heardInside += starting;
                failed += !ok;
                request->deleteLater();
                if (++heard == kChain)
                    loop.quit();
                else
                    start();
            };
            connect(request, &CHttpRequest::FinishedAsync, &owner, [ended] { ended(true); });
            connect(request, &CHttpRequest::ErrorAsync, &owner, [ended] { ended(false); });
            starting = true;
            request->GetAsync(host.toStdWString(), L"/qmtest/echo", 5000, false, L"");
            starting = false;
        };
        start();
        QTimer::singleShot(20000 * kSanitizerSlowdown, &loop, &QEventLoop::quit);
        loop.exec();
        QCOMPARE(heard, kChain);
        QCOMPARE(heardInside, 0);
        QCOMPARE(failed, refused ? kChain : 0);
        if (!refused) { // at most one new connection of ours, and the admin call's own
            const long made = m_server.Connections() - connectionsBefore;
            QVERIFY2(made <= 2, qPrintable(QString::number(made)));
        }
    }

    // More exchanges to one host than it gets connections: those beyond wait their turn, one
    // deleted while it waits is never heard, and another host does not wait behind them.
    void moreThanTheHostsConnections()
    {
        m_server.Fault({{"path", "/qmtest/echo"}, {"delay_ms", 300}});
        const QString other = m_server.Host().replace(QStringLiteral("127.0.0.1"), QStringLiteral("localhost"));
        QObject owner;
        QStringList heard; // in the order they end
        auto start = [&](const QString& host, const wchar_t* path, const QString& name) {
            auto* request = new CHttpRequest(&owner, false);
            connect(request, &CHttpRequest::FinishedAsync, &owner, [&heard, name] { heard << name; });
            connect(request, &CHttpRequest::ErrorAsync, &owner, [&heard, name] { heard << name + "!"; });
            request->GetAsync(host.toStdWString(), path, 5000 * kSanitizerSlowdown, false, L"");
            return request;
        };
        std::vector<CHttpRequest*> slow;
        for (int i = 0; i < 12; ++i)
            slow.push_back(start(m_server.Host(), L"/qmtest/echo?queue", QString::number(i)));
        delete slow[9]; // both wait for a connection
        delete slow[11];
        start(other, L"/qmtest/ping", QStringLiteral("other host"));
        QTRY_COMPARE_WITH_TIMEOUT(heard.size(), 11, 10000 * kSanitizerSlowdown);
        QTest::qWait(100); // nothing more arrives
        QCOMPARE(heard.size(), 11);
        QCOMPARE(heard.first(), QStringLiteral("other host"));
        for (const QString& name : {QStringLiteral("9"), QStringLiteral("11")})
            QVERIFY(!heard.contains(name));
        QVERIFY2(heard.indexOf("8") > 8 && heard.indexOf("10") > 8, qPrintable(heard.join(' ')));
        // The deleted ones never went out. (A slow request of an earlier test may still be logged.)
        const auto seen = m_server.Requests("/qmtest/echo");
        const auto ours = std::count_if(seen.begin(), seen.end(), [](const QJsonObject& request) {
            return request.value("target").toString() == QStringLiteral("/qmtest/echo?queue");
        });
        QCOMPARE(int(ours), 10);
    }

    // A kept connection the server closes while it is idle: the loop neither spins on it nor
    // warns, and the next exchange goes out on a new connection.
    void idleConnectionClosedByServer()
    {
        ServerFixture brief;
        QVERIFY(brief.Start({"--keep-alive", "1"}));
        CQMNetworkCenter::SetExtraCAFile(brief.CaFile().toStdWString());
        const auto restore = qScopeGuard([this] { CQMNetworkCenter::SetExtraCAFile(m_server.CaFile().toStdWString()); });
        static QStringList warnings;
        warnings.clear();
        const QtMessageHandler previous = qInstallMessageHandler([](QtMsgType type, const QMessageLogContext&,
                                                                    const QString& text) {
            if (type != QtDebugMsg && type != QtInfoMsg)
                warnings << text;
        });
        const auto uninstall = qScopeGuard([previous] { qInstallMessageHandler(previous); });
        const std::wstring host = brief.Host().toStdWString();
        for (int round = 0; round < 2; ++round) {
            CHttpRequest request(nullptr, false);
            bool finished = false;
            connect(&request, &CHttpRequest::FinishedAsync, this, [&finished] { finished = true; });
            request.GetAsync(host, L"/qmtest/echo", 5000, false, L"");
            QTRY_VERIFY_WITH_TIMEOUT(finished, 5000 * kSanitizerSlowdown);
            if (round == 0) {
                // The server closes the connection a second into this.
                const std::clock_t cpu = std::clock();
                QTest::qWait(2000);
                const double spent = double(std::clock() - cpu) / CLOCKS_PER_SEC;
                QVERIFY2(spent < 0.5, qPrintable(QString::number(spent)));
            }
        }
        QCOMPARE(brief.Connections(), 3L); // ours, and the admin call that counts them
        QVERIFY2(warnings.isEmpty(), qPrintable(warnings.join(QLatin1Char('\n'))));
    }

    void connectionsAreReused()
    {
        for (int i = 0; i < 1000; ++i) {
            CHttpRequest request(nullptr, true);
            QVERIFY(Get(request, L"/"));
        }
        const long connections = m_server.Connections();
        QVERIFY2(connections <= 3, qPrintable(QString::number(connections)));
    }

    void headersReachTheServer()
    {
        CHttpRequest request(nullptr, true);
        request.AddRawHeader(L"User-Agent", L"Pro/8.1");
        request.AddRawHeader(L"X-Unicode", L"caf\u00e9");
        std::wstring reply;
        std::wstring headers;
        QVERIFY(request.PostSync(m_host.c_str(), L"/qmtest/echo", "{\"x\":1}", reply, headers, 5000, false,
                                 L"application/json", nullptr, false));
        const QJsonObject seen = m_server.Requests("/qmtest/echo").last();
        QCOMPARE(seen.value("method").toString(), QStringLiteral("POST"));
        QCOMPARE(seen.value("body").toString(), QStringLiteral("{\"x\":1}"));
        const QJsonObject sent = seen.value("headers").toObject();
        QCOMPARE(sent.value("User-Agent").toString(), QStringLiteral("Pro/8.1"));
        QCOMPARE(sent.value("Content-Type").toString(), QStringLiteral("application/json"));
        QVERIFY(!sent.contains("Expect"));
        // Headers belong to one exchange only.
        QVERIFY(Get(request, L"/qmtest/echo"));
        QVERIFY(!m_server.Requests("/qmtest/echo").last().value("headers").toObject().contains("X-Unicode"));
        QVERIFY(request.HeadSync(m_host.c_str(), L"/", reply, headers, 5000, false, nullptr, nullptr, false));
        QVERIFY(reply.empty());
    }

    // Sync first, then the asynchronous road; the same netError from both.
    void ExpectBoth(const std::function<void(CHttpRequest&)>& prepare, bool ok, unsigned int netError,
                    unsigned int timeoutMs = 10000)
    {
        CHttpRequest request(nullptr, true);
        prepare(request);
        QCOMPARE(Get(request, L"/qmtest/echo", timeoutMs), ok);
        QCOMPARE(request.GetNetLastError(), netError);
        if (!ok)
            QVERIFY(request.GetReturnData().empty());
        CHttpRequest async(nullptr, false);
        prepare(async);
        QSignalSpy finished(&async, &CHttpRequest::FinishedAsync);
        QSignalSpy errors(&async, &CHttpRequest::ErrorAsync);
        async.GetAsync(m_host, L"/qmtest/echo", timeoutMs, false, L"application/json");
        QTRY_VERIFY_WITH_TIMEOUT(finished.size() + errors.size() == 1, 5000 * kSanitizerSlowdown);
        QVERIFY2(finished.size() == (ok ? 1 : 0),
                 qPrintable(QStringLiteral("async error %1: %2")
                                .arg(errors.isEmpty() ? 0u : errors.first().first().toUInt())
                                .arg(QString::fromStdString(CHttpRequest::LastThreadErrorText()))));
        if (!ok)
            QCOMPARE(errors.first().first().toUInt(), netError);
    }

    void limitsOnWhatComesIn_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<int>("size");
        QTest::addColumn<unsigned int>("timeoutMs");
        QTest::addColumn<bool>("ok");
        QTest::addColumn<unsigned int>("netError");
        const unsigned int malformed = QMNet::InvalidServerResponse;
        QTest::newRow("reply within the cap") << "body" << 3000 << 10000u << true << 0u;
        QTest::newRow("reply over the cap") << "body" << 5000 << 10000u << false << malformed;
        QTest::newRow("time limit 0: the default") << "delay" << 0 << 0u << true << 0u;
        QTest::newRow("time limit -1: the default") << "delay" << 0 << unsigned(-1) << true << 0u;
        const unsigned int refused = QMNet::InternalError;
        QTest::newRow("CR in a header") << "header" << int('\r') << 10000u << false << refused;
        QTest::newRow("LF in a header") << "header" << int('\n') << 10000u << false << refused;
        QTest::newRow("NUL in a header") << "header" << 0 << 10000u << false << refused;
    }
    void limitsOnWhatComesIn()
    {
        QFETCH(QString, kind);
        QFETCH(int, size);
        QFETCH(unsigned int, timeoutMs);
        QFETCH(bool, ok);
        QFETCH(unsigned int, netError);
        std::function<void(CHttpRequest&)> prepare = [](CHttpRequest&) {};
        if (kind == "body") {
            CQMNetworkCenter::SetMaxReplyBytes(4096);
            QCOMPARE(LZString::OutputLimit(), qint64(4096));
            m_server.Fault({{"path", "/qmtest/echo"}, {"http", 200}, {"body", QString(size, QLatin1Char('x'))}});
        } else if (kind == "delay") {
            m_server.Fault({{"path", "/qmtest/echo"}, {"delay_ms", 300}}); // neither 0 ms nor unsigned -1 ms
        } else {
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression("refuses a header value"));
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression("refuses a header value"));
            prepare = [size](CHttpRequest& request) {
                request.AddRawHeader(L"User-Agent", L"Pro" + std::wstring(1, wchar_t(size)) + L"X-Injected: yes");
            };
        }
        ExpectBoth(prepare, ok, netError, timeoutMs);
        CQMNetworkCenter::SetMaxReplyBytes(0);
        QCOMPARE(CQMNetworkCenter::GetMaxReplyBytes(), 64LL << 20);
        if (kind == "header")
            QVERIFY(m_server.Requests("/qmtest/echo").isEmpty()); // nothing was sent
    }

    void trustChangeDropsConnections_data()
    {
        QTest::addColumn<bool>("keepCA");
        QTest::newRow("the same CA again: new connections, no old session") << true;
        QTest::newRow("CA removed: kept connections do not carry on") << false;
    }
    void trustChangeDropsConnections()
    {
        QFETCH(bool, keepCA);
        CQMNetworkCenter::SetExtraCAFile(m_server.CaFile().toStdWString());
        ExpectBoth([](CHttpRequest&) {}, true, 0); // a kept connection on both roads
        const QJsonObject before = m_server.Admin(QStringLiteral("/admin/stats"));
        CQMNetworkCenter::SetExtraCAFile(keepCA ? m_server.CaFile().toStdWString() : std::wstring());
        ExpectBoth([](CHttpRequest&) {}, keepCA, keepCA ? 0u : unsigned(QMNet::InvalidCertificate));
        const QJsonObject after = m_server.Admin(QStringLiteral("/admin/stats"));
        CQMNetworkCenter::SetExtraCAFile(m_server.CaFile().toStdWString());
        if (keepCA) {
            // Ours on both roads, and the admin call that read the figures.
            QCOMPARE(after.value("connections").toInt() - before.value("connections").toInt(), 3);
            // Only the second of ours resumes: the session the first made under the new set.
            QCOMPARE(after.value("resumed").toInt() - before.value("resumed").toInt(), 1);
        }
    }

    void networkCenter()
    {
        CQMNetworkCenter::SaveProxyData(L"proxy-user", L"proxy-secret", true);
        std::wstring account;
        std::wstring password;
        QVERIFY(CQMNetworkCenter::GetProxyData(account, password, true));
        QVERIFY(account == L"proxy-user" && password == L"proxy-secret");
        QCOMPARE(QMRegistryTool::Store::Read(true, "SOFTWARE\\Quillmarsh\\Network", "ProxyAccount").toString(),
                 QStringLiteral("proxy-user"));
        CQMNetworkCenter::SaveProxyData(L"", L"", true);
        QVERIFY(!CQMNetworkCenter::GetUsingExternalProxyDialog());

        CQMNetworkCenter::SetProbeHost(m_host);
        QVERIFY(CQMNetworkCenter::IsInternetConnectionActive(2000, false, false));
        CQMNetworkCenter::SetProbeHost(L"127.0.0.1:1");
        QVERIFY(!CQMNetworkCenter::IsInternetConnectionActive(2000, false, false));

        // The static setter trusts a CA without the environment.
        qunsetenv("QM_CA_FILE");
        CQMNetworkCenter::SetExtraCAFile(m_server.CaFile().toStdWString());
        CHttpRequest request(nullptr, true);
        QVERIFY(Get(request, L"/"));
        QCOMPARE(QString::fromStdWString(CQMNetworkCenter::GetExtraCAFile()), m_server.CaFile());
    }
};

QTEST_GUILESS_MAIN(TestTransport)
#include "tst_transport.moc"
