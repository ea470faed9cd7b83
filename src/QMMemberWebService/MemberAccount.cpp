#include "QMMemberWebService.h"

#include "Cipher.h"
#include "Replies.h"
#include "ServicePrivate.h"
#include "../LZString/LZString.h"
#include "../parameters/QMMemberWebServiceParameterCook.h"
#include "../qmnetwork/HttpRequest.h"
#include "../qmnetwork/QMNetworkCenter.h"
#include "../registry/QMRegistryAgent.h"
#include "../registry/RegistryStore.h"

#include <QApplication>
#include <QDateTime>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPointer>
#include <QStringList>
#include <QTextStream>
#include <QThread>
#include <QTimer>

#include <cstring>
#include <memory>

using namespace QMService;

namespace {

// A refresh answered by "token expired" refreshes again; this bounds the chain.
constexpr int kMaxRefreshDepth = 3;
thread_local int t_refreshDepth = 0;

const char* const kTimeFormat = "yyyy-MM-dd hh:mm:ss";
const char* const kPasswordBody = "{\"grant_type\":\"password\",\"state\":\"\",\"scope\":\"\"}";
const char* const kCodeBody = "{\"grant_type\":\"authorization_code\",\"state\":\"\",\"scope\":\"\"}";

QString ReadNativeCompanyValue(const char* name)
{
    return QMRegistryTool::Store::ReadNative(QString::fromLatin1(kNativeCompanyKey), QString::fromLatin1(name))
        .toString();
}

} // namespace

// Shows the wait cursor while a token request blocks the GUI thread.
class CQMWaitCursor
{
public:
    explicit CQMWaitCursor(bool enabled)
    {
        auto* application = qobject_cast<QApplication*>(QCoreApplication::instance());
        m_active = enabled && !CQMNetworkCenter::GetUsingExternalProxyDialog() && application
                   && QThread::currentThread() == application->thread();
        if (m_active)
            QApplication::setOverrideCursor(Qt::WaitCursor);
    }
    ~CQMWaitCursor()
    {
        if (m_active)
            QApplication::restoreOverrideCursor();
    }
    CQMWaitCursor(const CQMWaitCursor&) = delete;
    CQMWaitCursor& operator=(const CQMWaitCursor&) = delete;

private:
    bool m_active = false;
};

// --- token store -----------------------------------------------------------------------

bool CQMMemberWebService::SaveMemberToken(const std::wstring& accessToken, const std::wstring& refreshToken)
{
    auto* registry = Registry();
    // One transaction: a crash or another process never sees one member's access
    // token beside another's refresh token. Order and failure rules hold inside.
    return registry->Transaction(true, [&] {
        registry->WriteString(true, kCompanyKey, L"QMLastRefreshTime",
                              QDateTime::currentDateTime().toString(QLatin1String(kTimeFormat)).toStdWString());
        registry->WriteString(true, kCompanyKey, L"QMBakToken", accessToken);
        if (!registry->WriteString(true, kCompanyKey, L"QMToken", accessToken))
            return false;
        return registry->WriteString(true, kCompanyKey, L"QMReToken", refreshToken);
    });
}

bool CQMMemberWebService::GetAccessToken(std::wstring& token)
{
    return Registry()->ReadString(true, kCompanyKey, L"QMToken", token);
}

bool CQMMemberWebService::GetRefreshToken(std::wstring& token)
{
    return Registry()->ReadString(true, kCompanyKey, L"QMReToken", token);
}

std::wstring CQMMemberWebService::GetMemberID()
{
    return m_strMemberID;
}

std::wstring CQMMemberWebService::GetMemberIDByToken()
{
    const std::wstring id = GetMemberIDByTokenStaicVersion();
    if (!id.empty())
        m_strMemberID = id;
    return m_strMemberID;
}

std::wstring CQMMemberWebService::GetMemberIDByTokenStaicVersion()
{
    QMutexLocker lock(&m_skMemberIDMutex);
    // The backup token keeps the member id readable after a logout.
    QString token = ReadNativeCompanyValue("QMToken");
    if (token.isEmpty())
        token = ReadNativeCompanyValue("QMBakToken");
    return QMReplies::MemberIdFromToken(token);
}

bool CQMMemberWebService::IsMemberLogIn()
{
    return IsMemberLogIn(m_strProductKeyPath);
}

bool CQMMemberWebService::IsMemberLogIn(std::wstring productRegistryKey)
{
    if (!productRegistryKey.empty() && IsEducationLogIn(productRegistryKey))
        return true;
    std::wstring access;
    std::wstring refresh;
    auto* registry = Registry();
    return registry->ReadString(true, kCompanyKey, L"QMToken", access)
           && registry->ReadString(true, kCompanyKey, L"QMReToken", refresh) && !access.empty() && !refresh.empty();
}

bool CQMMemberWebService::IsEducationLogIn(std::wstring productRegistryKey)
{
    if (productRegistryKey.empty())
        return false;
    int member = 0;
    Registry()->ReadNumber(false, productRegistryKey, L"Member", member);
    return member > 0;
}

bool CQMMemberWebService::MemberLogOut()
{
    auto* registry = Registry();
    auto remove = [registry](const wchar_t* name) {
        std::wstring value;
        return registry->ReadString(true, kCompanyKey, name, value) && registry->DeleteValue(true, kCompanyKey, name);
    };
    const bool removed = registry->Transaction(true, [&] {
        const bool access = remove(L"QMToken");
        const bool refresh = remove(L"QMReToken");
        return access && refresh;
    });
    if (!removed)
        return false;
    ClearCacheFile(QStringLiteral("ProductInfoList.json"));
    ClearCacheFile(QStringLiteral("MemberInfo.json"));
    return true;
}

bool CQMMemberWebService::DumpBackupTokenToRegFile(std::wstring folder)
{
    const QString token = ReadNativeCompanyValue("QMBakToken");
    const QString text = QStringLiteral("Windows Registry Editor Version 5.00\n\n[HKEY_CURRENT_USER\\SOFTWARE\\Quillmarsh]\n"
                                        "\"QMBakToken\"=\"")
                         + token + QLatin1Char('"');
    QFile file(Q(folder) + QLatin1String("/QMBakToken.reg"));
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    QTextStream stream(&file);
    stream << text;
    stream.flush();
    file.close();
    return true;
}

// --- token refresh ---------------------------------------------------------------------

namespace {
thread_local std::wstring t_sentAccessToken;
// A refresh takes up to 40 s; a waiter gives up a little later and refreshes itself.
constexpr int kRefreshLockWaitMs = 45000;
} // namespace

CQMSentToken::CQMSentToken(const std::wstring& accessToken)
    : m_previous(t_sentAccessToken)
{
    t_sentAccessToken = accessToken;
}

CQMSentToken::~CQMSentToken()
{
    t_sentAccessToken = m_previous;
}

std::wstring CQMSentToken::Current()
{
    return t_sentAccessToken;
}

CQMMemberWebService::EWSResult CQMMemberWebService::RefreshMemberAPIToken(bool flag, bool rateLimited)
{
    if (rateLimited) {
        std::wstring last;
        if (Registry()->ReadString(true, kCompanyKey, L"QMLastRefreshTime", last)) {
            const QDateTime saved = QDateTime::fromString(Q(last), QLatin1String(kTimeFormat));
            if (saved.isValid()) {
                const qint64 seconds = saved.secsTo(QDateTime::currentDateTime());
                // 1 to 119 s ago: recent enough. 0, negative and 120 or more refresh.
                if (static_cast<quint64>(seconds - 1) < 119)
                    return WS_OK;
            }
        }
    }
    if (!ms_bInternetConnection && ms_bCheckCurrentInternetConnection && !ms_bCurrentInternetConnection)
        return WS_NO_INTERNET;
    if (t_refreshDepth >= kMaxRefreshDepth) {
        qCWarning(lcService) << "CQMMemberWebService::RefreshMemberAPIToken the server keeps answering token expired";
        return WS_TOKEN_EXPIRE;
    }

    const std::wstring host = m_strApiHost;
    const std::string body = "{\"grant_type\":\"refresh_token\",\"state\":\"\",\"scope\":\"\"}";
    std::wstring proxyAccount;
    std::wstring proxyPassword;
    CQMNetworkCenter::GetProxyData(proxyAccount, proxyPassword, true);
    CQMWaitCursor cursor(m_bWaitCursor);

    // The token found expired: the one the request sent, else the one stored now.
    std::wstring expiredAccess = CQMSentToken::Current();
    if (expiredAccess.empty())
        GetAccessToken(expiredAccess);
    // One refresher at a time across the user's processes; a nested refresh
    // (an "error" 6 answer) already holds the lock.
    std::unique_ptr<QMRegistryTool::Store::ProcessLock> lock;
    if (t_refreshDepth == 0) {
        lock = std::make_unique<QMRegistryTool::Store::ProcessLock>(QStringLiteral("token-refresh"),
                                                                     kRefreshLockWaitMs);
        std::wstring storedAccess;
        if (GetAccessToken(storedAccess) && !storedAccess.empty() && storedAccess != expiredAccess) {
            qCDebug(lcService) << "CQMMemberWebService::RefreshMemberAPIToken the token was renewed meanwhile";
            return WS_OK;
        }
    }

    std::wstring refreshToken;
    if (!GetRefreshToken(refreshToken))
        return WS_UNEXPECT_FAIL;
    CQMRequestGuard request(this, QStringLiteral("CQMMemberWebService::RefreshMemberAPIToken"), true);
    if (!request)
        return WS_MEMORY_ALLOCATE_FAIL;

    request->AddRawHeader(L"User-Agent", m_strUserAgent);
    request->AddRawHeader(L"refresh_token", refreshToken);
    request->AddRawHeader(L"machinekey", m_strMachineID);
    request->AddRawHeader(L"machinekey_qmprimary", m_strPrimaryMachineKey);
    request->AddRawHeader(L"machinekey_qmsecondary", m_strSecondaryMachineKey);
    request->SetRequestFlag(flag);
    std::wstring reply;
    std::wstring replyHeaders;
    if (!request->PostSync(host.c_str(), L"/MemberAPI/Token", body.c_str(), reply, replyHeaders, 40000, true,
                           L"application/json", nullptr, false)) {
        qCWarning(lcService) << "CQMMemberWebService::RefreshMemberAPIToken Connect error ="
                             << request->GetNetLastError();
        return WS_CONNECTION_FAILED;
    }
    ms_bCurrentInternetConnection = true;
    reply = request->GetReturnData();
    const QMReplies::TokenReply answer = QMReplies::ParseTokenReply(reply);
    if (!answer.parsed)
        return WS_UNEXPECT_FAIL;
    if (answer.hasError) {
        ++t_refreshDepth;
        const EWSResult result = ProcessStatus(answer.error, [] { return WS_UNEXPECT_FAIL; }, true);
        --t_refreshDepth;
        return result;
    }
    if (!answer.hasAccess)
        return WS_UNEXPECT_FAIL;
    // The old refresh token is written back: the server keeps it valid. Only if it is
    // still the stored one: a sign-in or sign-out meanwhile wins over this refresh.
    bool changed = false;
    auto* registry = Registry();
    const bool saved = registry->Transaction(true, [&] {
        std::wstring stored;
        if (!registry->ReadString(true, kCompanyKey, L"QMReToken", stored) || stored != refreshToken) {
            changed = true;
            return false;
        }
        return SaveMemberToken(answer.access, refreshToken);
    });
    if (changed) {
        qCDebug(lcService) << "CQMMemberWebService::RefreshMemberAPIToken the session changed meanwhile; kept it";
        return WS_OK;
    }
    return saved ? WS_OK : WS_UNEXPECT_FAIL;
}

// --- browser sign-in polling -----------------------------------------------------------------

void CQMMemberWebService::MemberLogInPollingAsync(const std::wstring& guid, int timeLimitMs, int pollIntervalMs,
                                                  bool flag)
{
    qCDebug(lcService) << "CQMMemberWebService::MemberLogInPollingAsync()";
    // An inner service lives until its thread has ended; the link answers without racing that end.
    if (m_pWorkerLink && m_pWorkerLink->WithInner([](CQMMemberWebService*) {})) {
        qCWarning(lcService) << "CQMMemberWebService::MemberLogInPollingAsync a browser sign-in is under way already";
        return;
    }
    m_bAsyncLogin = true;
    CQMMemberWebService* inner = InnerMemberService();
    if (!inner) {
        m_bAsyncLogin = false;
        return;
    }
    if (!m_pWorkerLink) // an InnerMemberService of a subclass
        m_pWorkerLink = std::make_shared<CQMWorkerLink>(this);
    inner->m_strPollingGuid = guid;
    inner->m_nLoginTimeLimitMs = timeLimitMs;
    inner->m_nLoginPollIntervalMs = pollIntervalMs;
    inner->m_bLoginRequestFlag = flag;
    inner->m_fnLoginPollFailed = m_fnLoginPollFailed;

    auto* thread = new QThread;
    inner->moveToThread(thread);
    connect(thread, SIGNAL(started()), inner, SLOT(OnMemberLogInPolling()));
    // Results come from the polling or the timer thread; they are posted to this
    // object's thread as functors, which needs no registered argument types, and
    // through the link, which drops them once this object is gone.
    const std::shared_ptr<CQMWorkerLink> link = m_pWorkerLink;
    const QPointer<QThread> pollingThread(thread);
    connect(
        inner, &CQMMemberWebService::LoginResult, this,
        [link, pollingThread](EWSResult result, const std::wstring& text) {
            link->Post([pollingThread, result, text](CQMMemberWebService* owner) {
                owner->RelayLoginResult(result, text, pollingThread.data());
            });
        },
        Qt::DirectConnection);
    connect(inner, &CQMMemberWebService::LoginStatus, this, [this](int status) {
        qCDebug(lcService).nospace() << "CQMMemberWebService::LoginStatus = " << status;
        emit LoginStatus(status);
    });
    connect(thread, &QThread::finished, this, [this] {
        qCDebug(lcService) << "OnMemberLogInPolling thread finished";
        m_bAsyncLogin = false;
        m_bPollingThreadRunning = false;
    });
    // The inner service is deleted in its own thread as that thread ends.
    connect(thread, &QThread::finished, inner, &QObject::deleteLater);
    connect(thread, SIGNAL(finished()), thread, SLOT(deleteLater()));
    m_pWorkerLink->AddThread(thread);
    m_bPollingThreadRunning = true;
    thread->start(QThread::InheritPriority);
}

void CQMMemberWebService::OnMemberLogInPolling()
{
    qCDebug(lcService) << "CQMMemberWebService::OnMemberLogInPolling()";
    // Whatever the outcome, this thread's work ends here.
    struct QuitThread {
        ~QuitThread() { QThread::currentThread()->quit(); }
    } quit;
    if (m_bLoginPolling)
        return;
    StartLoginTimer(m_nLoginTimeLimitMs);
    m_bLoginPolling = true;
    std::wstring code;
    int failuresInRow = 0;
    do {
        const EWSResult result = GetAuthorizationCode(m_strPollingGuid, code, 30000);
        // The host hears of polls that do not reach the server, so that it can tell and give up.
        const unsigned int netError = GetLastTransportError();
        failuresInRow = netError ? failuresInRow + 1 : 0;
        if (netError && m_fnLoginPollFailed)
            m_fnLoginPollFailed(netError, GetLastTransportErrorText(), failuresInRow);
        if (result == WS_LOGIN_STATUS_FAIL) {
            m_bLoginPolling = false; // LoginStatus has told the host
            break;
        }
        if (m_bLoginPolling && result != WS_OK && result != 0) {
            // Sleeps in slices so that a stop or a time-out takes effect at once.
            for (int slept = 0; slept < m_nLoginPollIntervalMs && m_bLoginPolling; slept += 10)
                QThread::msleep(static_cast<unsigned long>(qMin(10, m_nLoginPollIntervalMs - slept)));
        }
    } while (code.empty() && m_bLoginPolling);
    if (!m_bLoginPolling) {
        StopLoginTimer();
        return;
    }

    std::wstring credential;
    std::wstring out;
    const CQMMemberWebServiceParameterCook cook(ms_bInHouseTest);
    cook.CookAuthorizationCodeCredential(code, m_strMachineID, m_strPrimaryMachineKey, m_strSecondaryMachineKey,
                                         credential);
    const EWSResult result = MemberLogInBase(credential, kCodeBody, out, 30000, m_bLoginRequestFlag, false);
    StopLoginTimer();
    // Claimed once: a time-out that fired meanwhile has reported already.
    if (m_bLoginPolling.exchange(false))
        emit LoginResult(result, out);
}

void CQMMemberWebService::StartLoginTimer(int ms)
{
    auto* timerThread = new QThread;
    auto* timer = new QTimer;
    m_pLoginTimer = timer;
    m_pLoginTimerThread = timerThread;
    timer->moveToThread(timerThread);
    timer->setInterval(ms);
    timer->setSingleShot(false);
    connect(
        timer, &QTimer::timeout, timer,
        [this] {
            if (m_bLoginPolling.exchange(false))
                emit LoginResult(WS_CONNECTION_TIMEOUT, L"time out");
        },
        Qt::DirectConnection);
    connect(timerThread, SIGNAL(started()), timer, SLOT(start()));
    // Stopped and deleted in its own thread as that thread ends, however early the
    // quit comes: a quit before the loop runs leaves no posted event to lose.
    connect(
        timerThread, &QThread::finished, timerThread,
        [timer] {
            timer->stop();
            delete timer;
        },
        Qt::DirectConnection);
    timerThread->start(QThread::InheritPriority);
}

void CQMMemberWebService::StopLoginTimer()
{
    if (!m_pLoginTimer)
        return;
    qCDebug(lcService) << " StopLoginTimer() ";
    // The timer is stopped and deleted in its own thread as it ends; that thread is joined.
    m_pLoginTimerThread->quit();
    m_pLoginTimerThread->wait();
    delete m_pLoginTimerThread;
    m_pLoginTimer = nullptr;
    m_pLoginTimerThread = nullptr;
}

void CQMMemberWebService::RelayLoginResult(EWSResult result, const std::wstring& text, QThread* pollingThread)
{
    // The thread may have ended and gone already (a time-out racing the loop's end).
    if (pollingThread)
        pollingThread->quit();
    // The text of a success is the credential that was sent: it is not logged.
    qCDebug(lcService).nospace().noquote() << "CQMMemberWebService::LoginResult Result = " << int(result)
                                           << " , Error = " << (result == WS_OK ? QStringLiteral("<credential>") : Q(text));
    if (m_pfnLoginResult) {
        // The callback gets a NUL-terminated copy that is freed when it returns.
        const QByteArray utf8 = Q(text).toUtf8();
        std::unique_ptr<char[]> copy(new char[static_cast<size_t>(utf8.size()) + 1]);
        std::memcpy(copy.get(), utf8.constData(), static_cast<size_t>(utf8.size()) + 1);
        m_pfnLoginResult(int(result), copy.get());
    }
    emit LoginResult(result, text);
}

void CQMMemberWebService::OnMemberLogInStop()
{
    qCDebug(lcService) << "CQMMemberWebService::OnMemberLogInStop()";
    // The polling loop sees the flag after the request in flight and ends its thread,
    // which deletes the inner service; nothing is reported for a stop.
    if (m_pWorkerLink)
        m_pWorkerLink->WithInner([](CQMMemberWebService* inner) { inner->StopInnerLoginPolling(); });
    m_bAsyncLogin = false;
}

void CQMMemberWebService::OnMemberUploadPolling()
{
    qCDebug(lcService) << "CQMMemberWebService::OnMemberUploadPolling()";
}

// --- sign-in ---------------------------------------------------------------------------------

CQMMemberWebService::EWSResult CQMMemberWebService::MemberLogIn(const std::wstring& email,
                                                                const std::wstring& password,
                                                                std::wstring& credential, int timeoutMs, bool flag)
{
    const CQMMemberWebServiceParameterCook cook(ms_bInHouseTest);
    std::wstring cooked;
    if (!cook.CookPasswordCredential(email, password, m_strMachineID, m_strPrimaryMachineKey, m_strSecondaryMachineKey,
                                     cooked))
        return WS_PARAM_FAIL;
    return MemberLogInBase(cooked, kPasswordBody, credential, timeoutMs, flag, true);
}

CQMMemberWebService::EWSResult CQMMemberWebService::MemberLogIn(const std::wstring& guid, std::wstring& credential,
                                                                int timeoutMs, bool flag)
{
    std::wstring code;
    const EWSResult result = GetAuthorizationCode(guid, code, timeoutMs);
    if (result != 0 && result != WS_OK)
        return result;
    const CQMMemberWebServiceParameterCook cook(ms_bInHouseTest);
    std::wstring cooked;
    if (!cook.CookAuthorizationCodeCredential(code, m_strMachineID, m_strPrimaryMachineKey, m_strSecondaryMachineKey,
                                              cooked))
        return WS_PARAM_FAIL;
    // The code grant does not send "ParameterCheckType"; the password grant does.
    return MemberLogInBase(cooked, kCodeBody, credential, timeoutMs, flag, false);
}

CQMMemberWebService::EWSResult CQMMemberWebService::GetAuthorizationCode(std::wstring guid, std::wstring& code,
                                                                         int timeoutMs)
{
    CQMRequestGuard request(this, QStringLiteral("CQMMemberWebService::GetAuthorizationCode"), true);
    if (!request)
        return WS_MEMORY_ALLOCATE_FAIL;

    std::wstring proxyAccount;
    std::wstring proxyPassword;
    CQMNetworkCenter::GetProxyData(proxyAccount, proxyPassword, true);
    request->AddRawHeader(L"Compress-Output", L"false");
    request->AddRawHeader(L"User-Agent", m_strUserAgent);
    const std::wstring path = L"/MemberAPI/AuthorizationCode?GUID=" + guid;
    std::wstring reply;
    std::wstring replyHeaders;
    EWSResult result = WS_CONNECTION_FAILED;
    if (request->GetSync(m_strApiHost.c_str(), path.c_str(), reply, replyHeaders, nullptr,
                         static_cast<unsigned int>(timeoutMs), true, nullptr, nullptr)) {
        ms_bCurrentInternetConnection = true;
        reply = request->GetReturnData();
        result = WS_OK;
    }
    const QMReplies::CodeReply answer = QMReplies::ParseAuthorizationCodeReply(reply);
    if (!answer.parsed)
        return result;
    result = ProcessStatus(answer.apiStatus, [] { return WS_UNEXPECT_FAIL; }, true);
    if (result != WS_OK)
        return result;
    const int status = answer.status;
    if (status != 0) {
        qCDebug(lcService).nospace() << "CQMMemberWebService::GetAuthorizationCode Fail, LoginStatus = " << status;
        emit LoginStatus(status);
        return WS_LOGIN_STATUS_FAIL;
    }
    qCDebug(lcService) << "CQMMemberWebService::GetAuthorizationCode Success.";
    code = answer.code;
    return WS_OK;
}

CQMMemberWebService::EWSResult CQMMemberWebService::MemberLogInBase(const std::wstring& credential,
                                                                    const std::string& body,
                                                                    std::wstring& credentialOut, int timeoutMs,
                                                                    bool flag, bool parameterCheck)
{
    if (!ms_bInternetConnection && ms_bCheckCurrentInternetConnection && !ms_bCurrentInternetConnection)
        return WS_NO_INTERNET;
    credentialOut = credential;
    if (credential.empty())
        return WS_PARAM_FAIL;

    std::wstring proxyAccount;
    std::wstring proxyPassword;
    CQMNetworkCenter::GetProxyData(proxyAccount, proxyPassword, true);
    CQMWaitCursor cursor(m_bWaitCursor);
    CQMRequestGuard request(this, QStringLiteral("CQMMemberWebService::MemberLogInBase"), true);
    if (!request)
        return WS_MEMORY_ALLOCATE_FAIL;

    request->AddRawHeader(L"User-Agent", m_strUserAgent);
    request->AddRawHeader(L"Authorization", L"Basic " + credential);
    if (parameterCheck)
        request->AddRawHeader(L"ParameterCheckType", L"1");
    request->SetRequestFlag(flag);
    std::wstring reply;
    std::wstring replyHeaders;
    if (!request->PostSync(m_strApiHost.c_str(), L"/MemberAPI/Token", body.c_str(), reply, replyHeaders,
                           static_cast<unsigned int>(timeoutMs), true, L"application/json", nullptr, false)) {
        ms_bCurrentInternetConnection = false;
        qCWarning(lcService).noquote() << "CQMMemberWebService::MemberLogInBase Connect error ="
                                       << request->GetNetLastError()
                                       << ", Param =" << QString::fromStdWString(request->GetParameters());
        return WS_CONNECTION_FAILED;
    }
    ms_bCurrentInternetConnection = true;
    reply = request->GetReturnData();
    CQMNetworkCenter::SaveProxyData(proxyAccount, proxyPassword, true);
    const QMReplies::TokenReply answer = QMReplies::ParseTokenReply(reply);

    EWSResult result = WS_UNEXPECT_FAIL;
    if (answer.parsed) {
        if (answer.hasError)
            result = ProcessStatus(answer.error, [] { return WS_UNEXPECT_FAIL; }, true);
        else if (answer.hasAccess && answer.hasRefresh)
            result = SaveMemberToken(answer.access, answer.refresh) ? WS_OK : WS_UNEXPECT_FAIL;
    }
    if (result == WS_OK) {
        // The next profile and product reads must ask the server.
        ClearCacheFile(QStringLiteral("ProductInfoList.json"));
        ClearCacheFile(QStringLiteral("MemberInfo.json"));
    }
    return result;
}

// --- member profile --------------------------------------------------------------------------

namespace {

// A server that keeps answering "token expired" must not make the profile fetch recurse without end.
constexpr int kMaxProfileDepth = 2;
thread_local int t_profileDepth = 0;

const QString kMemberInfoFile = QStringLiteral("MemberInfo.json");

} // namespace

CQMMemberWebService::EWSResult CQMMemberWebService::ConvertMemberLoginInfo(_CMemberLoginInfo& info,
                                                                           std::wstring& replyText, bool allowRetry,
                                                                           bool allowSecondRetry, bool firstCacheRead)
{
    int apiStatus = 0;
    int status = -1;
    QJsonDocument document;
    if (!ParseJsonResult(replyText, apiStatus, status, document))
        return WS_UNEXPECT_FAIL;
    EWSResult result = WS_UNEXPECT_FAIL;
    if (firstCacheRead) {
        // A cached reply never starts a token refresh.
        if (apiStatus != WS_OK || status != WS_OK)
            return static_cast<EWSResult>(-14);
        result = WS_OK;
    } else {
        // After a refresh the profile is fetched again by the caller, so the retry only says "expired".
        result = ProcessStatus(apiStatus, [] { return WS_TOKEN_EXPIRE; }, allowRetry);
        if (result == WS_OK)
            result = ProcessStatus(status, [] { return WS_TOKEN_EXPIRE; }, allowSecondRetry);
    }
    if (result != WS_OK)
        return result;

    const QJsonObject data =
        document.object().value(QLatin1String("result")).toObject().value(QLatin1String("data")).toObject();
    const QJsonObject user = data.value(QLatin1String("userinfo")).toObject();
    auto text = [](const QJsonObject& object, const char* key) {
        return object.value(QLatin1String(key)).toString().toStdWString();
    };
    auto number = [](const QJsonObject& object, const char* key) {
        return object.value(QLatin1String(key)).toInt(0);
    };
    m_strMemberID = text(user, "MemberID");
    info.strMemberID = m_strMemberID;
    info.strEmail = text(user, "Email");
    info.strNickName = text(user, "NickName");
    info.strFirstName = text(user, "FirstName");
    info.strLastName = text(user, "LastName");
    info.strAvatarUrl = text(data, "avatarUrl");
    info.strRegistrationDate = text(data, "registrationdate");
    info.nMemberType = number(data, "CCD_memberType");
    info.nClass = number(user, "Class");
    info.nCartQty = number(data, "CartQty");
    info.nWishListQty = number(data, "WLQty");
    return WS_OK;
}

CQMMemberWebService::EWSResult CQMMemberWebService::GetMemberLoginInfo(_CMemberLoginInfo& info, bool forceServer,
                                                                       bool flag, unsigned int timeoutMs)
{
    const bool haveFolder = !GetCacheFolderPath().isEmpty();
    const bool cacheExisted = IsCacheFileExist(kMemberInfoFile);
    bool useCache = haveFolder && !forceServer && cacheExisted && !IsCacheFileExpire(kMemberInfoFile);
    bool serverFirst = !haveFolder || forceServer;
    EWSResult result = WS_OK;

    if (!ms_bInternetConnection && ms_bCheckCurrentInternetConnection && !ms_bCurrentInternetConnection) {
        emit ErrorNotice(QString(), WS_NO_INTERNET);
        useCache = true; // offline: a stale cache is better than nothing
        result = WS_NO_INTERNET;
    }
    if (useCache) {
        std::wstring cached = GetCacheContent(kMemberInfoFile).toStdWString();
        result = ConvertMemberLoginInfo(info, cached, false, false, true);
        if (result == WS_OK) {
            emit FinishGetMemberLoginInfo();
            return WS_OK;
        }
        serverFirst = true;
    }

    CQMRequestGuard request(this, QStringLiteral("CQMMemberWebService::GetMemberLoginInfo"), true);
    if (!request)
        return WS_MEMORY_ALLOCATE_FAIL;
    std::wstring proxyAccount;
    std::wstring proxyPassword;
    CQMNetworkCenter::GetProxyData(proxyAccount, proxyPassword, true);
    CQMWaitCursor cursor(m_bWaitCursor);
    std::wstring accessToken;
    if (!GetAccessToken(accessToken))
        return result;
    request->AddRawHeader(L"User-Agent", m_strUserAgent);
    request->AddRawHeader(L"Authorization", L"Token " + accessToken);
    request->AddRawHeader(L"Compress-Output", L"false");
    request->SetRequestFlag(flag);
    std::wstring reply;
    std::wstring replyHeaders;
    const bool ok = request->GetSync(m_strApiHost.c_str(), L"/MemberAPI/v2/Logininfo", reply, replyHeaders, nullptr,
                                     timeoutMs, true, L"application/json", nullptr);
    ConnectionEndProcess(proxyAccount, proxyPassword, true, ok, QString());
    reply = request->GetReturnData();

    {
        const CQMSentToken sent(accessToken);
        result = ConvertMemberLoginInfo(info, reply, true, true, false);
    }
    if (result == WS_TOKEN_EXPIRE) {
        if (!ms_bCurrentInternetConnection) {
            emit GetTokenFailed();
        } else if (t_profileDepth < kMaxProfileDepth) {
            ++t_profileDepth;
            const EWSResult again = GetMemberLoginInfo(info, forceServer, flag, timeoutMs);
            --t_profileDepth;
            return again;
        } else {
            emit ErrorNotice(QString(), result);
        }
    } else if (result == WS_OK) {
        // An expired cache is not rewritten unless the server was asked first.
        if (!reply.empty() && (serverFirst || !cacheExisted) && haveFolder) {
            _CMemberLoginInfo scratch;
            std::wstring copy = reply;
            if (ConvertMemberLoginInfo(scratch, copy, false, false, false) == WS_OK)
                CreateCacheFile(Q(reply), kMemberInfoFile);
            else
                ClearCacheFile(kMemberInfoFile);
        }
    } else {
        std::wstring cached = cacheExisted ? GetCacheContent(kMemberInfoFile).toStdWString() : std::wstring();
        if (cached.empty() || ConvertMemberLoginInfo(info, cached, false, false, false) != WS_OK)
            emit ErrorNotice(QString(), result);
        else
            result = WS_OK;
    }
    emit FinishGetMemberLoginInfo();
    return result;
}

CQMMemberWebService::EWSResult CQMMemberWebService::SyncMemberID()
{
    std::wstring refreshToken;
    GetRefreshToken(refreshToken);
    if (m_bProfileFetched && !m_strProfileRefreshToken.empty() && m_strProfileRefreshToken == refreshToken)
        return WS_OK;
    _CMemberLoginInfo scratch;
    const EWSResult result = GetMemberLoginInfo(scratch, true, true, 30000);
    m_strProfileRefreshToken = refreshToken;
    m_bProfileFetched = true;
    return result;
}

std::wstring CQMMemberWebService::GetQMMemberRequestInfo()
{
    std::wstring access;
    std::wstring refresh;
    if (!GetAccessToken(access))
        access.clear();
    if (!GetRefreshToken(refresh))
        refresh.clear();
    const QStringList parts = {Q(access),
                               Q(refresh),
                               Q(Registry()->GetMachineGuid()),
                               Q(m_strMachineID),
                               Q(m_strPrimaryMachineKey),
                               Q(m_strSecondaryMachineKey)};
    return QMCipher::Encrypt(parts.join(QLatin1Char(',')), QMCipher::RequestInfoKey()).toStdWString();
}
