#pragma once

#include "ServerState.h"

#include <httplib.h>

#include <QJsonObject>
#include <QJsonValue>

#include <atomic>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

struct ServerOptions {
    int port = 0;
    std::string stateDir;
    bool admin = false;
    int tokenTtlSeconds = 3600;
    int signInTtlSeconds = 15 * 60; // lifetime of a browser sign-in link
    int keepAliveSeconds = 5; // an idle connection is closed after this
    std::vector<std::string> seeds; // each --seed, in order
    bool logRequests = false;       // one line per request on standard error
    // S3-compatible storage of uploads: --storage URL --storage-key K --storage-secret S --bucket B
    std::string storageUrl;
    std::string storageKey;
    std::string storageSecret;
    std::string bucket;
};

class MemberServer;

// One service area of the server (launcher, content, upload): it registers its own
// routes on the server and keeps its own tables in the shared SQLite state.
class ServiceArea
{
public:
    virtual ~ServiceArea() = default;
    /// Creates the area's tables; false with \a error on failure.
    virtual bool Open(std::string& error) = 0;
    /// Takes a --seed value this area knows; false when it is not the area's.
    virtual bool Seed(const std::string& seed, std::string& error)
    {
        (void)seed;
        (void)error;
        return false;
    }
    /// Registers the area's routes, and its /admin/ routes when the server has them on.
    virtual void AddRoutes(httplib::Server& http, bool admin) = 0;
};

// Each area lives in a file of its own.
std::unique_ptr<ServiceArea> MakeLauncherArea(MemberServer& server);
std::unique_ptr<ServiceArea> MakeContentArea(MemberServer& server);
std::unique_ptr<ServiceArea> MakeUploadArea(MemberServer& server);

// The member API over HTTPS on loopback, with fault injection for tests.
class MemberServer
{
public:
    explicit MemberServer(ServerOptions options);
    ~MemberServer();

    /// Binds 127.0.0.1 and prepares certificates and state; false with \a error on failure.
    bool Start(std::string& error);
    /// Serves until Stop() is called.
    void Run();
    void Stop();

    int Port() const { return m_port; }
    std::string CaFile() const { return m_caFile; }

    // What the service areas share.
    ServerState& State() { return m_state; }
    const ServerOptions& Options() const { return m_options; }
    /// "https://127.0.0.1:PORT", the web host as clients reach it.
    QString WebBase() const { return QStringLiteral("https://127.0.0.1:%1").arg(m_port); }
    /// Writes {"apiStatus":…,"result":{"status":…,"data":…}}, with "result"
    /// compressed when a fault asks for it.
    void SendEnvelope(const httplib::Request& request, httplib::Response& response, int apiStatus, int status,
                      const QJsonValue& data);
    void SendJson(httplib::Response& response, const QJsonObject& object, int http = 200);
    /// The state of the request's "Authorization: Token ..." header, and its member.
    ServerState::TokenState CheckToken(const httplib::Request& request, QString& memberId);

private:
    // What a test asked the server to do to the requests of one path.
    struct Fault {
        int apiStatus = -1;
        int status = -1;
        int http = 0;
        int delayMs = 0;
        bool drop = false;
        bool malformed = false;
        bool compress = false;
        std::string body; // a raw reply body, sent as it is
        int times = -1;   // -1: until reset
    };

    httplib::Server::HandlerResponse PreRoute(const httplib::Request& request, httplib::Response& response);
    void AddRoutes();
    void AddAdminRoutes();

    bool ShouldCompress(const std::string& path);
    void SleepInterruptible(int milliseconds);
    void CountConnection(const httplib::Request& request);
    void LogRequest(const httplib::Request& request);

    void HandleToken(const httplib::Request& request, httplib::Response& response);
    void HandleAuthorizationCode(const httplib::Request& request, httplib::Response& response);
    void HandleLoginInfo(const httplib::Request& request, httplib::Response& response);
    void ShowSignInPage(const httplib::Request& request, httplib::Response& response);
    void SubmitSignInPage(const httplib::Request& request, httplib::Response& response);

    // A browser sign-in bound to a GUID: pending until the page binds it.
    struct SignIn {
        int status = 1; // 1 pending, 0 signed in, 3 refused
        QString code;
        qint64 created = 0; // ms since the epoch: links expire
        int failures = 0;   // wrong passwords on the page
        QString application; // the User-Agent of the polling application
    };
    std::mutex m_signInMutex;
    std::map<QString, SignIn> m_signIns;      // by GUID
    std::map<QString, QString> m_codes;       // one-time code -> member id
    std::deque<std::pair<qint64, QString>> m_signInOrder; // (created, GUID), oldest first
    // Looks a GUID up; \a registering (the polling call) adds a well-formed new one as
    // pending. False when malformed, or unknown and not registered.
    bool PendingSignIn(const QString& guid, SignIn& signIn, bool& expired, bool registering = false,
                       const QString& application = QString());
    // Binds the GUID to the member; a wrong password leaves it pending until the tries run out.
    bool BindSignIn(const QString& guid, const QString& email, const QString& password, bool checkPassword,
                    int& status);
    // Forgets sign-ins long past their lifetime and the oldest beyond the cap; m_signInMutex held.
    void PruneSignIns(qint64 now);
    void RememberSignIn(const QString& guid, const SignIn& signIn); // m_signInMutex held

    ServerOptions m_options;
    std::unique_ptr<httplib::SSLServer> m_server;
    ServerState m_state;
    std::vector<std::unique_ptr<ServiceArea>> m_areas;
    int m_port = 0;
    std::string m_caFile;
    std::atomic<bool> m_stopping{false};

    std::mutex m_faultMutex;
    std::map<std::string, Fault> m_faults;
    std::deque<QJsonObject> m_requestLog;

    std::atomic<long> m_connections{0};
    std::atomic<long> m_resumed{0};
    std::atomic<long> m_requests{0};
    int m_exDataIndex = -1;
    int m_budgetIndex = -1; // per connection: the bytes of the request head read so far
    std::mutex m_socketMutex;
    std::set<int> m_sockets; // client sockets seen, shut down on Stop()
};
