#pragma once

#include <QLoggingCategory>
#include <QString>

#include <string>

Q_DECLARE_LOGGING_CATEGORY(lcService)

class CHttpRequest;
class CQMMemberWebService;

// A request made through ServiceHttpRequest and released, in its own thread,
// on every way out of the call that made it.
class CQMRequestGuard
{
public:
    CQMRequestGuard(CQMMemberWebService* service, const QString& caller, bool sync);
    ~CQMRequestGuard();
    CQMRequestGuard(const CQMRequestGuard&) = delete;
    CQMRequestGuard& operator=(const CQMRequestGuard&) = delete;

    CHttpRequest* Get() const { return m_request; }
    CHttpRequest* operator->() const { return m_request; }
    explicit operator bool() const { return m_request != nullptr; }

private:
    CQMMemberWebService* m_service;
    CHttpRequest* m_request;
};

// Marks, for the reading of one reply on this thread, the access token its request
// sent. A refresh started by that reply compares it with the token stored once it
// holds the refresh lock: when another process refreshed meanwhile it sends nothing.
class CQMSentToken
{
public:
    explicit CQMSentToken(const std::wstring& accessToken);
    ~CQMSentToken();
    CQMSentToken(const CQMSentToken&) = delete;
    CQMSentToken& operator=(const CQMSentToken&) = delete;
    /// The innermost marked token of this thread; empty when none.
    static std::wstring Current();

private:
    std::wstring m_previous;
};

namespace QMService {

// The company key of the current user: tokens, machine key, "UsingLocalTime".
inline const wchar_t* const kCompanyKey = L"SOFTWARE\\Quillmarsh";
// The same key as the service reads it through native settings.
inline const char* const kNativeCompanyKey = "HKEY_CURRENT_USER\\Software\\Quillmarsh";

inline QString Q(const std::wstring& text)
{
    return QString::fromStdWString(text);
}

} // namespace QMService
