// A host with no Qt application object: it starts the agent on a thread of its
// own, makes a service object there and waits for an asynchronous request.
#include "QMMemberWebService.h"
#include "QMQApplicationAgent.h"

#include "compat/QueuedCall.h"
#include "registry/QMRegistryAgent.h"

#include <QCoreApplication>
#include <QMetaObject>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <string>
#include <thread>

int main()
{
    char folder[] = "/tmp/qm-plainhost-XXXXXX";
    if (!mkdtemp(folder))
        return 1;
    const std::string state = std::string(folder) + "/server";
    // setpriv: the server dies with this test, even when it aborts.
    FILE* server = popen(
        (std::string("exec setpriv --pdeathsig KILL ") + QM_SERVER_BINARY + " --state " + state).c_str(), "r");
    char line[512] = {};
    if (!server || !fgets(line, sizeof line, server)) {
        std::fprintf(stderr, "plainhost: qmmember-server did not start\n");
        return 1;
    }
    const std::string ready = line;
    const auto portAt = ready.find("\"port\":");
    const int port = std::atoi(ready.c_str() + portAt + 7);
    const auto caAt = ready.find("\"ca\":\"") + 6;
    const std::string ca = ready.substr(caAt, ready.find('"', caAt) - caAt);
    const std::string host = "127.0.0.1:" + std::to_string(port);
    setenv("QM_API_HOST", host.c_str(), 1);
    setenv("QM_CA_FILE", ca.c_str(), 1);
    setenv("QM_REGISTRY_DIR", folder, 1);

    if (!CQMQApplicationAgent::IsStartingUp())
        return 1;
    std::thread loop([] { CQMQApplicationAgent::Start(); });
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while ((CQMQApplicationAgent::IsStartingUp() || !QCoreApplication::instance())
           && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));

    static QMRegistryTool::CQMRegistryAgent agent;
    CQMMemberWebService::SetRegistryInterface(&agent);
    std::promise<std::wstring> finished;
    QMetaObject::invokeMethod(QCoreApplication::instance(), QMCompat::Queued([&finished] {
        auto* service = new CQMMemberWebService(0);
        QObject::connect(service,
                         QOverload<const std::wstring&, bool, QString>::of(&CQMMemberWebService::FinishApiRequest),
                         service, [&finished, service](const std::wstring& text, bool, QString) {
                             finished.set_value(text);
                             service->deleteLater();
                         });
        service->DoApiRequest(L"/qmtest/echo", std::string(), 10000, false, false,
                              CQMMemberWebService::GenerateApiRequestID());
    }));
    auto result = finished.get_future();
    const bool arrived = result.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
    const bool ok = arrived && result.get().find(L"/qmtest/echo") != std::wstring::npos;

    QMetaObject::invokeMethod(QCoreApplication::instance(), QMCompat::Queued([] { QCoreApplication::quit(); }));
    loop.join();
    std::system((std::string("pkill -TERM -f -- '--state ") + state + "'").c_str());
    pclose(server);
    std::system((std::string("rm -rf ") + folder).c_str());
    std::printf("%s\n", ok ? "1 passed, 0 failed" : "0 passed, 1 failed");
    return ok ? 0 : 1;
}
