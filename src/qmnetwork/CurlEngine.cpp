#include "CurlEngine.h"

#include "HttpRequest.h"
#include "Socket.h"
#include "../compat/QueuedCall.h"

#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <QEvent>
#include <QLoggingCategory>
#include <QMetaObject>
#include <QSocketNotifier>
#include <QThread>
#include <QTimer>

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <array>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <dirent.h>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <unordered_set>

Q_LOGGING_CATEGORY(lcNet, "qm.network", QtWarningMsg)

namespace QMNet {

/// One trust set: the system's CAs and the extra CA file, loaded once and
/// shared by every connection made under it. Connections and TLS sessions
/// belong to one trust set: a new set starts with none.
struct Trust {
    uint64_t generation = 0;
    std::string extraFile;
    X509_STORE* store = nullptr;
    CURLSH* share = nullptr;
    std::array<std::mutex, CURL_LOCK_DATA_LAST> locks;

    Trust() = default;
    Trust(const Trust&) = delete;
    Trust& operator=(const Trust&) = delete;
    ~Trust()
    {
        // Every handle that used the share has let go of this trust set first.
        if (share)
            curl_share_cleanup(share);
        if (store)
            X509_STORE_free(store);
    }
};

/// A pooled easy handle with what was last applied to it, so that an exchange
/// sets only what differs from the one before.
struct Handle {
    CURL* easy = nullptr;
    std::shared_ptr<Trust> trust;
    std::string* body = nullptr;
    std::string* headers = nullptr;
    size_t limit = 0;
    bool overflow = false;
    char errors[CURL_ERROR_SIZE] = {};

    std::string url;
    int method = -1;
    long timeoutMs = -1;
    int64_t maxReply = -1;
    int follow = -1;
    int proxy = -1;
    std::string proxyUser;
    std::string proxyPassword;
    std::vector<std::string> headerLines;
    curl_slist* headerList = nullptr;

    std::shared_ptr<AsyncJob> job; // asynchronous road only
    size_t slot = SIZE_MAX; // its place in a loop driver's list of running handles
};

namespace {

size_t AppendBody(char* data, size_t size, size_t count, void* user)
{
    auto* handle = static_cast<Handle*>(user);
    const size_t bytes = size * count;
    if (handle->body->size() + bytes > handle->limit) {
        handle->overflow = true;
        return 0; // ends the transfer before the reply grows further
    }
    handle->body->append(data, bytes);
    return bytes;
}

size_t AppendHeader(char* data, size_t size, size_t count, void* user)
{
    auto* handle = static_cast<Handle*>(user);
    const size_t bytes = size * count;
    if (handle->headers->size() + bytes > handle->limit) {
        handle->overflow = true;
        return 0;
    }
    handle->headers->append(data, bytes);
    return bytes;
}

CURLcode UseTrust(CURL*, void* sslContext, void* user)
{
    // Replaces the store curl made (empty: no CA file or path is set) with the shared one.
    X509_STORE* store = static_cast<Handle*>(user)->trust->store;
    X509_STORE_up_ref(store);
    SSL_CTX_set_cert_store(static_cast<SSL_CTX*>(sslContext), store);
    return CURLE_OK;
}

bool HoldsHashes(const char* folder)
{
    DIR* dir = opendir(folder);
    if (!dir)
        return false;
    bool found = false;
    while (dirent* entry = readdir(dir)) {
        const size_t length = std::strlen(entry->d_name);
        if (length == 10 && entry->d_name[8] == '.' && entry->d_name[9] == '0') {
            found = true;
            break;
        }
    }
    closedir(dir);
    return found;
}

std::vector<X509*> ReadCertificates(const std::string& file)
{
    std::vector<X509*> certificates;
    FILE* fp = std::fopen(file.c_str(), "rb");
    if (!fp)
        return certificates;
    while (X509* cert = PEM_read_X509(fp, nullptr, nullptr, nullptr))
        certificates.push_back(cert);
    std::fclose(fp);
    ERR_clear_error();
    return certificates;
}

// The system's CAs: a hashed folder is looked up when a chain needs it; without
// one the bundle is read, once per process.
struct SystemCAs {
    std::string folder;
    std::vector<X509*> bundle;

    SystemCAs()
    {
        const char* envDir = std::getenv(X509_get_default_cert_dir_env());
        const std::string dir = envDir && *envDir ? envDir : X509_get_default_cert_dir();
        if (HoldsHashes(dir.c_str())) {
            folder = dir;
            return;
        }
        const char* envFile = std::getenv(X509_get_default_cert_file_env());
        bundle = ReadCertificates(envFile && *envFile ? envFile : X509_get_default_cert_file());
    }

    void AddTo(X509_STORE* store) const
    {
        if (!folder.empty()) {
            X509_LOOKUP* lookup = X509_STORE_add_lookup(store, X509_LOOKUP_hash_dir());
            if (lookup)
                X509_LOOKUP_add_dir(lookup, folder.c_str(), X509_FILETYPE_PEM);
        }
        for (X509* cert : bundle)
            X509_STORE_add_cert(store, cert);
    }
};

const SystemCAs& System()
{
    static const SystemCAs system;
    return system;
}

enum Method { Get, Post, Head };

Method MethodOf(const std::string& name)
{
    if (name == "POST")
        return Post;
    if (name == "HEAD")
        return Head;
    return Get;
}

const char* const kRefusedHeader = "a header value holding CR, LF or NUL was refused";

// A value with CR, LF or NUL would end its header line and start one of its own.
bool HeadersAreClean(const std::vector<std::string>& lines)
{
    for (const std::string& line : lines) {
        // Three vectorised scans beat one find_first_of, which tries each byte against the set.
        const char* const data = line.data();
        if (std::memchr(data, '\n', line.size()) || std::memchr(data, '\r', line.size())
            || std::memchr(data, '\0', line.size()))
            return false;
    }
    return true;
}

void Finish(const Handle& handle, CURLcode code, Outcome& outcome)
{
    if (code == CURLE_OK) {
        curl_easy_getinfo(handle.easy, CURLINFO_RESPONSE_CODE, &outcome.httpStatus);
        outcome.completed = true;
        outcome.netError = outcome.httpStatus >= 200 && outcome.httpStatus < 300
                               ? 0u
                               : static_cast<unsigned int>(outcome.httpStatus);
    } else {
        outcome.completed = false;
        // Released, not only emptied: a refused oversized reply keeps no memory.
        std::string().swap(outcome.body);
        if (handle.overflow)
            std::string().swap(outcome.headers);
    }
}

} // namespace

struct Engine::Impl {
    std::mutex trustMutex;
    std::shared_ptr<Trust> trust;
    std::atomic<uint64_t> generation{0};
    uint64_t lastGeneration = 0;
    std::atomic<bool> fromEnvironment{true};
    std::atomic<const char*> environmentSeen{nullptr};
    std::atomic<bool> trustReady{false};

    std::mutex poolMutex;
    std::vector<Handle*> pool;

    // Asynchronous exchanges run on one worker thread through a multi handle,
    // replaced (under queueMutex) when the trust set changes.
    CURLM* multi = nullptr;
    uint64_t multiGeneration = 0;
    std::thread worker;
    std::mutex queueMutex;
    std::deque<std::shared_ptr<AsyncJob>> pending;
    std::vector<std::shared_ptr<AsyncJob>> cancelled;
    std::unordered_map<CURL*, Handle*> running;
    std::vector<Handle*> asyncPool;
    std::atomic<bool> stopping{false};
};

Engine& Engine::Instance()
{
    // Never destroyed: a host may exit while a request is in flight on another thread,
    // and curl must not be torn down under it.
    static Engine* engine = new Engine;
    return *engine;
}

namespace {
constexpr long kConnectionsPerHost = 8;

CURLM* NewMulti()
{
    CURLM* multi = curl_multi_init();
    // Few connections per host, so queued transfers wait for a kept-alive one.
    curl_multi_setopt(multi, CURLMOPT_MAX_HOST_CONNECTIONS, kConnectionsPerHost);
    curl_multi_setopt(multi, CURLMOPT_MAXCONNECTS, 16L);
    return multi;
}

// The scheme, host and port of a URL: what connections are counted by.
std::string_view HostOf(const std::string& url)
{
    const std::string_view view(url);
    const size_t scheme = view.find("://");
    return view.substr(0, view.find_first_of("/?#", scheme == std::string_view::npos ? 0 : scheme + 3));
}
} // namespace

Engine::Engine()
    : d(std::make_unique<Impl>())
{
    curl_global_init(CURL_GLOBAL_DEFAULT);
    d->multi = NewMulti();
    d->worker = std::thread([this] { RunAsyncLoop(); });
}

std::shared_ptr<Trust> Engine::MakeTrust(const std::string& extraFile)
{
    auto trust = std::make_shared<Trust>();
    trust->generation = ++d->lastGeneration;
    trust->extraFile = extraFile;
    trust->store = X509_STORE_new();
    System().AddTo(trust->store);
    // As curl does with its own store: a trusted intermediate may end a chain.
    X509_STORE_set_flags(trust->store, X509_V_FLAG_TRUSTED_FIRST | X509_V_FLAG_PARTIAL_CHAIN);
    if (!extraFile.empty()) {
        const std::vector<X509*> extra = ReadCertificates(extraFile);
        if (extra.empty())
            qCWarning(lcNet) << "QMNet::Engine cannot read CA file" << QString::fromStdString(extraFile);
        for (X509* cert : extra) {
            X509_STORE_add_cert(trust->store, cert);
            X509_free(cert);
        }
        ERR_clear_error();
    }
    Trust* raw = trust.get();
    trust->share = curl_share_init();
    curl_share_setopt(trust->share, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
    curl_share_setopt(trust->share, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
    curl_share_setopt(trust->share, CURLSHOPT_USERDATA, raw);
    curl_share_setopt(trust->share, CURLSHOPT_LOCKFUNC,
                      +[](CURL*, curl_lock_data data, curl_lock_access, void* user) {
                          static_cast<Trust*>(user)->locks[data].lock();
                      });
    curl_share_setopt(trust->share, CURLSHOPT_UNLOCKFUNC, +[](CURL*, curl_lock_data data, void* user) {
        static_cast<Trust*>(user)->locks[data].unlock();
    });
    return trust;
}

// The trust set for a new exchange. $QM_CA_FILE is looked at again only when the
// environment's entry for it is another string than last time.
std::shared_ptr<Trust> Engine::CurrentTrust()
{
    const char* environment = d->fromEnvironment.load() ? std::getenv("QM_CA_FILE") : nullptr;
    if (!d->trustReady.load(std::memory_order_acquire)
        || (d->fromEnvironment.load() && environment != d->environmentSeen.load())) {
        std::lock_guard<std::mutex> lock(d->trustMutex);
        if (d->fromEnvironment) {
            const std::string path = environment ? environment : "";
            if (!d->trust || path != d->trust->extraFile) {
                d->trust = MakeTrust(path);
                d->generation = d->trust->generation;
            }
            d->environmentSeen = environment;
        } else if (!d->trust) {
            d->trust = MakeTrust(std::string());
            d->generation = d->trust->generation;
        }
        d->trustReady.store(true, std::memory_order_release);
        return d->trust;
    }
    std::lock_guard<std::mutex> lock(d->trustMutex);
    return d->trust;
}

void Engine::SetExtraCAFile(const std::string& path)
{
    std::lock_guard<std::mutex> lock(d->trustMutex);
    d->fromEnvironment = false;
    // Always a new trust set: the file's contents may have changed under the same name.
    d->trust = MakeTrust(path);
    d->generation = d->trust->generation;
    d->trustReady.store(true, std::memory_order_release);
}

std::string Engine::ExtraCAFile()
{
    return CurrentTrust()->extraFile;
}

void Engine::SetMaxReplyBytes(int64_t bytes)
{
    m_maxReply = bytes > 0 ? bytes : kDefaultMaxReplyBytes;
}

void Engine::DropConnections()
{
    std::vector<Handle*> handles;
    {
        std::lock_guard<std::mutex> lock(d->poolMutex);
        handles.swap(d->pool);
    }
    for (Handle* handle : handles)
        FreeHandle(handle);
}

Handle* Engine::NewHandle(const std::shared_ptr<Trust>& trust)
{
    CURL* easy = curl_easy_init();
    if (!easy)
        return nullptr;
    auto* handle = new Handle;
    handle->easy = easy;
    handle->trust = trust;
    curl_easy_setopt(easy, CURLOPT_PRIVATE, handle);
    curl_easy_setopt(easy, CURLOPT_SHARE, trust->share);
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "https");
    curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "https");
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_TCP_NODELAY, 1L);
    curl_easy_setopt(easy, CURLOPT_TCP_KEEPALIVE, 1L);
    // Servers commonly close a connection idle for 5 s; one idle nearly that long could be
    // closed while a request goes out on it ("Broken pipe"), so it is not reused.
    curl_easy_setopt(easy, CURLOPT_MAXAGE_CONN, 4L);
    // Verification is never switched off. curl loads no CAs of its own (it would
    // read the whole bundle for every connection); the shared store is put in instead.
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L);
    curl_easy_setopt(easy, CURLOPT_CAINFO, nullptr);
    curl_easy_setopt(easy, CURLOPT_CAPATH, nullptr);
    curl_easy_setopt(easy, CURLOPT_SSL_CTX_FUNCTION, &UseTrust);
    curl_easy_setopt(easy, CURLOPT_SSL_CTX_DATA, handle);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &AppendBody);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, handle);
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &AppendHeader);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, handle);
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, handle->errors);
    return handle;
}

void Engine::FreeHandle(Handle* handle)
{
    if (!handle)
        return;
    curl_easy_cleanup(handle->easy); // before the trust set (and its share) may go
    curl_slist_free_all(handle->headerList);
    delete handle;
}

void Engine::Configure(Handle& handle, const Exchange& exchange, Outcome& outcome)
{
    CURL* easy = handle.easy;
    handle.body = &outcome.body;
    handle.headers = &outcome.headers;
    handle.overflow = false;
    handle.errors[0] = '\0';
    const int64_t maxReply = MaxReplyBytes();
    handle.limit = static_cast<size_t>(maxReply);
    if (maxReply != handle.maxReply) {
        curl_easy_setopt(easy, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(maxReply));
        handle.maxReply = maxReply;
    }
    if (exchange.url != handle.url) {
        curl_easy_setopt(easy, CURLOPT_URL, exchange.url.c_str());
        handle.url = exchange.url;
    }
    // 0 and below (an int's negatives arrive here above INT_MAX) mean the default, never no limit.
    const long timeoutMs = exchange.timeoutMs > 0 && exchange.timeoutMs <= INT_MAX ? exchange.timeoutMs
                                                                                     : kDefaultTimeoutMs;
    if (timeoutMs != handle.timeoutMs) {
        curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, timeoutMs);
        curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, timeoutMs < 30000 ? timeoutMs : 30000L);
        handle.timeoutMs = timeoutMs;
    }
    const int follow = exchange.followRedirects ? 1 : 0;
    if (follow != handle.follow) {
        curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, long(follow));
        handle.follow = follow;
    }
    const int proxy = exchange.useProxy ? 1 : 0;
    if (proxy != handle.proxy || exchange.proxyUser != handle.proxyUser
        || exchange.proxyPassword != handle.proxyPassword) {
        // An empty proxy turns the environment's proxy off; null leaves it to curl.
        curl_easy_setopt(easy, CURLOPT_PROXY, exchange.useProxy ? nullptr : "");
        const bool credentials = exchange.useProxy && !exchange.proxyUser.empty();
        curl_easy_setopt(easy, CURLOPT_PROXYUSERNAME, credentials ? exchange.proxyUser.c_str() : nullptr);
        curl_easy_setopt(easy, CURLOPT_PROXYPASSWORD, credentials ? exchange.proxyPassword.c_str() : nullptr);
        handle.proxy = proxy;
        handle.proxyUser = exchange.proxyUser;
        handle.proxyPassword = exchange.proxyPassword;
    }
    const Method method = MethodOf(exchange.method);
    if (method == Post) {
        if (handle.method != Post)
            curl_easy_setopt(easy, CURLOPT_POST, 1L);
        curl_easy_setopt(easy, CURLOPT_POSTFIELDS, exchange.body.data());
        curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(exchange.body.size()));
    } else if (method != handle.method) {
        if (method == Head)
            curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
        else
            curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
    }
    handle.method = method;
    if (exchange.headers != handle.headerLines) {
        curl_slist* list = nullptr;
        for (const std::string& line : exchange.headers)
            list = curl_slist_append(list, line.c_str());
        curl_easy_setopt(easy, CURLOPT_HTTPHEADER, list);
        curl_slist_free_all(handle.headerList);
        handle.headerList = list;
        handle.headerLines = exchange.headers;
    }
}

unsigned int Engine::MapError(CURLcode code, const Handle& handle)
{
    if (handle.overflow || code == CURLE_FILESIZE_EXCEEDED)
        return InvalidServerResponse; // beyond the reply size limit: as a malformed reply
    switch (code) {
    case CURLE_OK:
        return NoError;
    case CURLE_OPERATION_TIMEDOUT:
        return Timeout;
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
        return NameNotResolved;
    case CURLE_COULDNT_CONNECT:
        return CannotConnect;
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
        return InvalidCertificate;
    case CURLE_SSL_CONNECT_ERROR:
        return SecureChannelError;
    case CURLE_GOT_NOTHING:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_PARTIAL_FILE:
        return ConnectionAborted;
    case CURLE_URL_MALFORMAT:
    case CURLE_UNSUPPORTED_PROTOCOL:
        return InvalidUrl;
    case CURLE_WEIRD_SERVER_REPLY:
        return InvalidServerResponse;
    case CURLE_ABORTED_BY_CALLBACK:
        return Cancelled;
    default:
        return InternalError;
    }
}

void Engine::Complete(const Handle& handle, CURLcode code, Outcome& outcome, const char* road)
{
    Finish(handle, code, outcome);
    if (code != CURLE_OK) {
        outcome.netError = MapError(code, handle);
        outcome.errorText = ErrorText(code, handle);
        qCDebug(lcNet) << "QMNet::Engine" << road << curl_easy_strerror(code) << handle.errors;
    }
}

std::string Engine::ErrorText(CURLcode code, const Handle& handle)
{
    if (handle.overflow || code == CURLE_FILESIZE_EXCEEDED)
        return "reply larger than the limit of " + std::to_string(handle.limit) + " bytes";
    return handle.errors[0] ? handle.errors : curl_easy_strerror(code);
}

Outcome Engine::Perform(const Exchange& exchange)
{
    Outcome outcome;
    if (!HeadersAreClean(exchange.headers)) {
        qCWarning(lcNet) << "QMNet::Engine refuses a header value holding CR, LF or NUL; nothing sent";
        outcome.netError = InternalError;
        outcome.errorText = kRefusedHeader;
        return outcome;
    }
    const std::shared_ptr<Trust> trust = CurrentTrust();
    Handle* handle = nullptr;
    {
        std::lock_guard<std::mutex> lock(d->poolMutex);
        if (!d->pool.empty()) {
            handle = d->pool.back();
            d->pool.pop_back();
        }
    }
    if (handle && handle->trust != trust) {
        FreeHandle(handle); // its connections were trusted under the old set
        handle = nullptr;
    }
    if (!handle)
        handle = NewHandle(trust);
    if (!handle) {
        outcome.netError = InternalError;
        return outcome;
    }
    Configure(*handle, exchange, outcome);
    const CURLcode code = curl_easy_perform(handle->easy);
    Complete(*handle, code, outcome, "sync");
    handle->body = nullptr;
    handle->headers = nullptr;
    if (handle->trust->generation != d->generation.load()) {
        FreeHandle(handle);
        return outcome;
    }
    {
        std::lock_guard<std::mutex> lock(d->poolMutex);
        d->pool.push_back(handle);
    }
    return outcome;
}

// --- exchanges run by the owner's own event loop -------------------------------------

class LoopDriver;

/// Lets another thread reach a driver while it lives; the driver clears it as it dies.
struct DriverLink {
    std::mutex mutex;
    LoopDriver* driver = nullptr;
};

/// The asynchronous exchanges of one thread that runs a Qt event loop, on a multi handle
/// of that thread driven by socket notifiers and a timer, and delivered from there: an
/// exchange never waits for another thread to be scheduled. One per thread, deleted as
/// the thread ends (or, in the application's thread, as the application object goes).
class LoopDriver : public QObject
{
public:
    static LoopDriver* ForThisThread(Engine& engine);

    void Start(std::shared_ptr<AsyncJob> job);
    void Cancel(const std::shared_ptr<AsyncJob>& job);

    ~LoopDriver() override;

private:
    class Watch;

    LoopDriver(Engine& engine);
    void Begin(std::shared_ptr<AsyncJob> job, bool held = false);
    void Release(Handle* handle);
    void StartHeld();
    void NewMultiFor(uint64_t generation);
    void Act(curl_socket_t socket, int mask);
    void DropWatches(curl_socket_t socket);
    static int OnSocket(CURL*, curl_socket_t socket, int what, void* user, void*);
    static int OnSocketOpened(void* user, curl_socket_t socket, curlsocktype purpose);
    static int OnSocketClosing(void* user, curl_socket_t socket);
    static int OnTimer(CURLM*, long timeoutMs, void* user);
    void Arm(long timeoutMs);
    static int64_t NowMs()
    {
        return std::chrono::duration_cast<std::chrono::milliseconds>(
                   std::chrono::steady_clock::now().time_since_epoch())
            .count();
    }
    static void DropAppThreadDriver();

    Engine& m_engine;
    std::shared_ptr<DriverLink> m_link = std::make_shared<DriverLink>();
    QAbstractEventDispatcher* m_dispatcher;
    CURLM* m_multi = nullptr;
    uint64_t m_generation = 0;
    QTimer m_timer;
    int64_t m_armedFor = 0; // when the running timer fires (steady clock, ms)
    int m_depth = 0; // calls of Act under way (a slot may run a nested event loop)
    bool m_kicked = false; // Begin drove curl since Act last read curl's messages
    std::unordered_map<curl_socket_t, std::pair<Watch*, Watch*>> m_watches; // read, write
    // Connection sockets curl opened and will close through OnSocketClosing: between two
    // exchanges their read watch is parked, not torn down, as every change of the loop's
    // poll set costs it a wake-up.
    std::unordered_set<curl_socket_t> m_connections;
    // Running handles; each knows its place, so that adding and removing one costs no search
    // and no allocation.
    std::vector<Handle*> m_running;
    Handle* Running(CURL* easy) const;
    std::vector<Handle*> m_pool;
    std::deque<std::shared_ptr<AsyncJob>> m_waiting; // for the old trust set's transfers to end
    // Exchanges held back while their host has as many running as curl may connect to it:
    // curl would set each one up, find no connection free and park it, over and over.
    struct HostLoad {
        std::string host;
        int running = 0;
        int held = 0;
    };
    std::vector<HostLoad> m_hosts; // the few hosts a thread talks to; idle ones are kept
    HostLoad* LoadOf(std::string_view host, bool make);
    std::deque<std::shared_ptr<AsyncJob>> m_held;
};

namespace {
thread_local LoopDriver* t_driver = nullptr;
}


/// One direction of one socket. Reacts to the event itself: the activated signal has
/// another signature in each Qt major version.
class LoopDriver::Watch : public QSocketNotifier
{
public:
    Watch(curl_socket_t socket, Type type, LoopDriver* driver)
        : QSocketNotifier(socket, type, driver)
        , m_socket(socket)
        , m_mask(type == Read ? CURL_CSELECT_IN : CURL_CSELECT_OUT)
        , m_driver(driver)
    {
    }

    /// Set while curl does not watch the socket: an idle kept-alive connection.
    bool parked = false;

protected:
    bool event(QEvent* event) override
    {
        if (event->type() != QEvent::SockAct && event->type() != QEvent::SockClose)
            return QSocketNotifier::event(event);
        if (parked) // the idle peer closed or spoke: curl checks the connection when it reuses it
            setEnabled(false);
        else
            m_driver->Act(m_socket, m_mask);
        return true;
    }

private:
    curl_socket_t m_socket;
    int m_mask;
    LoopDriver* m_driver;
};

LoopDriver::LoopDriver(Engine& engine)
    : m_engine(engine)
    , m_dispatcher(QAbstractEventDispatcher::instance())
{
    m_link->driver = this;
    m_timer.setSingleShot(true);
    m_timer.setTimerType(Qt::PreciseTimer);
    QObject::connect(&m_timer, &QTimer::timeout, this, [this] { Act(CURL_SOCKET_TIMEOUT, 0); });
}

LoopDriver* LoopDriver::ForThisThread(Engine& engine)
{
    QAbstractEventDispatcher* dispatcher = QAbstractEventDispatcher::instance();
    if (!dispatcher)
        return nullptr;
    if (t_driver && t_driver->m_dispatcher != dispatcher) {
        delete t_driver; // made under an application object that is gone
        t_driver = nullptr;
    }
    if (t_driver)
        return t_driver;
    auto* driver = new LoopDriver(engine);
    QThread* thread = QThread::currentThread();
    if (QCoreApplication::instance() && QCoreApplication::instance()->thread() == thread) {
        // Before the application's event dispatcher goes.
        qAddPostRoutine(&LoopDriver::DropAppThreadDriver);
    } else {
        QObject::connect(
            thread, &QThread::finished, driver,
            [driver] {
                t_driver = nullptr;
                delete driver;
            },
            Qt::DirectConnection);
    }
    t_driver = driver;
    return driver;
}

void LoopDriver::DropAppThreadDriver()
{
    delete t_driver;
    t_driver = nullptr;
}

LoopDriver::~LoopDriver()
{
    {
        std::lock_guard<std::mutex> lock(m_link->mutex);
        m_link->driver = nullptr;
    }
    if (m_multi) {
        curl_multi_setopt(m_multi, CURLMOPT_SOCKETFUNCTION, nullptr);
        curl_multi_setopt(m_multi, CURLMOPT_TIMERFUNCTION, nullptr);
    }
    // What is still running ends with its thread; nobody is left to hear of it.
    for (Handle* handle : m_running) {
        curl_multi_remove_handle(m_multi, handle->easy);
        handle->job->easy = nullptr;
        handle->job.reset();
        m_pool.push_back(handle);
    }
    // The connections close while the handles still hold their trust set (and its share).
    if (m_multi)
        curl_multi_cleanup(m_multi);
    for (Handle* handle : m_pool)
        Engine::FreeHandle(handle);
    // The watches are children of this object and go with it.
}

void LoopDriver::NewMultiFor(uint64_t generation)
{
    if (m_multi) {
        // A new trust set: the idle connections made under the old one close here.
        curl_multi_setopt(m_multi, CURLMOPT_SOCKETFUNCTION, nullptr);
        curl_multi_setopt(m_multi, CURLMOPT_TIMERFUNCTION, nullptr);
        curl_multi_cleanup(m_multi);
        while (!m_watches.empty())
            DropWatches(m_watches.begin()->first);
        m_connections.clear();
    }
    m_multi = NewMulti();
    m_generation = generation;
    curl_multi_setopt(m_multi, CURLMOPT_SOCKETFUNCTION, &LoopDriver::OnSocket);
    curl_multi_setopt(m_multi, CURLMOPT_SOCKETDATA, this);
    curl_multi_setopt(m_multi, CURLMOPT_TIMERFUNCTION, &LoopDriver::OnTimer);
    curl_multi_setopt(m_multi, CURLMOPT_TIMERDATA, this);
}

void LoopDriver::Start(std::shared_ptr<AsyncJob> job)
{
    job->driver = m_link;
    if (!m_waiting.empty())
        m_waiting.push_back(std::move(job)); // in order, behind those already waiting
    else
        Begin(std::move(job));
}

void LoopDriver::Begin(std::shared_ptr<AsyncJob> job, bool held)
{
    const std::shared_ptr<Trust> trust = m_engine.CurrentTrust();
    if (!m_multi || trust->generation != m_generation) {
        if (!m_running.empty()) {
            m_waiting.push_back(std::move(job));
            return;
        }
        NewMultiFor(trust->generation);
    }
    const std::string_view host = HostOf(job->exchange.url);
    HostLoad& load = *LoadOf(host, true);
    if (load.running >= kConnectionsPerHost || (!held && load.held > 0)) {
        ++load.held; // in order, behind those of its host already held
        m_held.push_back(std::move(job));
        return;
    }
    Handle* handle = nullptr;
    if (!m_pool.empty()) {
        handle = m_pool.back();
        m_pool.pop_back();
        if (handle->trust != trust) {
            curl_easy_setopt(handle->easy, CURLOPT_SHARE, trust->share);
            handle->trust = trust;
        }
    } else if ((handle = m_engine.NewHandle(trust))) {
        // The handle stays with this driver; its connections tell it when they open and close.
        curl_easy_setopt(handle->easy, CURLOPT_SOCKOPTFUNCTION, &LoopDriver::OnSocketOpened);
        curl_easy_setopt(handle->easy, CURLOPT_SOCKOPTDATA, this);
        curl_easy_setopt(handle->easy, CURLOPT_CLOSESOCKETFUNCTION, &LoopDriver::OnSocketClosing);
        curl_easy_setopt(handle->easy, CURLOPT_CLOSESOCKETDATA, this);
    }
    if (!handle) {
        job->outcome.netError = InternalError;
        job->Deliver(); // queued: never inside the call that started it
        return;
    }
    m_engine.Configure(*handle, job->exchange, job->outcome);
    ++load.running;
    handle->job = job;
    job->easy = handle->easy;
    handle->slot = m_running.size();
    m_running.push_back(handle);
    curl_multi_add_handle(m_multi, handle->easy);
    if (m_depth > 0 && m_running.size() == 1) {
        // Started by a slot this driver delivers to (the usual way to chain requests), with
        // nothing else in flight: sent now, while the slot's own clean-up runs, and Act reads
        // what this finished. With others in flight one drive after the slots starts them all.
        int stillRunning = 0;
        curl_multi_socket_action(m_multi, CURL_SOCKET_TIMEOUT, 0, &stillRunning);
        m_kicked = true;
    }
    // Otherwise the timer callback starts it on this loop's next pass: never inside the
    // call that started it.
}

Handle* LoopDriver::Running(CURL* easy) const
{
    Handle* handle = nullptr;
    curl_easy_getinfo(easy, CURLINFO_PRIVATE, &handle);
    return handle && handle->slot < m_running.size() && m_running[handle->slot] == handle ? handle : nullptr;
}

void LoopDriver::Release(Handle* handle)
{
    curl_multi_remove_handle(m_multi, handle->easy);
    Handle* last = m_running.back();
    m_running[handle->slot] = last;
    last->slot = handle->slot;
    m_running.pop_back();
    handle->slot = SIZE_MAX;
    if (HostLoad* load = LoadOf(HostOf(handle->url), false)) // the URL Configure gave it
        --load->running;
    handle->job.reset();
    handle->body = nullptr;
    handle->headers = nullptr;
    m_pool.push_back(handle);
}

void LoopDriver::Cancel(const std::shared_ptr<AsyncJob>& job)
{
    if (job->easy) {
        Handle* handle = Running(job->easy);
        if (handle && handle->job == job)
            Release(handle);
    }
    job->easy = nullptr;
    m_waiting.erase(std::remove(m_waiting.begin(), m_waiting.end(), job), m_waiting.end());
    const auto held = std::find(m_held.begin(), m_held.end(), job);
    if (held != m_held.end()) {
        m_held.erase(held);
        if (HostLoad* load = LoadOf(HostOf(job->exchange.url), false))
            --load->held;
    }
    StartHeld(); // what the cancelled one held back; it runs from the loop, as any start
}

void LoopDriver::DropWatches(curl_socket_t socket)
{
    auto found = m_watches.find(socket);
    if (found == m_watches.end())
        return;
    // Possibly inside this watch's own event: deleted when that is over.
    for (Watch* watch : {found->second.first, found->second.second}) {
        if (watch) {
            watch->setEnabled(false);
            watch->deleteLater();
        }
    }
    m_watches.erase(found);
}

LoopDriver::HostLoad* LoopDriver::LoadOf(std::string_view host, bool make)
{
    for (HostLoad& load : m_hosts) {
        if (load.host == host)
            return &load;
    }
    if (!make)
        return nullptr;
    if (m_hosts.size() >= 16) { // many hosts over time: forget the idle ones
        m_hosts.erase(std::remove_if(m_hosts.begin(), m_hosts.end(),
                                     [](const HostLoad& load) { return load.running == 0 && load.held == 0; }),
                      m_hosts.end());
    }
    m_hosts.push_back(HostLoad{std::string(host), 0, 0});
    return &m_hosts.back();
}

void LoopDriver::StartHeld()
{
    for (auto it = m_held.begin(); it != m_held.end();) {
        HostLoad* load = LoadOf(HostOf((*it)->exchange.url), false);
        if (!load || load->running >= kConnectionsPerHost) {
            ++it;
            continue;
        }
        --load->held;
        std::shared_ptr<AsyncJob> job = std::move(*it);
        it = m_held.erase(it);
        Begin(std::move(job), true); // never holds it again; it may wait for a new trust set
    }
}

int LoopDriver::OnSocket(CURL*, curl_socket_t socket, int what, void* user, void*)
{
    auto* self = static_cast<LoopDriver*>(user);
    if (what == CURL_POLL_REMOVE) {
        if (!self->m_connections.count(socket)) {
            self->DropWatches(socket);
            return 0;
        }
        auto found = self->m_watches.find(socket);
        if (found != self->m_watches.end()) {
            // Kept for the next exchange on this connection; a readable idle socket is
            // rare (the peer closing), so the read watch stays in the poll set.
            auto& [read, write] = found->second;
            if (read)
                read->parked = true;
            if (write)
                write->setEnabled(false);
        }
        return 0;
    }
    auto& [read, write] = self->m_watches[socket];
    const bool wantRead = what & CURL_POLL_IN;
    const bool wantWrite = what & CURL_POLL_OUT;
    if (wantRead && !read)
        read = new Watch(socket, QSocketNotifier::Read, self);
    if (wantWrite && !write)
        write = new Watch(socket, QSocketNotifier::Write, self);
    if (read) {
        read->parked = false;
        read->setEnabled(wantRead);
    }
    if (write)
        write->setEnabled(wantWrite);
    return 0;
}

int LoopDriver::OnSocketOpened(void* user, curl_socket_t socket, curlsocktype purpose)
{
    if (purpose == CURLSOCKTYPE_IPCXN)
        static_cast<LoopDriver*>(user)->m_connections.insert(socket);
    return CURL_SOCKOPT_OK;
}

int LoopDriver::OnSocketClosing(void* user, curl_socket_t socket)
{
    auto* self = static_cast<LoopDriver*>(user);
    // Out of the poll set before the number can be reused.
    self->m_connections.erase(socket);
    self->DropWatches(socket);
    return CloseSocket(socket);
}

int LoopDriver::OnTimer(CURLM*, long timeoutMs, void* user)
{
    auto* self = static_cast<LoopDriver*>(user);
    if (self->m_depth == 0)
        self->Arm(timeoutMs); // inside Act the timer is set as Act ends
    return 0;
}

void LoopDriver::Arm(long timeoutMs)
{
    if (timeoutMs < 0) {
        m_timer.stop();
        return;
    }
    const int64_t deadline = NowMs() + timeoutMs;
    // A timer that fires no later is kept: Act sets the next one from curl's own figure.
    if (m_timer.isActive() && m_armedFor <= deadline)
        return;
    m_armedFor = deadline;
    m_timer.start(static_cast<int>(std::min<long>(timeoutMs, INT_MAX)));
}

void LoopDriver::Act(curl_socket_t socket, int mask)
{
    ++m_depth;
    int stillRunning = 0;
    curl_multi_socket_action(m_multi, socket, mask, &stillRunning);
    long timeoutMs = -1;
    for (int round = 0;; ++round) {
        std::vector<std::shared_ptr<AsyncJob>> done;
        int queued = 0;
        m_kicked = false;
        while (CURLMsg* message = curl_multi_info_read(m_multi, &queued)) {
            if (message->msg != CURLMSG_DONE)
                continue;
            Handle* handle = Running(message->easy_handle);
            if (!handle)
                continue;
            std::shared_ptr<AsyncJob> job = handle->job;
            const CURLcode code = message->data.result;
            Engine::Complete(*handle, code, job->outcome, "async");
            job->easy = nullptr;
            Release(handle);
            done.push_back(std::move(job));
        }
        if (!m_held.empty() && !done.empty())
            StartHeld();
        if (m_running.empty() && !m_waiting.empty()) {
            std::deque<std::shared_ptr<AsyncJob>> waiting;
            waiting.swap(m_waiting);
            for (auto& job : waiting)
                Begin(std::move(job));
        }
        // The host's slots run from here and may start, cancel or delete requests.
        for (auto& job : done)
            job->Deliver(true);
        // What is due now (an exchange just started, or one that got a connection) goes on
        // at once, not a loop pass later; a few rounds, then the timer carries on.
        timeoutMs = -1;
        curl_multi_timeout(m_multi, &timeoutMs);
        if (round == 8)
            break;
        if (m_kicked)
            continue;
        if (timeoutMs != 0)
            break;
        curl_multi_socket_action(m_multi, CURL_SOCKET_TIMEOUT, 0, &stillRunning);
    }
    --m_depth;
    Arm(m_kicked ? 0 : timeoutMs); // what a late start finished is read on the next pass
}

void Engine::Submit(std::shared_ptr<AsyncJob> job)
{
    if (!HeadersAreClean(job->exchange.headers)) {
        qCWarning(lcNet) << "QMNet::Engine refuses a header value holding CR, LF or NUL; nothing sent";
        job->outcome.netError = InternalError;
        job->outcome.errorText = kRefusedHeader;
        job->Deliver();
        return;
    }
    // An owner in this thread, which has an event loop, gets the exchange run by that loop
    // (from when it next runs): no hand-off to the worker and back.
    if (job->target && job->target->thread() == QThread::currentThread()) {
        if (LoopDriver* driver = LoopDriver::ForThisThread(*this)) {
            driver->Start(std::move(job));
            return;
        }
    }
    std::lock_guard<std::mutex> lock(d->queueMutex);
    d->pending.push_back(std::move(job));
    curl_multi_wakeup(d->multi);
}

void Engine::Cancel(const std::shared_ptr<AsyncJob>& job)
{
    if (const std::shared_ptr<DriverLink> link = job->driver) {
        std::lock_guard<std::mutex> lock(link->mutex);
        LoopDriver* driver = link->driver;
        if (!driver)
            return; // its thread has ended, and the exchange with it
        if (driver->thread() == QThread::currentThread())
            driver->Cancel(job);
        else // the link's lock keeps the driver alive while the call is posted
            QMetaObject::invokeMethod(
                driver, QMCompat::Queued([driver, job] { driver->Cancel(job); }), Qt::QueuedConnection);
        return;
    }
    std::lock_guard<std::mutex> lock(d->queueMutex);
    d->cancelled.push_back(job);
    curl_multi_wakeup(d->multi);
}

void Engine::RunAsyncLoop()
{
    auto release = [&](Handle* handle) {
        curl_multi_remove_handle(d->multi, handle->easy);
        d->running.erase(handle->easy);
        handle->job.reset();
        handle->body = nullptr;
        handle->headers = nullptr;
        d->asyncPool.push_back(handle);
    };

    std::deque<std::shared_ptr<AsyncJob>> waiting; // for the transfers of the old trust set to end
    while (!d->stopping) {
        std::deque<std::shared_ptr<AsyncJob>> starting;
        std::vector<std::shared_ptr<AsyncJob>> cancelling;
        {
            std::lock_guard<std::mutex> lock(d->queueMutex);
            starting.swap(d->pending);
            cancelling.swap(d->cancelled);
        }
        for (auto& job : cancelling) {
            if (job->easy) {
                auto found = d->running.find(job->easy);
                if (found != d->running.end() && found->second->job == job)
                    release(found->second);
            }
            job->easy = nullptr;
        }
        if (!waiting.empty()) {
            starting.insert(starting.begin(), waiting.begin(), waiting.end());
            waiting.clear();
        }
        std::shared_ptr<Trust> trust;
        if (!starting.empty())
            trust = CurrentTrust();
        for (auto& job : starting) {
            {
                std::lock_guard<std::mutex> lock(job->mutex);
                if (!job->target)
                    continue; // cancelled before it started
            }
            if (trust->generation != d->multiGeneration) {
                if (!d->running.empty()) {
                    waiting.push_back(job);
                    continue;
                }
                // A new trust set: the idle connections made under the old one close here.
                std::lock_guard<std::mutex> lock(d->queueMutex);
                curl_multi_cleanup(d->multi);
                d->multi = NewMulti();
                d->multiGeneration = trust->generation;
            }
            Handle* handle = nullptr;
            if (!d->asyncPool.empty()) {
                handle = d->asyncPool.back();
                d->asyncPool.pop_back();
                if (handle->trust != trust) {
                    curl_easy_setopt(handle->easy, CURLOPT_SHARE, trust->share);
                    handle->trust = trust;
                }
            } else {
                handle = NewHandle(trust);
            }
            if (!handle) {
                job->outcome.netError = InternalError;
                job->Deliver();
                continue;
            }
            Configure(*handle, job->exchange, job->outcome);
            handle->job = job;
            job->easy = handle->easy;
            d->running[handle->easy] = handle;
            curl_multi_add_handle(d->multi, handle->easy);
        }

        int stillRunning = 0;
        curl_multi_perform(d->multi, &stillRunning);
        int queued = 0;
        while (CURLMsg* message = curl_multi_info_read(d->multi, &queued)) {
            if (message->msg != CURLMSG_DONE)
                continue;
            auto found = d->running.find(message->easy_handle);
            if (found == d->running.end())
                continue;
            Handle* handle = found->second;
            std::shared_ptr<AsyncJob> job = handle->job;
            const CURLcode code = message->data.result;
            Complete(*handle, code, job->outcome, "async");
            job->easy = nullptr;
            release(handle);
            job->Deliver();
        }
        if (!waiting.empty() && d->running.empty())
            continue; // the old trust set's transfers are done: start the waiting ones now
        curl_multi_poll(d->multi, nullptr, 0, 1000, nullptr);
    }
}

void AsyncJob::Deliver(bool here)
{
    std::unique_lock<std::mutex> lock(mutex);
    if (!target)
        return;
    CHttpRequest* owner = target;
    if (here && owner->thread() == QThread::currentThread()) {
        // Only this thread deletes the owner, and not while this call runs.
        lock.unlock();
        owner->DeliverAsync(std::move(outcome));
        return;
    }
    // Queued to the owner's thread; Qt drops the call if the owner dies before it runs.
    // The functor alone holds the outcome: this thread keeps nothing the owner reads.
    QMetaObject::invokeMethod(
        owner,
        QMCompat::Queued([owner, result = std::move(outcome)]() mutable { owner->DeliverAsync(std::move(result)); }),
        Qt::QueuedConnection);
}

} // namespace QMNet
