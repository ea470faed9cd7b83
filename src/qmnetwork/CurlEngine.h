#pragma once

#include <curl/curl.h>

#include <QObject>

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

/// An asynchronous exchange in flight. The owner clears \c target under
/// \c mutex before it dies, so the worker never posts to a dead object.
struct AsyncJob {
    Exchange exchange;
    Outcome outcome;
    std::mutex mutex;
    CHttpRequest* target = nullptr;
    CURL* easy = nullptr;
    std::string curlError;
    void Deliver();
};

class Engine
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

    // Lives for the whole process (see Instance()).
    ~Engine() = delete;

private:
    Engine();
    void ConfigureOnce(CURL* easy);
    void Configure(CURL* easy, const Exchange& exchange, Outcome& outcome, char* errorBuffer);
    static unsigned int MapError(CURLcode code);
    void RunAsyncLoop();

    struct Impl;
    std::unique_ptr<Impl> d;
};

} // namespace QMNet
