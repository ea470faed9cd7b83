#pragma once

#include <curl/curl.h>

#include "qmmemberwebservice_export.h"

#include <QObject>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

class CHttpRequest;

namespace QMNet {

/// Everything one exchange needs, copied out of the request object so that the
/// async worker never touches it.
struct Exchange {
    std::string method; // "GET", "POST" or "HEAD"
    std::string url;
    std::string body;
    std::vector<std::string> headers; // "Name: value" lines
    long timeoutMs = 0;
    bool useProxy = true;
    bool followRedirects = false;
    std::string proxyUser;
    std::string proxyPassword;
};

struct Outcome {
    bool completed = false;
    long httpStatus = 0;
    unsigned int netError = 0;
    std::string errorText; // libcurl's words for a failed exchange
    std::string body;
    std::string headers;
};

struct DriverLink;

/// An asynchronous exchange in flight. The owner clears \c target under
/// \c mutex before it dies, so the worker never posts to a dead object.
struct AsyncJob {
    Exchange exchange;
    Outcome outcome;
    std::mutex mutex;
    CHttpRequest* target = nullptr;
    CURL* easy = nullptr;
    /// Set when the owner's own event loop runs the exchange (see LoopDriver).
    std::shared_ptr<DriverLink> driver;
    /// Hands the outcome to the owner in its thread: at once when \p here is set and
    /// the caller is in that thread, otherwise as a queued call.
    void Deliver(bool here = false);
};

/// Used for a time limit of 0 or below.
constexpr long kDefaultTimeoutMs = 30000;
/// Replies larger than this fail as malformed unless the host sets another limit.
constexpr int64_t kDefaultMaxReplyBytes = int64_t(64) << 20;

struct Trust;
struct Handle;

class QMMEMBERWEBSERVICE_EXPORT Engine
{
public:
    static Engine& Instance();

    /// Runs one exchange on the calling thread with a pooled handle, so the
    /// handle's live connection serves the next request object too.
    Outcome Perform(const Exchange& exchange);
    void Submit(std::shared_ptr<AsyncJob> job);
    void Cancel(const std::shared_ptr<AsyncJob>& job);

    void SetExtraCAFile(const std::string& path);
    std::string ExtraCAFile();

    void SetMaxReplyBytes(int64_t bytes);
    int64_t MaxReplyBytes() const { return m_maxReply.load(std::memory_order_relaxed); }

    /// Closes the kept connections of the synchronous road; TLS sessions stay.
    void DropConnections();

    // Lives for the whole process (see Instance()).
    ~Engine() = delete;

private:
    Engine();
    std::shared_ptr<Trust> CurrentTrust();
    std::shared_ptr<Trust> MakeTrust(const std::string& extraFile);
    Handle* NewHandle(const std::shared_ptr<Trust>& trust);
    static void FreeHandle(Handle* handle);
    void Configure(Handle& handle, const Exchange& exchange, Outcome& outcome);
    static unsigned int MapError(CURLcode code, const Handle& handle);
    static std::string ErrorText(CURLcode code, const Handle& handle);
    /// Fills \a outcome from a finished exchange: status, or the error code and its text.
    static void Complete(const Handle& handle, CURLcode code, Outcome& outcome, const char* road);
    void RunAsyncLoop();

    friend class LoopDriver;

    std::atomic<int64_t> m_maxReply{kDefaultMaxReplyBytes};

    struct Impl;
    std::unique_ptr<Impl> d;
};

} // namespace QMNet
