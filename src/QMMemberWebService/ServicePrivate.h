#pragma once

#include "../qmnetwork/HttpRequest.h"

#include <QList>
#include <QLoggingCategory>
#include <QPointer>
#include <QString>
#include <QThread>

#include <functional>
#include <mutex>
#include <string>

Q_DECLARE_LOGGING_CATEGORY(lcService)

class CHttpRequest;
class CQMMemberWebService;

// A request made through ServiceHttpRequest and released, in its own thread,
// on every way out of the call that made it. Both pointers are guarded: the
// handlers holding a guard may outlive the service (destroyed in a slot of its
// own signal, or inside ~QObject after its members are gone), and an
// asynchronous request dies with its parent, the service.
class CQMRequestGuard
{
public:
    CQMRequestGuard(CQMMemberWebService* service, const QString& caller, bool sync);
    ~CQMRequestGuard();
    CQMRequestGuard(const CQMRequestGuard&) = delete;
    CQMRequestGuard& operator=(const CQMRequestGuard&) = delete;

    CHttpRequest* Get() const { return m_request.data(); }
    CHttpRequest* operator->() const { return m_request.data(); }
    explicit operator bool() const { return !m_request.isNull(); }

private:
    QPointer<CQMMemberWebService> m_service;
    QPointer<CHttpRequest> m_request;
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

// Disposes of a request in the calling thread when it lives there, else in its own.
void DisposeRequest(CHttpRequest* request);

// The way between the object a host holds and its inner service, which works on
// a thread of its own (login polling, upload polling). Workers post results
// through it; the owner cuts it as it dies, stops the inner service's loops and
// joins the worker threads, so no worker ever reaches a dead owner and no
// owner a dead inner service.
class CQMWorkerLink
{
public:
    explicit CQMWorkerLink(CQMMemberWebService* owner)
        : m_owner(owner)
    {
    }

    // Any thread: runs \a work in the owner's thread, unless the owner is gone by then.
    void Post(std::function<void(CQMMemberWebService*)> work);

    // The inner service enters itself when made and leaves in its destructor.
    void SetInner(CQMMemberWebService* inner);
    void InnerGone(CQMMemberWebService* inner);
    // Runs \a work on the inner service while it cannot go away; false when there is none.
    bool WithInner(const std::function<void(CQMMemberWebService*)>& work);

    // Owner's thread: a worker thread the owner's destructor joins.
    void AddThread(QThread* thread);
    // Owner's destructor: no more posts, \a stop on the inner service, then the
    // worker threads are joined, each for at most \a waitMs.
    void Shutdown(const std::function<void(CQMMemberWebService*)>& stop, unsigned long waitMs);

private:
    std::mutex m_mutex;
    CQMMemberWebService* m_owner;
    CQMMemberWebService* m_inner = nullptr;
    QList<QPointer<QThread>> m_threads; // touched in the owner's thread only
};

// The company key of the current user: tokens, machine key, "UsingLocalTime".
inline const wchar_t* const kCompanyKey = L"SOFTWARE\\Quillmarsh";
// The same key as the service reads it through native settings.
inline const char* const kNativeCompanyKey = "HKEY_CURRENT_USER\\Software\\Quillmarsh";

inline QString Q(const std::wstring& text)
{
    return QString::fromStdWString(text);
}

} // namespace QMService
