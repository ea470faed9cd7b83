#include "HttpRequest.h"

#include "CurlEngine.h"
#include "QMNetworkCenter.h"
#include "TextConvert.h"
#include "TransportError.h"

#include <QString>

#include <cwchar>
#include <string_view>

using QMNet::Engine;

namespace {

std::string Utf8(const wchar_t* text)
{
    return text ? QMText::ToUtf8(text, std::wcslen(text)) : std::string();
}

std::string Utf8(const std::wstring& text)
{
    return QMText::ToUtf8(text);
}

std::wstring Wide(const std::string& bytes)
{
    return QMText::FromUtf8(bytes.data(), bytes.size());
}

} // namespace

CHttpRequest::CHttpRequest(QObject* parent, bool sync)
    : QObject(parent)
    , m_bSync(sync)
{
}

CHttpRequest::~CHttpRequest()
{
    DetachJob();
}

void CHttpRequest::AddRawHeader(const std::wstring& name, const std::wstring& value)
{
    if (m_kHeaders.capacity() == 0)
        m_kHeaders.reserve(8); // a service request sends five or six
    m_kHeaders.emplace_back(Utf8(name), Utf8(value));
}

bool CHttpRequest::PostSync(const wchar_t* host, const wchar_t* path, const char* body, std::wstring& reply,
                            std::wstring& replyHeaders, unsigned int timeoutMs, bool useProxy,
                            const wchar_t* contentType, const wchar_t* extraHeaders, bool followRedirects)
{
    return Perform("POST", host, path, body, body ? std::char_traits<char>::length(body) : 0, contentType,
                   extraHeaders, timeoutMs, useProxy, followRedirects, &reply, &replyHeaders);
}

bool CHttpRequest::GetSync(const wchar_t* host, const wchar_t* path, std::wstring& reply, std::wstring& replyHeaders,
                           const wchar_t* referer, unsigned int timeoutMs, bool useProxy, const wchar_t* contentType,
                           const wchar_t* extraHeaders, bool followRedirects)
{
    if (referer && *referer)
        AddRawHeader(L"Referer", referer);
    return Perform("GET", host, path, nullptr, 0, contentType, extraHeaders, timeoutMs, useProxy, followRedirects,
                   &reply, &replyHeaders);
}

bool CHttpRequest::HeadSync(const wchar_t* host, const wchar_t* path, std::wstring& reply, std::wstring& replyHeaders,
                            unsigned int timeoutMs, bool useProxy, const wchar_t* referer,
                            const wchar_t* extraHeaders, bool followRedirects)
{
    if (referer && *referer)
        AddRawHeader(L"Referer", referer);
    return Perform("HEAD", host, path, nullptr, 0, nullptr, extraHeaders, timeoutMs, useProxy, followRedirects,
                   &reply, &replyHeaders);
}

void CHttpRequest::PostAsync(std::wstring host, std::wstring path, std::string body, unsigned int timeoutMs,
                             bool useProxy, std::wstring contentType, std::wstring extraHeaders, bool followRedirects)
{
    StartAsync("POST", host, path, std::move(body), contentType, extraHeaders, timeoutMs, useProxy, followRedirects);
}

void CHttpRequest::GetAsync(std::wstring host, std::wstring path, unsigned int timeoutMs, bool useProxy,
                            std::wstring contentType)
{
    StartAsync("GET", host, path, std::string(), contentType, std::wstring(), timeoutMs, useProxy, false);
}

std::wstring CHttpRequest::GetReturnData() const
{
    if (!m_bReplyConverted) {
        m_strReply = Wide(m_kReplyBody);
        m_bReplyConverted = true;
    }
    return m_strReply;
}

std::string CHttpRequest::TakeReturnBytes()
{
    std::string body = std::move(m_kReplyBody);
    m_kReplyBody.clear();
    std::wstring().swap(m_strReply);
    m_bReplyConverted = false;
    return body;
}

std::wstring CHttpRequest::GetParameters() const
{
    return QString::fromStdString(m_strLastMethod + " " + m_strLastUrl).toStdWString();
}

void CHttpRequest::EndSocketThread()
{
    DetachJob();
    deleteLater();
}

namespace {

// Builds the exchange shared by the sync and async roads.
QMNet::Exchange MakeExchange(const char* method, const std::string& host, const std::string& path,
                             const std::vector<std::pair<std::string, std::string>>& headers,
                             const std::string& contentType, const std::string& extraHeaders, unsigned int timeoutMs,
                             bool useProxy, bool followRedirects, std::wstring& proxyAccount,
                             std::wstring& proxyPassword)
{
    QMNet::Exchange exchange;
    exchange.method = method;
    // Each line built in one allocation: a request makes a handful of them.
    exchange.url.reserve(8 + host.size() + path.size());
    exchange.url.append("https://").append(host).append(path);
    exchange.timeoutMs = static_cast<long>(timeoutMs);
    exchange.useProxy = useProxy;
    exchange.followRedirects = followRedirects;
    exchange.headers.reserve(headers.size() + 3);
    const auto line = [&exchange](std::string_view name, std::string_view separator, std::string_view value) {
        std::string& text = exchange.headers.emplace_back();
        text.reserve(name.size() + separator.size() + value.size());
        text.append(name).append(separator).append(value);
    };
    for (const auto& [name, value] : headers) {
        // "Name;" is how curl sends a header with an empty value.
        line(name, value.empty() ? ";" : ": ", value);
    }
    if (!contentType.empty())
        line("Content-Type", ": ", contentType);
    // No 100-continue round trip before larger bodies.
    exchange.headers.emplace_back("Expect:");
    size_t start = 0;
    while (start < extraHeaders.size()) {
        size_t end = extraHeaders.find("\r\n", start);
        if (end == std::string::npos)
            end = extraHeaders.size();
        if (end > start)
            exchange.headers.push_back(extraHeaders.substr(start, end - start));
        start = end + 2;
    }
    if (useProxy) {
        CQMNetworkCenter::GetProxyData(proxyAccount, proxyPassword, true);
        exchange.proxyUser = Utf8(proxyAccount);
        exchange.proxyPassword = Utf8(proxyPassword);
    }
    return exchange;
}

} // namespace

bool CHttpRequest::Perform(const char* method, const wchar_t* host, const wchar_t* path, const char* body,
                           size_t bodySize, const wchar_t* contentType, const wchar_t* extraHeaders,
                           unsigned int timeoutMs, bool useProxy, bool followRedirects, std::wstring* reply,
                           std::wstring* replyHeaders)
{
    QMNet::Exchange exchange = MakeExchange(method, Utf8(host), Utf8(path), m_kHeaders, Utf8(contentType),
                                            Utf8(extraHeaders), timeoutMs, useProxy, followRedirects,
                                            m_strProxyAccount, m_strProxyPassword);
    if (body)
        exchange.body.assign(body, bodySize);
    m_kHeaders.clear();
    m_strLastMethod = exchange.method;
    m_strLastUrl = exchange.url;
    QMNet::Outcome outcome = Engine::Instance().Perform(exchange);
    if (replyHeaders)
        *replyHeaders = Wide(outcome.headers);
    const bool completed = outcome.completed;
    ApplyOutcome(std::move(outcome));
    // Straight into the caller's string: a large reply is not also kept wide here (GetReturnData
    // makes that copy only when asked).
    if (reply)
        *reply = m_bReplyAsBytes ? std::wstring() : Wide(m_kReplyBody);
    return completed;
}

void CHttpRequest::StartAsync(const char* method, const std::wstring& host, const std::wstring& path,
                              std::string body, const std::wstring& contentType, const std::wstring& extraHeaders,
                              unsigned int timeoutMs, bool useProxy, bool followRedirects)
{
    DetachJob();
    auto job = std::make_shared<QMNet::AsyncJob>();
    job->exchange = MakeExchange(method, Utf8(host), Utf8(path), m_kHeaders, Utf8(contentType), Utf8(extraHeaders),
                                 timeoutMs, useProxy, followRedirects, m_strProxyAccount, m_strProxyPassword);
    job->exchange.body = std::move(body);
    job->target = this;
    m_kHeaders.clear();
    m_strLastMethod = job->exchange.method;
    m_strLastUrl = job->exchange.url;
    m_pJob = job;
    Engine::Instance().Submit(std::move(job));
}

void CHttpRequest::ApplyOutcome(QMNet::Outcome&& outcome)
{
    m_kReplyBody = std::move(outcome.body);
    m_bReplyConverted = false;
    m_nLastError = outcome.netError;
    m_nHttpStatus = outcome.completed ? static_cast<int>(outcome.httpStatus) : 0;
    QMNet::RecordThreadError(outcome);
}

void CHttpRequest::DeliverAsync(QMNet::Outcome&& outcome)
{
    m_pJob.reset();
    const bool completed = outcome.completed;
    const unsigned int error = outcome.netError;
    ApplyOutcome(std::move(outcome));
    if (completed)
        emit FinishedAsync(m_bReplyAsBytes ? std::wstring() : GetReturnData());
    else
        emit ErrorAsync(error);
}

void CHttpRequest::DetachJob()
{
    if (!m_pJob)
        return;
    {
        std::lock_guard<std::mutex> lock(m_pJob->mutex);
        m_pJob->target = nullptr;
    }
    Engine::Instance().Cancel(m_pJob);
    m_pJob.reset();
}
