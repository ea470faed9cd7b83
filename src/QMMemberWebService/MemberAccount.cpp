#include "QMMemberWebService.h"

#include "ServicePrivate.h"
#include "../qmnetwork/HttpRequest.h"
#include "../qmnetwork/QMNetworkCenter.h"
#include "../registry/QMRegistryAgent.h"
#include "../registry/RegistryStore.h"

#include <QApplication>
#include <QDateTime>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTextStream>
#include <QThread>

using namespace QMService;

namespace {

// A refresh answered by "token expired" refreshes again; this bounds the chain.
constexpr int kMaxRefreshDepth = 3;
thread_local int t_refreshDepth = 0;

const char* const kTimeFormat = "yyyy-MM-dd hh:mm:ss";

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
    registry->WriteString(true, kCompanyKey, L"QMLastRefreshTime",
                          QDateTime::currentDateTime().toString(QLatin1String(kTimeFormat)).toStdWString());
    registry->WriteString(true, kCompanyKey, L"QMBakToken", accessToken);
    if (!registry->WriteString(true, kCompanyKey, L"QMToken", accessToken))
        return false;
    return registry->WriteString(true, kCompanyKey, L"QMReToken", refreshToken);
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
    const QStringList parts = token.split(QLatin1Char('.'), Qt::KeepEmptyParts);
    if (parts.size() != 3)
        return std::wstring();
    const QByteArray payload = QByteArray::fromBase64(parts.at(1).toUtf8());
    const QJsonValue id = QJsonDocument::fromJson(payload).object().value(QLatin1String("memberid"));
    return id.isString() ? id.toString().toStdWString() : std::wstring();
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
    const bool access = remove(L"QMToken");
    const bool refresh = remove(L"QMReToken");
    if (!access || !refresh)
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

    std::wstring refreshToken;
    if (!GetRefreshToken(refreshToken))
        return WS_UNEXPECT_FAIL;
    CHttpRequest* request = ServiceHttpRequest(QStringLiteral("CQMMemberWebService::RefreshMemberAPIToken"), true);
    if (!request)
        return WS_MEMORY_ALLOCATE_FAIL;
    struct Release {
        CQMMemberWebService* service;
        CHttpRequest* request;
        ~Release() { service->ReleaseServiceHttpRequest(request); }
    } release{this, request};

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
    const QJsonDocument document = QJsonDocument::fromJson(Q(reply).toUtf8());
    if (reply.empty() || document.isNull())
        return WS_UNEXPECT_FAIL;
    const QJsonObject object = document.object();
    const QJsonValue error = object.value(QLatin1String("error"));
    if (!error.isUndefined() && !error.isNull()) {
        ++t_refreshDepth;
        const EWSResult result = ProcessStatus(error.toInt(), [] { return WS_UNEXPECT_FAIL; }, true);
        --t_refreshDepth;
        return result;
    }
    const QJsonValue access = object.value(QLatin1String("access_token"));
    if (!access.isString())
        return WS_UNEXPECT_FAIL;
    // The old refresh token is written back: the server keeps it valid.
    return SaveMemberToken(access.toString().toStdWString(), refreshToken) ? WS_OK : WS_UNEXPECT_FAIL;
}

// --- browser sign-in control ----------------------------------------------------------------

void CQMMemberWebService::OnMemberLogInStop()
{
    qCDebug(lcService) << "CQMMemberWebService::OnMemberLogInStop()";
    if (m_pInnerService) {
        m_pInnerService->StopInnerLoginPolling();
        m_pInnerService->moveToThread(QCoreApplication::instance() ? QCoreApplication::instance()->thread()
                                                                   : thread());
        m_pInnerService->deleteLater();
    }
    m_bAsyncLogin = false;
}

void CQMMemberWebService::OnMemberLogInPolling()
{
    qCDebug(lcService) << "CQMMemberWebService::OnMemberLogInPolling()";
}

void CQMMemberWebService::OnMemberUploadPolling()
{
    qCDebug(lcService) << "CQMMemberWebService::OnMemberUploadPolling()";
}
