#include "MemberServer.h"

#include "Certificates.h"
#include "ConsoleLog.h"
#include "LZStringEncoder.h"
#include "RequestParsing.h"

#include <QCryptographicHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QDateTime>
#include <QLocale>
#include <QRandomGenerator>

#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <list>
#include <thread>

using httplib::Request;
using httplib::Response;
using Handled = httplib::Server::HandlerResponse;

namespace {

// Server statuses of the token endpoint's "error" member.
constexpr int kErrorBadCredentials = 5;
constexpr int kErrorBadParameters = 4;
constexpr int kErrorUnknownToken = 13;
constexpr int kErrorUnknownCode = 7;
// apiStatus of the code call while the browser sign-in is pending, and for an unknown GUID.
constexpr int kApiPending = 1;
constexpr int kApiUnknownGuid = 4;
// What one request may send: a body, a number of headers, and the bytes of its head
// (request line and headers), which cpp-httplib reads whole before anything else sees it.
constexpr size_t kMaxPayload = 8 * 1024 * 1024;
constexpr size_t kMaxHeaders = 100;
constexpr size_t kMaxHeadBytes = 64 * 1024;
// Sign-in links kept at most; the oldest go first. Wrong passwords a link allows.
constexpr size_t kMaxSignIns = 10000;
constexpr int kMaxSignInTries = 5;
// A worker per connection up to this many: idle kept-alive connections hold their own.
constexpr size_t kMaxWorkers = 256;
constexpr size_t kKeepAliveRequests = 10000;

// A new worker starts whenever a connection would otherwise wait for one, up to a cap;
// cpp-httplib's fixed pool lets a few idle kept-alive connections hold every worker.
class GrowingPool : public httplib::TaskQueue
{
public:
    explicit GrowingPool(size_t maxWorkers)
        : m_max(maxWorkers)
    {
    }
    void enqueue(std::function<void()> job) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_jobs.push_back(std::move(job));
        if (m_jobs.size() > m_idle && m_threads.size() < m_max)
            m_threads.emplace_back([this] { Work(); });
        else
            m_ready.notify_one();
    }
    void shutdown() override
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_shutdown = true;
        }
        m_ready.notify_all();
        for (std::thread& thread : m_threads)
            thread.join();
    }

private:
    void Work()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        for (;;) {
            ++m_idle;
            m_ready.wait(lock, [this] { return !m_jobs.empty() || m_shutdown; });
            --m_idle;
            if (m_jobs.empty())
                return;
            std::function<void()> job = std::move(m_jobs.front());
            m_jobs.pop_front();
            lock.unlock();
            job();
            lock.lock();
        }
    }

    const size_t m_max;
    std::mutex m_mutex;
    std::condition_variable m_ready;
    std::deque<std::function<void()>> m_jobs;
    std::list<std::thread> m_threads;
    size_t m_idle = 0;
    bool m_shutdown = false;
};

// The bytes of the request head received on one connection; counted from TLS record
// headers, since cpp-httplib offers no hook before it has read all headers.
struct HeadBudget {
    std::atomic<bool> reading{true};
    std::atomic<size_t> bytes{0};
};

void FreeHeadBudget(void*, void* budget, CRYPTO_EX_DATA*, int, long, void*)
{
    delete static_cast<HeadBudget*>(budget);
}

HeadBudget* Budget(const SSL* ssl, int index)
{
    return ssl && index >= 0 ? static_cast<HeadBudget*>(SSL_get_ex_data(ssl, index)) : nullptr;
}

QString Html(const QString& text)
{
    return text.toHtmlEscaped();
}

// The sign-in page's style; its hash is the only style the page's policy allows.
// Borders and text keep at least 3:1 against their background.
const char* const kPageStyle =
    "body{font-family:system-ui,sans-serif;background:#f3f4f6;margin:0;display:flex;min-height:100vh;"
    "align-items:center;justify-content:center;color:#111827}"
    "main{background:#fff;padding:2rem 2.5rem;border-radius:12px;box-shadow:0 4px 24px #0002;width:22rem}"
    "h1{font-size:1.4rem;margin:0 0 1rem}label{display:block;margin:1rem 0 .3rem;font-weight:600}"
    "input{width:100%;box-sizing:border-box;padding:.6rem;border:1px solid #6b7280;border-radius:6px;"
    "font-size:1rem}input:focus{outline:3px solid #1d4ed8;outline-offset:1px;border-color:#1d4ed8}"
    "button{margin-top:1.5rem;width:100%;padding:.7rem;border:0;border-radius:6px;background:#1d4ed8;"
    "color:#fff;font-size:1rem;font-weight:600;cursor:pointer}"
    "p.app{color:#374151;margin:0 0 1rem}"
    "p.error{background:#fef2f2;color:#991b1b;padding:.7rem;border-radius:6px;border:1px solid #b91c1c}"
    "p.done{background:#ecfdf5;color:#065f46;padding:.7rem;border-radius:6px;border:1px solid #047857}";

// The page is never kept, framed or given any script.
void SetPageHeaders(httplib::Response& response)
{
    static const std::string policy =
        "default-src 'none'; style-src 'sha256-"
        + QCryptographicHash::hash(kPageStyle, QCryptographicHash::Sha256).toBase64().toStdString()
        + "'; form-action 'self'; frame-ancestors 'none'; base-uri 'none'";
    response.set_header("Cache-Control", "no-store");
    response.set_header("Content-Security-Policy", policy);
    response.set_header("X-Frame-Options", "DENY");
    response.set_header("X-Content-Type-Options", "nosniff");
    response.set_header("Referrer-Policy", "no-referrer"); // the GUID is in the address
}

// The sign-in page: one accessible form, or a message.
std::string Page(const QString& title, const QString& body)
{
    return (QStringLiteral("<!DOCTYPE html><html lang=\"en\"><head><meta charset=\"utf-8\">"
                           "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">"
                           "<title>%1 - Quillmarsh</title><style>")
                .arg(Html(title))
            + QLatin1String(kPageStyle) + QStringLiteral("</style></head><body><main>") + body
            + QStringLiteral("</main></body></html>"))
        .toStdString();
}

// The form; after a wrong password it keeps the e-mail, says so, and focuses the password.
QString SignInForm(const QString& guid, const QString& application, const QString& email = QString(),
                   const QString& error = QString())
{
    const QString asking = application.isEmpty()
                               ? QStringLiteral("An application on this computer asks you to sign in.")
                               : QStringLiteral("The application <strong>%1</strong> asks you to sign in.")
                                     .arg(Html(application.left(80)));
    const bool retry = !error.isEmpty();
    return QStringLiteral(
               "<h1>Sign in to Quillmarsh</h1><p class=\"app\">%1</p>%2"
               "<form method=\"post\" action=\"/signin\">"
               "<input type=\"hidden\" name=\"guid\" value=\"%3\">"
               "<label for=\"email\">E-mail</label>"
               "<input id=\"email\" name=\"email\" type=\"email\" autocomplete=\"username\" required value=\"%4\"%5>"
               "<label for=\"password\">Password</label>"
               "<input id=\"password\" name=\"password\" type=\"password\" autocomplete=\"current-password\" "
               "required%6%7>"
               "<button type=\"submit\">Sign in</button></form>")
        .arg(asking,
             retry ? QStringLiteral("<p class=\"error\" role=\"alert\" id=\"problem\">%1</p>").arg(Html(error))
                   : QString(),
             Html(guid), Html(email), retry ? QString() : QStringLiteral(" autofocus"),
             retry ? QStringLiteral(" autofocus aria-describedby=\"problem\"") : QString(),
             retry ? QStringLiteral(" aria-invalid=\"true\"") : QString());
}

// A page with a heading and one message: "error" messages are announced to screen readers as alerts.
void SendPage(httplib::Response& response, int status, const QString& heading, const QString& message,
              const char* kind)
{
    response.status = status;
    SetPageHeaders(response);
    const QString role = QLatin1String(kind) == QLatin1String("error") ? QStringLiteral("alert") : QStringLiteral("status");
    response.set_content(Page(heading, QStringLiteral("<h1>%1</h1><p class=\"%2\" role=\"%3\">%4</p>")
                                           .arg(Html(heading), QLatin1String(kind), role, Html(message))),
                         "text/html; charset=utf-8");
}

void SendInvalidLink(httplib::Response& response)
{
    SendPage(response, 404, QStringLiteral("This sign-in link is not valid"),
             QStringLiteral("Start the sign-in again from the application."), "error");
}

QString Text(const std::string& utf8)
{
    return QString::fromUtf8(utf8.data(), static_cast<int>(utf8.size()));
}

// httplib adds the socket's addresses as pseudo-headers; they were never sent.
QJsonObject SentHeaders(const httplib::Headers& headers)
{
    QJsonObject object;
    for (const auto& [name, value] : headers) {
        if (name != "LOCAL_ADDR" && name != "LOCAL_PORT" && name != "REMOTE_ADDR" && name != "REMOTE_PORT")
            object.insert(Text(name), Text(value));
    }
    return object;
}

// The headers as the request log keeps them: no secret in the clear.
QJsonObject LoggedHeaders(const httplib::Headers& headers)
{
    QJsonObject object;
    for (const auto& [name, value] : headers) {
        if (name != "LOCAL_ADDR" && name != "LOCAL_PORT" && name != "REMOTE_ADDR" && name != "REMOTE_PORT")
            object.insert(Text(name), RequestParsing::LoggedHeader(name, value));
    }
    return object;
}

using RequestParsing::ParseObject;

} // namespace

MemberServer::MemberServer(ServerOptions options)
    : m_options(std::move(options))
{
}

MemberServer::~MemberServer() = default;

bool MemberServer::Start(std::string& error)
{
    ::mkdir(m_options.stateDir.c_str(), 0700);
    Certificates::Paths paths;
    if (!Certificates::Ensure(m_options.stateDir, paths, error))
        return false;
    m_caFile = paths.ca;
    if (!m_state.Open(m_options.stateDir + "/state.db", m_options.tokenTtlSeconds, error))
        return false;
    m_areas.push_back(MakeLauncherArea(*this));
    m_areas.push_back(MakeContentArea(*this));
    m_areas.push_back(MakeUploadArea(*this));
    for (auto& area : m_areas) {
        if (!area->Open(error))
            return false;
    }
    for (const std::string& seed : m_options.seeds) {
        bool taken = false;
        if (seed == "demo") {
            m_state.AddMember(QStringLiteral("demo@quillmarsh.test"), QStringLiteral("demo-password"),
                              QStringLiteral("Demo"));
            taken = true;
        }
        // "demo" is every area's too: each adds its part of the demo world.
        for (auto& area : m_areas) {
            if (area->Seed(seed, error))
                taken = true;
            else if (!error.empty())
                return false;
        }
        if (!taken) {
            error = "unknown seed: " + seed;
            return false;
        }
    }

    m_exDataIndex = SSL_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
    m_budgetIndex = SSL_get_ex_new_index(0, nullptr, nullptr, nullptr, &FreeHeadBudget);
    const std::string certificate = paths.certificate;
    const std::string key = paths.key;
    m_server = std::make_unique<httplib::SSLServer>([this, certificate, key](SSL_CTX& context) {
        // Every received record passes here: a request head beyond its budget closes the connection.
        SSL_CTX_set_msg_callback(&context, [](int write, int, int type, const void* data, size_t length, SSL* ssl,
                                              void* server) {
            if (write || type != SSL3_RT_HEADER || length < 5)
                return;
            const int index = static_cast<MemberServer*>(server)->m_budgetIndex;
            auto* budget = Budget(ssl, index);
            if (!budget) {
                budget = new HeadBudget;
                SSL_set_ex_data(ssl, index, budget);
            }
            const auto* header = static_cast<const unsigned char*>(data);
            if (budget->reading && (budget->bytes += size_t(header[3]) << 8 | header[4]) > kMaxHeadBytes)
                ::shutdown(SSL_get_fd(ssl), SHUT_RDWR);
        });
        SSL_CTX_set_msg_callback_arg(&context, this);
        return SSL_CTX_use_certificate_chain_file(&context, certificate.c_str()) == 1
               && SSL_CTX_use_PrivateKey_file(&context, key.c_str(), SSL_FILETYPE_PEM) == 1
               && SSL_CTX_set_min_proto_version(&context, TLS1_2_VERSION) == 1;
    });
    if (!m_server->is_valid()) {
        error = "cannot load the server certificate";
        return false;
    }
    m_server->set_keep_alive_max_count(kKeepAliveRequests);
    m_server->set_keep_alive_timeout(m_options.keepAliveSeconds);
    m_server->set_payload_max_length(kMaxPayload);
    // Headers and body go out in separate writes; without this each reply waits for a delayed ACK.
    m_server->set_tcp_nodelay(true);
    m_server->new_task_queue = [] { return new GrowingPool(kMaxWorkers); };
    // cpp-httplib's default adds SO_REUSEPORT, which lets a second server share the port silently.
    m_server->set_socket_options([](socket_t socket) {
        int yes = 1;
        ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
    m_server->set_pre_routing_handler(
        [this](const Request& request, Response& response) { return PreRoute(request, response); });
    m_server->set_post_routing_handler([this](const Request& request, Response& response) {
        // Clients compare their clock with it (qmmember doctor).
        response.set_header("Date", QLocale::c()
                                        .toString(QDateTime::currentDateTimeUtc(), QStringLiteral("ddd, dd MMM yyyy HH:mm:ss 'GMT'"))
                                        .toStdString());
        if (request.path.rfind("/admin/", 0) != 0 && request.path != "/qmtest/ping" && !response.has_header("X-QM-Fault"))
            LogRequest(request);
    });
    // After each answer the connection's next request head starts a new budget; with
    // --log-requests each answer also gets its line (secrets redacted).
    const bool logRequests = m_options.logRequests;
    m_server->set_logger([this, logRequests](const Request& request, const Response& response) {
        if (HeadBudget* budget = Budget(request.ssl, m_budgetIndex)) {
            budget->bytes = 0;
            budget->reading = true;
        }
        if (logRequests)
            std::fprintf(stderr, "%s\n", ConsoleLogLine(request, response).c_str());
    });
    AddRoutes();
    for (auto& area : m_areas)
        area->AddRoutes(*m_server, m_options.admin);
    if (m_options.admin)
        AddAdminRoutes();

    m_port = m_options.port == 0 ? m_server->bind_to_any_port("127.0.0.1")
                                 : (m_server->bind_to_port("127.0.0.1", m_options.port) ? m_options.port : -1);
    if (m_port <= 0) {
        error = "cannot listen on 127.0.0.1:" + std::to_string(m_options.port)
                + ": the port is in use (is another qmmember-server running?) or not allowed";
        return false;
    }
    return true;
}

void MemberServer::Run()
{
    m_server->listen_after_bind();
}

void MemberServer::Stop()
{
    m_stopping = true;
    if (m_server)
        m_server->stop();
    // Idle kept-alive connections would otherwise hold their threads until they time out.
    std::lock_guard<std::mutex> lock(m_socketMutex);
    for (int socket : m_sockets)
        ::shutdown(socket, SHUT_RDWR);
}

void MemberServer::SleepInterruptible(int milliseconds)
{
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    while (!m_stopping && std::chrono::steady_clock::now() < until)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

void MemberServer::CountConnection(const Request& request)
{
    // A mark on the TLS object tells a new connection from a kept-alive one.
    auto* ssl = const_cast<SSL*>(request.ssl);
    if (!ssl || SSL_get_ex_data(ssl, m_exDataIndex))
        return;
    SSL_set_ex_data(ssl, m_exDataIndex, this);
    ++m_connections;
    {
        std::lock_guard<std::mutex> lock(m_socketMutex);
        m_sockets.insert(SSL_get_fd(ssl));
    }
    if (SSL_session_reused(ssl))
        ++m_resumed;
}

void MemberServer::LogRequest(const Request& request)
{
    // Passwords, credentials and tokens never reach the log in the clear.
    QJsonObject entry{{QStringLiteral("method"), Text(request.method)},
                      {QStringLiteral("path"), Text(request.path)},
                      {QStringLiteral("target"), RequestParsing::LoggedTarget(request.target)},
                      {QStringLiteral("headers"), LoggedHeaders(request.headers)},
                      {QStringLiteral("body"),
                       RequestParsing::LoggedBody(request.body, request.get_header_value("Content-Type"))}};
    std::lock_guard<std::mutex> lock(m_faultMutex);
    m_requestLog.push_back(std::move(entry));
    if (m_requestLog.size() > 200)
        m_requestLog.pop_front();
}

Handled MemberServer::PreRoute(const Request& request, Response& response)
{
    CountConnection(request);
    if (HeadBudget* budget = Budget(request.ssl, m_budgetIndex))
        budget->reading = false; // the head is in; the body has its own limit
    // The four socket addresses are cpp-httplib's own entries, not sent headers.
    if (request.headers.size() > kMaxHeaders + 4) {
        response.status = 431;
        response.set_header("Connection", "close");
        response.set_content("{\"message\":\"too many headers\"}", "application/json");
        return Handled::Handled;
    }
    const bool adminPath = request.path.rfind("/admin/", 0) == 0;
    if (adminPath)
        return Handled::Unhandled; // unknown without --admin: no route answers
    ++m_requests;

    Fault fault;
    {
        std::lock_guard<std::mutex> lock(m_faultMutex);
        auto found = m_faults.find(request.path);
        if (found == m_faults.end())
            return Handled::Unhandled;
        fault = found->second;
        if (found->second.times > 0 && --found->second.times == 0)
            m_faults.erase(found);
    }
    if (fault.delayMs > 0)
        SleepInterruptible(fault.delayMs);
    const bool answers = fault.drop || fault.http > 0 || fault.malformed || !fault.body.empty() || fault.apiStatus >= 0
                         || fault.status >= 0;
    if (!answers)
        return Handled::Unhandled;
    // The body of a request answered here is never read: close the connection
    // rather than parse it as the next request. Routed requests are logged after routing.
    LogRequest(request);
    response.set_header("Connection", "close");
    response.set_header("X-QM-Fault", "1");
    if (fault.drop) {
        if (request.ssl)
            ::shutdown(SSL_get_fd(request.ssl), SHUT_RDWR);
        return Handled::Handled;
    }
    if (fault.http > 0 || !fault.body.empty()) {
        response.status = fault.http > 0 ? fault.http : 200;
        response.set_content(fault.body.empty() ? std::string("{\"message\":\"injected\"}") : fault.body,
                             "application/json");
        return Handled::Handled;
    }
    if (fault.malformed) {
        response.set_content("{\"apiStatus\":2,\"result\":{\"status\":2,\"data\":[1,", "application/json");
        return Handled::Handled;
    }
    if (fault.apiStatus >= 0 || fault.status >= 0) {
        SendEnvelope(request, response, fault.apiStatus >= 0 ? fault.apiStatus : 2,
                     fault.status >= 0 ? fault.status : 2, QJsonObject());
        return Handled::Handled;
    }
    return Handled::Unhandled;
}

bool MemberServer::ShouldCompress(const std::string& path)
{
    std::lock_guard<std::mutex> lock(m_faultMutex);
    auto found = m_faults.find(path);
    return found != m_faults.end() && found->second.compress;
}

void MemberServer::SendJson(Response& response, const QJsonObject& object, int http)
{
    response.status = http;
    response.set_content(QJsonDocument(object).toJson(QJsonDocument::Compact).toStdString(), "application/json");
}

void MemberServer::SendEnvelope(const Request& request, Response& response, int apiStatus, int status,
                                const QJsonValue& data)
{
    QJsonObject result{{QStringLiteral("status"), status}};
    if (!data.isNull() && !data.isUndefined())
        result.insert(QStringLiteral("data"), data);
    QJsonObject envelope{{QStringLiteral("apiStatus"), apiStatus}};
    if (ShouldCompress(request.path)) {
        const QString compact = QString::fromUtf8(QJsonDocument(result).toJson(QJsonDocument::Compact));
        envelope.insert(QStringLiteral("result"), LZStringEncoder::compressToUTF16(compact));
    } else {
        envelope.insert(QStringLiteral("result"), result);
    }
    SendJson(response, envelope);
}

void MemberServer::AddRoutes()
{
    auto root = [](const Request&, Response& response) { response.set_content("qmmember-server\n", "text/plain"); };
    m_server->Get("/", root);

    auto echo = [this](const Request& request, Response& response) {
        const QJsonObject headers = SentHeaders(request.headers);
        SendEnvelope(request, response, 2, 2,
                     QJsonObject{{QStringLiteral("method"), Text(request.method)},
                                 {QStringLiteral("path"), Text(request.path)},
                                 {QStringLiteral("target"), Text(request.target)},
                                 {QStringLiteral("headers"), headers},
                                 {QStringLiteral("body"), Text(request.body)}});
    };
    m_server->Get("/qmtest/echo", echo);
    m_server->Post("/qmtest/echo", echo);

    // A fixed, small reply: the benchmark's path, cheap on the server's side.
    auto ping = [](const Request&, Response& response) {
        response.set_content("{\"apiStatus\":2,\"result\":{\"status\":2,\"data\":{\"pong\":true}}}",
                             "application/json");
    };
    m_server->Get("/qmtest/ping", ping);
    m_server->Post("/qmtest/ping", ping);

    m_server->Get("/qmtest/member", [this](const Request& request, Response& response) {
        QString memberId;
        const auto state = CheckToken(request, memberId);
        if (state == ServerState::TokenState::Expired)
            return SendEnvelope(request, response, 2, 6, QJsonValue());
        if (state == ServerState::TokenState::Unknown)
            return SendEnvelope(request, response, 2, 13, QJsonValue());
        SendEnvelope(request, response, 2, 2, QJsonObject{{QStringLiteral("memberid"), memberId}});
    });

    m_server->Get("/qmtest/xml", [](const Request&, Response& response) {
        response.set_content("<?xml version=\"1.0\"?><ProductService><Status>2</Status></ProductService>",
                             "application/xml");
    });

    m_server->Post("/MemberAPI/Token",
                   [this](const Request& request, Response& response) { HandleToken(request, response); });
    m_server->Get("/MemberAPI/AuthorizationCode",
                  [this](const Request& request, Response& response) { HandleAuthorizationCode(request, response); });
    m_server->Get("/MemberAPI/v2/Logininfo",
                  [this](const Request& request, Response& response) { HandleLoginInfo(request, response); });
    m_server->Get("/signin", [this](const Request& request, Response& response) { ShowSignInPage(request, response); });
    m_server->Post("/signin",
                   [this](const Request& request, Response& response) { SubmitSignInPage(request, response); });
}

void MemberServer::ShowSignInPage(const Request& request, Response& response)
{
    const QString guid = Text(request.get_param_value("GUID"));
    SignIn signIn;
    bool expired = false;
    if (!PendingSignIn(guid, signIn, expired))
        return SendInvalidLink(response);
    if (expired || signIn.status != 1)
        return SendPage(response, 410, QStringLiteral("This sign-in link has expired"),
                        QStringLiteral("It was used already or is too old. Start the sign-in again from the "
                                       "application."),
                        "error");
    SetPageHeaders(response);
    response.set_content(Page(QStringLiteral("Sign in"), SignInForm(guid, signIn.application)),
                         "text/html; charset=utf-8");
}

void MemberServer::SubmitSignInPage(const Request& request, Response& response)
{
    const RequestParsing::SignInForm form = RequestParsing::ParseSignInForm(request.body);
    SignIn signIn;
    bool expired = false;
    if (!PendingSignIn(form.guid, signIn, expired))
        return SendInvalidLink(response);
    if (expired || signIn.status != 1)
        return SendPage(response, 410, QStringLiteral("This sign-in link has expired"),
                        QStringLiteral("Start the sign-in again from the application."), "error");
    int status = 1;
    if (BindSignIn(form.guid, form.email, form.password, true, status))
        return SendPage(response, 200, QStringLiteral("You are signed in"),
                        QStringLiteral("You can close this window and return to the application."), "done");
    if (status == 3)
        return SendPage(response, 401, QStringLiteral("Sign-in refused"),
                        QStringLiteral("The e-mail or the password was wrong too often. The application has been "
                                       "told; start the sign-in again from there."),
                        "error");
    int left = 0;
    {
        std::lock_guard<std::mutex> lock(m_signInMutex);
        left = kMaxSignInTries - m_signIns[form.guid].failures;
    }
    response.status = 401;
    SetPageHeaders(response);
    const QString problem = left == 1 ? QStringLiteral("The e-mail or the password is wrong. One try is left.")
                                      : QStringLiteral("The e-mail or the password is wrong. %1 tries are left.").arg(left);
    response.set_content(Page(QStringLiteral("Sign in"), SignInForm(form.guid, signIn.application, form.email, problem)),
                         "text/html; charset=utf-8");
}

bool MemberServer::BindSignIn(const QString& guid, const QString& email, const QString& password, bool checkPassword,
                              int& status)
{
    ServerState::Member member;
    const bool known = checkPassword ? m_state.CheckPassword(email, password, member) : m_state.FindMember(email, member);
    std::lock_guard<std::mutex> lock(m_signInMutex);
    auto found = m_signIns.find(guid);
    if (found == m_signIns.end()) {
        RememberSignIn(guid, SignIn{1, QString(), QDateTime::currentMSecsSinceEpoch()});
        found = m_signIns.find(guid);
    }
    SignIn& signIn = found->second;
    if (!known) {
        // On the page the member may try again, a few times; the admin call refuses at once.
        ++signIn.failures;
        status = signIn.status = (!checkPassword || signIn.failures >= kMaxSignInTries) ? 3 : 1;
        signIn.code.clear();
        return false;
    }
    m_codes.erase(signIn.code);
    signIn.status = status = 0;
    signIn.code = QString::fromLatin1(QByteArray::number(QRandomGenerator::global()->generate64(), 36))
                  + QString::fromLatin1(QByteArray::number(QRandomGenerator::global()->generate64(), 36));
    m_codes[signIn.code] = member.id;
    return true;
}

bool MemberServer::PendingSignIn(const QString& guid, SignIn& signIn, bool& expired, bool registering,
                                 const QString& application)
{
    expired = false;
    if (!RequestParsing::IsWellFormedGuid(guid))
        return false;
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    std::lock_guard<std::mutex> lock(m_signInMutex);
    auto found = m_signIns.find(guid);
    if (found == m_signIns.end()) {
        // Only the polling application makes a link known; the page never does.
        if (!registering)
            return false;
        SignIn fresh{1, QString(), now};
        fresh.application = application;
        RememberSignIn(guid, fresh);
        found = m_signIns.find(guid);
    }
    signIn = found->second;
    expired = signIn.status == 1 && now - signIn.created > qint64(m_options.signInTtlSeconds) * 1000;
    return true;
}

void MemberServer::RememberSignIn(const QString& guid, const SignIn& signIn)
{
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    PruneSignIns(now);
    auto& kept = m_signIns[guid];
    if (!kept.code.isEmpty())
        m_codes.erase(kept.code);
    kept = signIn;
    m_signInOrder.emplace_back(signIn.created, guid);
}

void MemberServer::PruneSignIns(qint64 now)
{
    // Expired links still answer "expired" for a while, then they are forgotten with their codes.
    const qint64 keepMs = 2 * qint64(m_options.signInTtlSeconds) * 1000;
    while (!m_signInOrder.empty()
           && (now - m_signInOrder.front().first > keepMs || m_signIns.size() >= kMaxSignIns)) {
        const auto [created, guid] = m_signInOrder.front();
        m_signInOrder.pop_front();
        auto found = m_signIns.find(guid);
        if (found != m_signIns.end() && found->second.created == created) {
            m_codes.erase(found->second.code);
            m_signIns.erase(found);
        }
    }
}

void MemberServer::HandleAuthorizationCode(const Request& request, Response& response)
{
    const QString guid = Text(request.get_param_value("GUID"));
    SignIn signIn;
    bool expired = false;
    if (!PendingSignIn(guid, signIn, expired, true, Text(request.get_header_value("User-Agent"))) || expired)
        return SendEnvelope(request, response, kApiUnknownGuid, kApiUnknownGuid, QJsonValue());
    if (signIn.status == 1)
        return SendEnvelope(request, response, kApiPending, kApiPending, QJsonValue());
    SendEnvelope(request, response, 2, 2,
                 QJsonObject{{QStringLiteral("Status"), signIn.status}, {QStringLiteral("Code"), signIn.code}});
}

void MemberServer::HandleLoginInfo(const Request& request, Response& response)
{
    QString memberId;
    const auto state = CheckToken(request, memberId);
    if (state == ServerState::TokenState::Expired)
        return SendEnvelope(request, response, 2, 6, QJsonValue());
    ServerState::Member member;
    if (state == ServerState::TokenState::Unknown || !m_state.FindMemberById(memberId, member))
        return SendEnvelope(request, response, 2, 13, QJsonValue());
    // Key spellings as the service has them, mixed case included.
    const QJsonObject user{{QStringLiteral("MemberID"), member.id},   {QStringLiteral("Class"), 1},
                           {QStringLiteral("NickName"), member.nickName}, {QStringLiteral("Email"), member.email},
                           {QStringLiteral("FirstName"), member.firstName}, {QStringLiteral("LastName"), member.lastName}};
    SendEnvelope(request, response, 2, 2,
                 QJsonObject{{QStringLiteral("CCD_memberType"), 2},
                             {QStringLiteral("avatarUrl"), QStringLiteral("https://") + Text(request.get_header_value("Host"))
                                                               + QStringLiteral("/avatar/") + member.id + ".png"},
                             {QStringLiteral("registrationdate"), QStringLiteral("2024-03-15T09:30:00")},
                             {QStringLiteral("CartQty"), 1},
                             {QStringLiteral("WLQty"), 3},
                             {QStringLiteral("userinfo"), user}});
}

ServerState::TokenState MemberServer::CheckToken(const Request& request, QString& memberId)
{
    const std::string authorization = request.get_header_value("Authorization");
    if (authorization.rfind("Token ", 0) != 0)
        return ServerState::TokenState::Unknown;
    return m_state.CheckAccess(Text(authorization.substr(6)), memberId);
}

void MemberServer::HandleToken(const Request& request, Response& response)
{
    const QString grant = ParseObject(request.body).value(QStringLiteral("grant_type")).toString();
    auto fail = [&](int status) { SendJson(response, QJsonObject{{QStringLiteral("error"), status}}); };
    auto grantTokens = [&](const ServerState::Tokens& tokens) {
        SendJson(response, QJsonObject{{QStringLiteral("access_token"), tokens.access},
                                       {QStringLiteral("refresh_token"), tokens.refresh},
                                       {QStringLiteral("token_type"), QStringLiteral("Token")}});
    };

    if (grant == QLatin1String("refresh_token")) {
        const QString refresh = Text(request.get_header_value("refresh_token"));
        if (refresh.isEmpty())
            return fail(kErrorBadParameters);
        QString access;
        if (!m_state.RefreshAccess(refresh, access))
            return fail(kErrorUnknownToken);
        // A new refresh token is offered too; the client keeps its old one.
        return SendJson(response, QJsonObject{{QStringLiteral("access_token"), access},
                                              {QStringLiteral("refresh_token"), QStringLiteral("unused-new-refresh")},
                                              {QStringLiteral("token_type"), QStringLiteral("Token")}});
    }
    // The fields of "Basic " + base64("launcher:" ...), empty without such a header.
    const QList<QByteArray> parts = RequestParsing::ParseBasicCredential(request.get_header_value("Authorization"));
    if (grant == QLatin1String("password")) {
        // launcher : b64(e-mail) : b64(password) : machine id : key : key
        if (parts.size() != 6 || parts.at(0) != "launcher" || parts.at(3).isEmpty())
            return fail(kErrorBadParameters);
        const QString email = QString::fromUtf8(QByteArray::fromBase64(parts.at(1)));
        const QString password = QString::fromUtf8(QByteArray::fromBase64(parts.at(2)));
        ServerState::Member member;
        if (email.isEmpty() || !m_state.CheckPassword(email, password, member))
            return fail(kErrorBadCredentials);
        return grantTokens(m_state.IssueTokens(member.id));
    }
    if (grant == QLatin1String("authorization_code")) {
        // launcher : code : machine id : key : key; a code serves once
        if (parts.size() != 5 || parts.at(0) != "launcher" || parts.at(1).isEmpty() || parts.at(2).isEmpty())
            return fail(kErrorBadParameters);
        QString memberId;
        {
            std::lock_guard<std::mutex> lock(m_signInMutex);
            auto found = m_codes.find(QString::fromUtf8(parts.at(1)));
            if (found == m_codes.end())
                return fail(kErrorUnknownCode);
            memberId = found->second;
            m_codes.erase(found);
        }
        return grantTokens(m_state.IssueTokens(memberId));
    }
    fail(kErrorBadParameters);
}

void MemberServer::AddAdminRoutes()
{
    m_server->Post("/admin/fault", [this](const Request& request, Response& response) {
        const QJsonObject body = ParseObject(request.body);
        const std::string path = body.value(QStringLiteral("path")).toString().toStdString();
        if (path.empty() || path[0] != '/')
            return SendJson(response, QJsonObject{{QStringLiteral("error"), QStringLiteral("path required")}}, 400);
        Fault fault;
        fault.apiStatus = body.value(QStringLiteral("apiStatus")).toInt(-1);
        fault.status = body.value(QStringLiteral("status")).toInt(-1);
        fault.http = body.value(QStringLiteral("http")).toInt(0);
        fault.delayMs = body.value(QStringLiteral("delay_ms")).toInt(0);
        fault.drop = body.value(QStringLiteral("drop")).toBool(false);
        fault.malformed = body.value(QStringLiteral("malformed")).toBool(false);
        fault.compress = body.value(QStringLiteral("compress")).toBool(false);
        fault.body = body.value(QStringLiteral("body")).toString().toStdString();
        fault.times = body.value(QStringLiteral("times")).toInt(-1);
        std::lock_guard<std::mutex> lock(m_faultMutex);
        m_faults[path] = fault;
        response.set_content("{\"ok\":true}", "application/json");
    });
    m_server->Post("/admin/reset", [this](const Request&, Response& response) {
        std::lock_guard<std::mutex> lock(m_faultMutex);
        m_faults.clear();
        m_requestLog.clear();
        m_connections = 0;
        m_resumed = 0;
        m_requests = 0;
        response.set_content("{\"ok\":true}", "application/json");
    });
    m_server->Get("/admin/stats", [this](const Request&, Response& response) {
        double signIns = 0;
        {
            std::lock_guard<std::mutex> lock(m_signInMutex);
            PruneSignIns(QDateTime::currentMSecsSinceEpoch());
            signIns = double(m_signIns.size());
        }
        SendJson(response, QJsonObject{{QStringLiteral("connections"), double(m_connections)},
                                       {QStringLiteral("resumed"), double(m_resumed)},
                                       {QStringLiteral("requests"), double(m_requests)},
                                       {QStringLiteral("signins"), signIns}});
    });
    m_server->Get("/admin/requests", [this](const Request& request, Response& response) {
        const QString path = Text(request.get_param_value("path"));
        QJsonArray list;
        std::lock_guard<std::mutex> lock(m_faultMutex);
        for (const QJsonObject& entry : m_requestLog) {
            if (path.isEmpty() || entry.value(QStringLiteral("path")).toString() == path)
                list.append(entry);
        }
        SendJson(response, QJsonObject{{QStringLiteral("requests"), list}});
    });
    m_server->Post("/admin/member", [this](const Request& request, Response& response) {
        const QJsonObject body = ParseObject(request.body);
        const QString email = body.value(QStringLiteral("email")).toString();
        if (email.isEmpty())
            return SendJson(response, QJsonObject{{QStringLiteral("error"), QStringLiteral("email required")}}, 400);
        const ServerState::Member member = m_state.AddMember(email, body.value(QStringLiteral("password")).toString(),
                                                             body.value(QStringLiteral("nickname")).toString());
        SendJson(response, QJsonObject{{QStringLiteral("memberid"), member.id}});
    });
    // Binds a browser sign-in GUID as the sign-in page would: {"guid", "email"} signs in,
    // {"guid", "status": 3} refuses, {"guid"} alone leaves it pending.
    m_server->Post("/admin/signin", [this](const Request& request, Response& response) {
        const QJsonObject body = ParseObject(request.body);
        const QString guid = body.value(QStringLiteral("guid")).toString();
        if (guid.isEmpty())
            return SendJson(response, QJsonObject{{QStringLiteral("error"), QStringLiteral("guid required")}}, 400);
        int status = 1;
        if (body.contains(QStringLiteral("email"))) {
            BindSignIn(guid, body.value(QStringLiteral("email")).toString(), QString(), false, status);
        } else {
            std::lock_guard<std::mutex> lock(m_signInMutex);
            status = body.value(QStringLiteral("status")).toInt(1);
            RememberSignIn(guid, SignIn{status, QString(), QDateTime::currentMSecsSinceEpoch()});
        }
        SendJson(response, QJsonObject{{QStringLiteral("status"), status}});
    });
    // Hands a test a member's tokens without a sign-in; "ttl" 0 makes the access token expired.
    m_server->Post("/admin/token", [this](const Request& request, Response& response) {
        const QJsonObject body = ParseObject(request.body);
        QString email = body.value(QStringLiteral("email")).toString();
        if (email.isEmpty())
            email = QStringLiteral("member@quillmarsh.test");
        ServerState::Member member;
        if (!m_state.FindMember(email, member))
            member = m_state.AddMember(email, QString::fromLatin1(QByteArray::number(QRandomGenerator::global()->generate64())));
        const ServerState::Tokens tokens = m_state.IssueTokens(member.id, body.value(QStringLiteral("ttl")).toInt(-1));
        SendJson(response, QJsonObject{{QStringLiteral("memberid"), member.id},
                                       {QStringLiteral("access_token"), tokens.access},
                                       {QStringLiteral("refresh_token"), tokens.refresh}});
    });
}
