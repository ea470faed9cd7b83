#include "CurlEngine.h"

#include "HttpRequest.h"

#include <QLoggingCategory>
#include <QMetaObject>

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <map>
#include <thread>

Q_LOGGING_CATEGORY(lcNet, "qm.network")

namespace QMNet {

namespace {

size_t AppendBody(char* data, size_t size, size_t count, void* user)
{
    static_cast<std::string*>(user)->append(data, size * count);
    return size * count;
}

// Trusted in addition to the system's store, for local servers with their own CA.
struct ExtraCA {
    std::mutex mutex;
    std::string path;
    bool fromEnvironment = true;
    std::vector<X509*> certificates;

    void Load(const std::string& file)
    {
        for (X509* cert : certificates)
            X509_free(cert);
        certificates.clear();
        path = file;
        if (file.empty())
            return;
        FILE* fp = std::fopen(file.c_str(), "rb");
        if (!fp) {
            qCWarning(lcNet) << "QMNet::Engine cannot read CA file" << QString::fromStdString(file);
            return;
        }
        while (X509* cert = PEM_read_X509(fp, nullptr, nullptr, nullptr))
            certificates.push_back(cert);
        std::fclose(fp);
        ERR_clear_error();
    }
};

CURLcode AddExtraCA(CURL*, void* sslContext, void* user)
{
    auto* ca = static_cast<ExtraCA*>(user);
    std::lock_guard<std::mutex> lock(ca->mutex);
    X509_STORE* store = SSL_CTX_get_cert_store(static_cast<SSL_CTX*>(sslContext));
    for (X509* cert : ca->certificates)
        X509_STORE_add_cert(store, cert); // a duplicate is refused harmlessly
    ERR_clear_error();
    return CURLE_OK;
}

} // namespace

struct Engine::Impl {
    CURLSH* share = nullptr;
    std::array<std::mutex, CURL_LOCK_DATA_LAST> shareLocks;

    std::mutex poolMutex;
    std::vector<CURL*> pool;

    ExtraCA extraCA;

    // Asynchronous exchanges run on one worker thread through a multi handle.
    CURLM* multi = nullptr;
    std::thread worker;
    std::mutex queueMutex;
    std::deque<std::shared_ptr<AsyncJob>> pending;
    std::vector<std::shared_ptr<AsyncJob>> cancelled;
    std::map<CURL*, std::shared_ptr<AsyncJob>> running;
    std::vector<CURL*> asyncPool;
    std::atomic<bool> stopping{false};
    std::array<char, CURL_ERROR_SIZE> asyncErrors{};
};

Engine& Engine::Instance()
{
    // Never destroyed: a host may exit while a request is in flight on another thread,
    // and curl must not be torn down under it.
    static Engine* engine = new Engine;
    return *engine;
}

Engine::Engine()
    : d(std::make_unique<Impl>())
{
    curl_global_init(CURL_GLOBAL_DEFAULT);
    d->share = curl_share_init();
    curl_share_setopt(d->share, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
    curl_share_setopt(d->share, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
    curl_share_setopt(d->share, CURLSHOPT_USERDATA, d.get());
    curl_share_setopt(d->share, CURLSHOPT_LOCKFUNC,
                      +[](CURL*, curl_lock_data data, curl_lock_access, void* user) {
                          static_cast<Impl*>(user)->shareLocks[data].lock();
                      });
    curl_share_setopt(d->share, CURLSHOPT_UNLOCKFUNC, +[](CURL*, curl_lock_data data, void* user) {
        static_cast<Impl*>(user)->shareLocks[data].unlock();
    });

    d->multi = curl_multi_init();
    // Few connections per host, so queued transfers wait for a kept-alive one.
    curl_multi_setopt(d->multi, CURLMOPT_MAX_HOST_CONNECTIONS, 8L);
    curl_multi_setopt(d->multi, CURLMOPT_MAXCONNECTS, 16L);
    d->worker = std::thread([this] { RunAsyncLoop(); });
}

void Engine::SetExtraCAFile(const std::string& path)
{
    std::lock_guard<std::mutex> lock(d->extraCA.mutex);
    d->extraCA.fromEnvironment = false;
    d->extraCA.Load(path);
}

std::string Engine::ExtraCAFile()
{
    std::lock_guard<std::mutex> lock(d->extraCA.mutex);
    if (d->extraCA.fromEnvironment) {
        const char* env = std::getenv("QM_CA_FILE");
        const std::string path = env ? env : "";
        if (path != d->extraCA.path || (d->extraCA.certificates.empty() && !path.empty()))
            d->extraCA.Load(path);
    }
    return d->extraCA.path;
}

// A pooled handle keeps the options every exchange shares; only what differs
// is set per exchange (a full reset costs more than the exchange's own work).
void Engine::ConfigureOnce(CURL* easy)
{
    curl_easy_setopt(easy, CURLOPT_SHARE, d->share);
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "https");
    curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "https");
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_TCP_NODELAY, 1L);
    curl_easy_setopt(easy, CURLOPT_TCP_KEEPALIVE, 1L);
    // Verification is never switched off; a local CA is added, not substituted.
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &AppendBody);
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &AppendBody);
}

void Engine::Configure(CURL* easy, const Exchange& exchange, Outcome& outcome, char* errorBuffer)
{
    curl_easy_setopt(easy, CURLOPT_URL, exchange.url.c_str());
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, errorBuffer);
    const bool extraCA = !ExtraCAFile().empty();
    curl_easy_setopt(easy, CURLOPT_SSL_CTX_FUNCTION, extraCA ? &AddExtraCA : nullptr);
    curl_easy_setopt(easy, CURLOPT_SSL_CTX_DATA, extraCA ? &d->extraCA : nullptr);
    curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, exchange.timeoutMs);
    const long connectLimit = exchange.timeoutMs > 0 && exchange.timeoutMs < 30000 ? exchange.timeoutMs : 30000L;
    curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, connectLimit);
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, exchange.followRedirects ? 1L : 0L);
    // An empty proxy turns the environment's proxy off; null leaves it to curl.
    curl_easy_setopt(easy, CURLOPT_PROXY, exchange.useProxy ? nullptr : "");
    const bool credentials = exchange.useProxy && !exchange.proxyUser.empty();
    curl_easy_setopt(easy, CURLOPT_PROXYUSERNAME, credentials ? exchange.proxyUser.c_str() : nullptr);
    curl_easy_setopt(easy, CURLOPT_PROXYPASSWORD, credentials ? exchange.proxyPassword.c_str() : nullptr);
    if (exchange.method == "POST") {
        curl_easy_setopt(easy, CURLOPT_POST, 1L);
        curl_easy_setopt(easy, CURLOPT_POSTFIELDS, exchange.body.data());
        curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(exchange.body.size()));
    } else if (exchange.method == "HEAD") {
        curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
    } else {
        curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
    }
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, &outcome.body);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, &outcome.headers);
}

namespace {

struct HeaderList {
    HeaderList() = default;
    explicit HeaderList(const std::vector<std::string>& lines) { Set(lines); }
    HeaderList(const HeaderList&) = delete;
    HeaderList& operator=(const HeaderList&) = delete;
    ~HeaderList() { curl_slist_free_all(list); }
    void Set(const std::vector<std::string>& lines)
    {
        for (const std::string& line : lines)
            list = curl_slist_append(list, line.c_str());
    }
    curl_slist* list = nullptr;
};

void Finish(CURL* easy, CURLcode code, Outcome& outcome)
{
    if (code == CURLE_OK) {
        curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &outcome.httpStatus);
        outcome.completed = true;
        outcome.netError = outcome.httpStatus >= 200 && outcome.httpStatus < 300
                               ? 0u
                               : static_cast<unsigned int>(outcome.httpStatus);
    } else {
        outcome.completed = false;
        outcome.body.clear();
    }
}

} // namespace

unsigned int Engine::MapError(CURLcode code)
{
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

Outcome Engine::Perform(const Exchange& exchange)
{
    CURL* easy = nullptr;
    {
        std::lock_guard<std::mutex> lock(d->poolMutex);
        if (!d->pool.empty()) {
            easy = d->pool.back();
            d->pool.pop_back();
        }
    }
    if (!easy) {
        easy = curl_easy_init();
        if (easy)
            ConfigureOnce(easy);
    }
    Outcome outcome;
    if (!easy) {
        outcome.netError = InternalError;
        return outcome;
    }
    char errorBuffer[CURL_ERROR_SIZE] = {};
    HeaderList headers(exchange.headers);
    Configure(easy, exchange, outcome, errorBuffer);
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers.list);
    const CURLcode code = curl_easy_perform(easy);
    Finish(easy, code, outcome);
    if (code != CURLE_OK) {
        outcome.netError = MapError(code);
        outcome.errorText = errorBuffer[0] ? errorBuffer : curl_easy_strerror(code);
        qCDebug(lcNet) << "QMNet::Engine::Perform" << curl_easy_strerror(code) << errorBuffer;
    }
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, nullptr);
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, nullptr);
    {
        std::lock_guard<std::mutex> lock(d->poolMutex);
        d->pool.push_back(easy);
    }
    return outcome;
}

void Engine::Submit(std::shared_ptr<AsyncJob> job)
{
    {
        std::lock_guard<std::mutex> lock(d->queueMutex);
        d->pending.push_back(std::move(job));
    }
    curl_multi_wakeup(d->multi);
}

void Engine::Cancel(const std::shared_ptr<AsyncJob>& job)
{
    {
        std::lock_guard<std::mutex> lock(d->queueMutex);
        d->cancelled.push_back(job);
    }
    curl_multi_wakeup(d->multi);
}

void Engine::RunAsyncLoop()
{
    struct Running {
        HeaderList headers;
        char errors[CURL_ERROR_SIZE] = {};
    };
    std::map<CURL*, std::unique_ptr<Running>> extras;

    auto release = [&](CURL* easy) {
        curl_multi_remove_handle(d->multi, easy);
        extras.erase(easy);
        d->running.erase(easy);
        d->asyncPool.push_back(easy);
    };

    while (!d->stopping) {
        std::deque<std::shared_ptr<AsyncJob>> starting;
        std::vector<std::shared_ptr<AsyncJob>> cancelling;
        {
            std::lock_guard<std::mutex> lock(d->queueMutex);
            starting.swap(d->pending);
            cancelling.swap(d->cancelled);
        }
        for (auto& job : cancelling) {
            if (job->easy && d->running.count(job->easy))
                release(job->easy);
            job->easy = nullptr;
        }
        for (auto& job : starting) {
            {
                std::lock_guard<std::mutex> lock(job->mutex);
                if (!job->target)
                    continue; // cancelled before it started
            }
            CURL* easy = nullptr;
            if (!d->asyncPool.empty()) {
                easy = d->asyncPool.back();
                d->asyncPool.pop_back();
            } else if ((easy = curl_easy_init())) {
                ConfigureOnce(easy);
            }
            if (!easy) {
                job->outcome.netError = InternalError;
                job->Deliver();
                continue;
            }
            auto extra = std::make_unique<Running>();
            extra->headers.Set(job->exchange.headers);
            Configure(easy, job->exchange, job->outcome, extra->errors);
            curl_easy_setopt(easy, CURLOPT_HTTPHEADER, extra->headers.list);
            job->easy = easy;
            extras[easy] = std::move(extra);
            d->running[easy] = job;
            curl_multi_add_handle(d->multi, easy);
        }

        int stillRunning = 0;
        curl_multi_perform(d->multi, &stillRunning);
        int queued = 0;
        while (CURLMsg* message = curl_multi_info_read(d->multi, &queued)) {
            if (message->msg != CURLMSG_DONE)
                continue;
            CURL* easy = message->easy_handle;
            auto found = d->running.find(easy);
            if (found == d->running.end())
                continue;
            std::shared_ptr<AsyncJob> job = found->second;
            const CURLcode code = message->data.result;
            Finish(easy, code, job->outcome);
            if (code != CURLE_OK) {
                job->outcome.netError = MapError(code);
                job->outcome.errorText = extras[easy]->errors[0] ? extras[easy]->errors : curl_easy_strerror(code);
                qCDebug(lcNet) << "QMNet::Engine async" << curl_easy_strerror(code) << extras[easy]->errors;
            }
            job->easy = nullptr;
            release(easy);
            job->Deliver();
        }
        curl_multi_poll(d->multi, nullptr, 0, 1000, nullptr);
    }
}

void AsyncJob::Deliver()
{
    std::lock_guard<std::mutex> lock(mutex);
    if (!target)
        return;
    // Queued to the owner's thread; Qt drops the call if the owner dies before it runs.
    CHttpRequest* owner = target;
    Outcome result = std::move(outcome);
    QMetaObject::invokeMethod(
        owner, [owner, result]() { owner->DeliverAsync(result); }, Qt::QueuedConnection);
}

} // namespace QMNet
