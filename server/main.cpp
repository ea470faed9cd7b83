// qmmember-server: the member API on 127.0.0.1 over HTTPS, for the demo and the tests.
#include "ConsoleLog.h"
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
#include <fstream>
#include <iostream>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

const char* const kUsage =
    "usage: qmmember-server --state DIR [--port N] [--admin] [--token-ttl SECONDS] [--seed demo]\n"
    "                       [--print-env] [--log-requests]\n"
    "  --state DIR        certificates and the SQLite database live here (made when missing)\n"
    "  --port N           port on 127.0.0.1; 0 (default) picks a free one\n"
    "  --admin            answer the /admin/ endpoints (fault injection, tokens, stats)\n"
    "  --token-ttl S      lifetime of access tokens in seconds (default 3600)\n"
    "  --signin-ttl S     lifetime of browser sign-in links in seconds (default 900)\n"
    "  --keep-alive S     an idle connection is closed after S seconds (default 5, 1 to 3600)\n"
    "  --seed demo        create the demo member demo@quillmarsh.test / demo-password\n"
    "                     (and the demo world of every service area); may be repeated\n"
    "  --print-env        after the ready line, print the export lines for QM_API_HOST, QM_WEB_HOST\n"
    "                     and QM_CA_FILE (done anyway when standard output is a terminal)\n"
    "  --log-requests     one line per request on standard error, secrets redacted (done anyway\n"
    "                     when standard error is a terminal)\n"
    "  --version          the version\n"
    "Started by hand without --port, it takes the port it had last time in DIR when that is free.\n";

bool ParseNumber(const char* text, int& value)
{
    char* end = nullptr;
    const long number = std::strtol(text, &end, 10);
    if (!*text || *end || number < 0 || number > 1000000000)
        return false;
    value = static_cast<int>(number);
    return true;
}

// The port saved by the last run by hand, when nothing listens on it now; else 0 (any).
int FreeSavedPort(const std::string& file)
{
    int port = 0;
    std::ifstream saved(file);
    if (!(saved >> port) || port <= 0 || port > 65535)
        return 0;
    const int probe = ::socket(AF_INET, SOCK_STREAM, 0);
    if (probe < 0)
        return 0;
    const int reuse = 1; // as the server's own bind does, so that old TIME_WAIT connections do not count
    ::setsockopt(probe, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
    sockaddr_in address {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool free = ::bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::close(probe);
    return free ? port : 0;
}

} // namespace

int main(int argc, char** argv)
{
    ServerOptions options;
    bool printEnv = false;
    bool portGiven = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--admin") {
            options.admin = true;
        } else if (arg == "--state" && hasValue) {
            options.stateDir = argv[++i];
        } else if (arg == "--port" && hasValue) {
            portGiven = true;
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
        } else if (arg == "--keep-alive" && hasValue) {
            // Tests shorten it to see idle connections close under a client.
            if (!ParseNumber(argv[++i], options.keepAliveSeconds) || options.keepAliveSeconds < 1
                || options.keepAliveSeconds > 3600) {
                std::cerr << "qmmember-server: --keep-alive takes a number of seconds from 1 to 3600\n";
                return 2;
            }
        } else if (arg == "--seed" && hasValue) {
            options.seeds.push_back(argv[++i]);
        } else if (arg == "--storage" && hasValue) {
            options.storageUrl = argv[++i];
        } else if (arg == "--storage-key" && hasValue) {
            options.storageKey = argv[++i];
        } else if (arg == "--storage-secret" && hasValue) {
            options.storageSecret = argv[++i];
        } else if (arg == "--bucket" && hasValue) {
            options.bucket = argv[++i];
        } else if (arg == "--print-env") {
            printEnv = true;
        } else if (arg == "--log-requests") {
            options.logRequests = true;
        } else if (arg == "--version") {
            std::cout << "qmmember-server " QM_VERSION "\n";
            return 0;
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
    if (!options.storageUrl.empty()
        && (options.storageKey.empty() || options.storageSecret.empty() || options.bucket.empty())) {
        std::cerr << "qmmember-server: --storage needs --storage-key, --storage-secret and --bucket\n";
        return 2;
    }
    options.stateDir = QDir(QString::fromLocal8Bit(options.stateDir.c_str())).absolutePath().toStdString();
    // By hand: the export lines and the request log, and the same port as last time when free,
    // so that the exported variables stay right across restarts.
    const bool byHand = ::isatty(STDOUT_FILENO);
    printEnv = printEnv || byHand;
    options.logRequests = options.logRequests || ::isatty(STDERR_FILENO);
    const std::string portFile = options.stateDir + "/last-port";
    if (byHand && !portGiven)
        options.port = FreeSavedPort(portFile);

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
    if (printEnv)
        std::cout << ExportLines(server.Port(), server.CaFile()) << std::flush;
    if (byHand) {
        std::ofstream(portFile) << server.Port() << "\n";
        std::cout << "# Paste the lines above into a shell for qmmember. A browser trusts the sign-in page once\n"
                     "# the CA is imported (README: \"Trusting the development CA\"); Ctrl-C stops the server.\n"
                  << std::flush;
    }

    server.Run();
    finished = true;
    // Run() also ends if the listener fails; wake the waiter so that it can be joined.
    ::kill(::getpid(), SIGTERM);
    waiter.join();
    std::cerr << "qmmember-server: stopped\n";
    return 0;
}
