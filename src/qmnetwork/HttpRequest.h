#pragma once

#include <QObject>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "qmmemberwebservice_export.h"

namespace QMNet {

/// Numbers reported by CHttpRequest::GetNetLastError() and ErrorAsync when an
/// exchange did not complete. They follow the WinINet numbering that hosts of
/// the Windows build already know. An exchange that completed with a non-2xx
/// HTTP status reports that status instead (so a 499 reply reads 499).
enum NetError : unsigned int {
    NoError = 0,
    Timeout = 12002,             ///< the time limit ran out
    InternalError = 12004,       ///< any other transport failure
    InvalidUrl = 12005,          ///< host or path do not form an https URL
    NameNotResolved = 12007,     ///< the host name could not be resolved
    Cancelled = 12017,           ///< the request object went away first
    CannotConnect = 12029,       ///< connection refused or unreachable
    ConnectionAborted = 12030,   ///< the server dropped or reset the connection
    InvalidCertificate = 12045,  ///< the server's certificate is not trusted
    InvalidServerResponse = 12152, ///< the reply was not HTTP
    SecureChannelError = 12157,  ///< the TLS handshake failed for another reason
};

struct Outcome;
struct AsyncJob;

} // namespace QMNet

/// One HTTPS exchange at a time with a member-service host.
///
/// Synchronous calls block the calling thread (never running its event
/// loop); asynchronous calls end with FinishedAsync or ErrorAsync, delivered
/// in the thread that owns this object. Connections and TLS sessions are
/// kept across request objects.
///
/// Unnamed switches of the original interface are named here: \c useProxy
/// (system proxy and stored proxy account), \c referer, \c extraHeaders
/// (CRLF-separated "Name: value" lines) and \c followRedirects.
class QMMEMBERWEBSERVICE_EXPORT CHttpRequest : public QObject
{
    Q_OBJECT

public:
    explicit CHttpRequest(QObject* parent = nullptr, bool sync = true);
    ~CHttpRequest() override;

    void AddRawHeader(const std::wstring& name, const std::wstring& value);

    bool PostSync(const wchar_t* host, const wchar_t* path, const char* body, std::wstring& reply,
                  std::wstring& replyHeaders, unsigned int timeoutMs, bool useProxy, const wchar_t* contentType,
                  const wchar_t* extraHeaders, bool followRedirects);
    bool GetSync(const wchar_t* host, const wchar_t* path, std::wstring& reply, std::wstring& replyHeaders,
                 const wchar_t* referer, unsigned int timeoutMs, bool useProxy, const wchar_t* contentType,
                 const wchar_t* extraHeaders, bool followRedirects = false);
    bool HeadSync(const wchar_t* host, const wchar_t* path, std::wstring& reply, std::wstring& replyHeaders,
                  unsigned int timeoutMs, bool useProxy, const wchar_t* referer, const wchar_t* extraHeaders,
                  bool followRedirects);
    void PostAsync(std::wstring host, std::wstring path, std::string body, unsigned int timeoutMs, bool useProxy,
                   std::wstring contentType, std::wstring extraHeaders, bool followRedirects);
    void GetAsync(std::wstring host, std::wstring path, unsigned int timeoutMs, bool useProxy,
                  std::wstring contentType);

    std::wstring GetReturnData() const;
    /// With \a bytes true the next exchanges leave their wide reply empty (a sync call's \a reply
    /// argument, FinishedAsync's argument), and the body is taken as received with
    /// TakeReturnBytes: a large UTF-8 reply is not widened.
    void SetReplyAsBytes(bool bytes) { m_bReplyAsBytes = bytes; }
    /// The body of the last exchange as received, moved out: GetReturnData is empty after.
    std::string TakeReturnBytes();
    unsigned int GetNetLastError() const { return m_nLastError; }
    /// The HTTP status of the last completed exchange, 0 when none completed.
    int GetHttpStatus() const { return m_nHttpStatus; }
    std::wstring GetProxyAccount() const { return m_strProxyAccount; }
    std::wstring GetProxyPW() const { return m_strProxyPassword; }
    /// The per-request switch of the token calls; kept for the host's inspection.
    void SetRequestFlag(bool flag) { m_bRequestFlag = flag; }
    bool GetRequestFlag() const { return m_bRequestFlag; }
    bool IsSync() const { return m_bSync; }
    /// Method and URL of the last exchange, for diagnostics; holds no header values.
    std::wstring GetParameters() const;

    /// The error number and libcurl's words for the last exchange that finished in the calling
    /// thread (sync calls: the caller's thread; async ones: the owner's). 0 and "" after success.
    static unsigned int LastThreadError();
    static std::string LastThreadErrorText();

    /// Stops an exchange in flight and disposes of this object in its own thread.
    void EndSocketThread();

signals:
    void FinishedAsync(std::wstring reply);
    void ErrorAsync(unsigned int error);

private:
    bool Perform(const char* method, const wchar_t* host, const wchar_t* path, const char* body, size_t bodySize,
                 const wchar_t* contentType, const wchar_t* extraHeaders, unsigned int timeoutMs, bool useProxy,
                 bool followRedirects, std::wstring* reply, std::wstring* replyHeaders);
    void StartAsync(const char* method, const std::wstring& host, const std::wstring& path, std::string body,
                    const std::wstring& contentType, const std::wstring& extraHeaders, unsigned int timeoutMs,
                    bool useProxy, bool followRedirects);
    void ApplyOutcome(QMNet::Outcome&& outcome);
    void DeliverAsync(QMNet::Outcome&& outcome);
    void DetachJob();

    bool m_bSync;
    bool m_bRequestFlag = true;
    bool m_bReplyAsBytes = false;
    std::vector<std::pair<std::string, std::string>> m_kHeaders;
    std::string m_kReplyBody;
    mutable std::wstring m_strReply; // m_kReplyBody as wide text, made when first asked for
    mutable bool m_bReplyConverted = false;
    unsigned int m_nLastError = 0;
    int m_nHttpStatus = 0;
    std::wstring m_strProxyAccount;
    std::wstring m_strProxyPassword;
    std::string m_strLastMethod;
    std::string m_strLastUrl;
    std::shared_ptr<QMNet::AsyncJob> m_pJob;

    friend struct QMNet::AsyncJob;
};
