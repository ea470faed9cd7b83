// qmmember-server: the member API on 127.0.0.1 over HTTPS, for the demo and the tests.
#include "MemberServer.h"

#include <QCoreApplication>
#include <QDir>
#include <QJsonDocument>
#include <QJsonObject>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <pthread.h>
#include <thread>

namespace {

const char* const kUsage =
    "usage: qmmember-server --state DIR [--port N] [--admin] [--token-ttl SECONDS] [--seed demo]\n"
    "  --state DIR        certificates and the SQLite database live here (made when missing)\n"
    "  --port N           port on 127.0.0.1; 0 (default) picks a free one\n"
    "  --admin            answer the /admin/ endpoints (fault injection, tokens, stats)\n"
    "  --token-ttl S      lifetime of access tokens in seconds (default 3600)\n"
    "  --signin-ttl S     lifetime of browser sign-in links in seconds (default 900)\n"
    "  --seed demo        create the demo member demo@quillmarsh.test / demo-password\n"
    "                     (and the demo world of every service area); may be repeated\n";

bool ParseNumber(const char* text, int& value)
{
    char* end = nullptr;
    const long number = std::strtol(text, &end, 10);
    if (!*text || *end || number < 0 || number > 1000000000)
        return false;
    value = static_cast<int>(number);
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    ServerOptions options;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--admin") {
            options.admin = true;
        } else if (arg == "--state" && hasValue) {
            options.stateDir = argv[++i];
        } else if (arg == "--port" && hasValue) {
            if (!ParseNumber(argv[++i], options.port) || options.port > 65535) {
                std::cerr << "qmmember-server: --port takes a number from 0 to 65535\n";
                return 2;
            }
        } else if (arg == "--token-ttl" && hasValue) {
            if (!ParseNumber(argv[++i], options.tokenTtlSeconds)) {
                std::cerr << "qmmember-server: --token-ttl takes a number of seconds\n";
                return 2;
            }
        } else if (arg == "--signin-ttl" && hasValue) {
            // Lifetime of browser sign-in links; tests shorten it to see links expire.
            if (!ParseNumber(argv[++i], options.signInTtlSeconds) || options.signInTtlSeconds == 0) {
                std::cerr << "qmmember-server: --signin-ttl takes a number of seconds above 0\n";
                return 2;
            }
        } else if (arg == "--seed" && hasValue) {
            options.seeds.push_back(argv[++i]);
        } else if (arg == "--help" || arg == "-h") {
            std::cout << kUsage;
            return 0;
        } else {
            std::cerr << "qmmember-server: unknown or incomplete argument '" << arg << "'\n" << kUsage;
            return 2;
        }
    }
    if (options.stateDir.empty()) {
        std::cerr << "qmmember-server: --state DIR is required\n" << kUsage;
        return 2;
    }
    options.stateDir = QDir(QString::fromLocal8Bit(options.stateDir.c_str())).absolutePath().toStdString();

    // Signals are taken by one thread with sigwait, so that stopping is an ordinary call.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    MemberServer server(options);
    std::string error;
    if (!server.Start(error)) {
        std::cerr << "qmmember-server: " << error << "\n";
        return 1;
    }
    std::atomic<bool> finished{false};
    std::thread waiter([&server, &finished, stopSignals] {
        int received = 0;
        sigwait(&stopSignals, &received);
        // A stop that comes before the listener runs is lost: repeat it until Run() returns.
        while (!finished) {
            server.Stop();
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    });

    const QJsonObject ready{{QStringLiteral("event"), QStringLiteral("ready")},
                            {QStringLiteral("port"), server.Port()},
                            {QStringLiteral("ca"), QString::fromStdString(server.CaFile())},
                            {QStringLiteral("pid"), static_cast<int>(::getpid())}};
    std::cout << QJsonDocument(ready).toJson(QJsonDocument::Compact).toStdString() << std::endl;

    server.Run();
    finished = true;
    // Run() also ends if the listener fails; wake the waiter so that it can be joined.
    ::kill(::getpid(), SIGTERM);
    waiter.join();
    std::cerr << "qmmember-server: stopped\n";
    return 0;
}
