#include "QMMemberWebService.h"
#include "QMQApplicationAgent.h"

#include "HostConfig.h"
#include "ServicePrivate.h"
#include "../compat/QueuedCall.h"
#include "../qmnetwork/HttpRequest.h"
#include "../qmnetwork/QMNetworkCenter.h"
#include "../registry/QMRegistryAgent.h"

#include <QCoreApplication>
#include <QLocale>
#include <QThread>

#include <stdexcept>

// Warnings and above unless the host turns more on, e.g. QT_LOGGING_RULES="qm.*.debug=true".
Q_LOGGING_CATEGORY(lcService, "qm.service", QtWarningMsg)

using namespace QMService;

std::atomic<bool> CQMMemberWebService::ms_bInternetConnection{true};
std::atomic<bool> CQMMemberWebService::ms_bCheckCurrentInternetConnection{true};
std::atomic<bool> CQMMemberWebService::ms_bCurrentInternetConnection{true};
std::atomic<bool> CQMMemberWebService::ms_bInHouseTest{false};
QString CQMMemberWebService::ms_kCacheFolderPath;
QMRegistryTool::CQMRegistryAgent* CQMMemberWebService::ms_pRegistryInterface = nullptr;
QMutex CQMMemberWebService::m_skMemberIDMutex;

CQMMemberWebService::CQMMemberWebService(int targetServer)
{
    m_strWebHost = GetServerURL(targetServer);
    m_strApiHost = GetApiServerURL(targetServer);
    QMRegistryTool::CQMRegistryAgent agent;
    m_strPrimaryMachineKey = agent.GetPrimaryMachineKey();
    m_strSecondaryMachineKey = agent.GetSecondaryMachineKey();
    m_strMachineID = agent.GetMachineID().empty() ? std::wstring(L"QMINNERDEVID") : agent.GetMachineID();
    m_strUserAgent = L"QMAutoTestAgent";
    CQMNetworkCenter::SetProbeHost(m_strApiHost);
}

CQMMemberWebService::CQMMemberWebService(std::wstring productKeyPath, bool storeBuild, int, int targetServer)
    : m_strProductKeyPath(std::move(productKeyPath))
    , m_bStoreBuild(storeBuild)
{
    m_strWebHost = GetServerURL(targetServer);
    m_strApiHost = GetApiServerURL(targetServer);
    if (storeBuild) {
        m_strMachineID = L"QMMACSTOREID";
    } else {
        QMRegistryTool::CQMRegistryAgent agent;
        m_strPrimaryMachineKey = agent.GetPrimaryMachineKey();
        m_strSecondaryMachineKey = agent.GetSecondaryMachineKey();
        m_strMachineID = agent.GetMachineID();
        if (m_strMachineID.empty()
            && !Registry()->ReadString(m_bStoreBuild, m_strProductKeyPath, L"MarshDigit", m_strMachineID))
            m_strMachineID = L"QMFAILMACHID";
    }
    GetUserAgent(m_strProductKeyPath, m_strUserAgent, m_bStoreBuild);
    CQMNetworkCenter::SetProbeHost(m_strApiHost);
}

namespace {

// How long a dying owner waits for its inner service to leave the request in flight.
constexpr unsigned long kWorkerJoinMs = 5000;

} // namespace

CQMMemberWebService::~CQMMemberWebService()
{
    // Inner services stop and their threads are joined while this object is whole.
    if (m_pWorkerLink) {
        m_pWorkerLink->Shutdown(
            [](CQMMemberWebService* inner) {
                inner->StopInnerLoginPolling();
                inner->StopInnerUploadPolling();
            },
            kWorkerJoinMs);
    }
    if (m_pOwnerLink)
        m_pOwnerLink->InnerGone(this);
    StopLoginTimer();

    const auto live = m_kLiveRequests.keys();
    m_kLiveRequests.clear();
    for (CHttpRequest* request : live) {
        if (!request->IsSync())
            request->EndSocketThread();
        else
            request->deleteLater();
    }
}

QMRegistryTool::CQMRegistryAgent* CQMMemberWebService::Registry()
{
    if (ms_pRegistryInterface)
        return ms_pRegistryInterface;
    static QMRegistryTool::CQMRegistryAgent fallback;
    return &fallback;
}

std::wstring CQMMemberWebService::GetServerURL(int target)
{
    GetTargetServer(target);
    return QMHostConfig::WebHost(target);
}

std::wstring CQMMemberWebService::GetApiServerURL(int target)
{
    GetTargetServer(target);
    return QMHostConfig::ApiHost(target);
}

bool CQMMemberWebService::GetTargetServer(int& target)
{
    if (m_strProductKeyPath.empty())
        return false;
    int number = 0;
    if (!Registry()->ReadNumber(m_bStoreBuild, m_strProductKeyPath, L"Target Server", number))
        return false;
    target = number;
    return true;
}

// --- product information ---------------------------------------------------

namespace {

CQMMemberWebService::EWSResult ReadProductValue(QMRegistryTool::CQMRegistryAgent* registry,
                                                const std::wstring& keyPath, const wchar_t* name,
                                                std::wstring& value, bool currentUser)
{
    std::wstring found;
    if (!registry->ReadString(currentUser, keyPath, name, found))
        return CQMMemberWebService::WS_UNEXPECT_FAIL;
    value = found;
    return CQMMemberWebService::WS_OK;
}

} // namespace

CQMMemberWebService::EWSResult CQMMemberWebService::GetCheckUpdateEdition(std::wstring keyPath, std::wstring& edition,
                                                                          bool currentUser)
{
    return ReadProductValue(Registry(), keyPath, L"Check Update Edition", edition, currentUser);
}

CQMMemberWebService::EWSResult CQMMemberWebService::GetProductBuild(std::wstring keyPath, std::wstring& build,
                                                                    bool currentUser)
{
    return ReadProductValue(Registry(), keyPath, L"Product Build", build, currentUser);
}

CQMMemberWebService::EWSResult CQMMemberWebService::GetVersionCode(std::wstring keyPath, std::wstring& versionCode,
                                                                   bool currentUser)
{
    return ReadProductValue(Registry(), keyPath, L"Version Code", versionCode, currentUser);
}

CQMMemberWebService::EWSResult CQMMemberWebService::GetProductName(std::wstring keyPath, std::wstring& name,
                                                                   bool currentUser)
{
    for (const wchar_t* value : {L"Product Name", L"Program Group", L"Product Title"}) {
        if (ReadProductValue(Registry(), keyPath, value, name, currentUser) == WS_OK)
            return WS_OK;
    }
    return WS_UNEXPECT_FAIL;
}

CQMMemberWebService::EWSResult CQMMemberWebService::GetLanguageID(std::wstring keyPath, std::wstring& languageID,
                                                                  bool currentUser)
{
    return ReadProductValue(Registry(), keyPath, L"Language ID", languageID, currentUser);
}

CQMMemberWebService::EWSResult CQMMemberWebService::GetLanguagePackPath(std::wstring keyPath, std::wstring& path,
                                                                        bool currentUser)
{
    return ReadProductValue(Registry(), keyPath, L"Language Pack Path", path, currentUser);
}

CQMMemberWebService::EWSResult CQMMemberWebService::GetUserAgent(std::wstring keyPath, std::wstring& userAgent,
                                                                 bool currentUser)
{
    std::wstring edition;
    std::wstring build;
    if (GetCheckUpdateEdition(keyPath, edition, currentUser) == WS_OK
        && GetProductBuild(keyPath, build, currentUser) == WS_OK) {
        userAgent = edition + L"/" + build;
        return WS_OK;
    }
    userAgent = L"UnknowAgent";
    return WS_GET_REGISTRY_INFO_FAIL;
}

CQMMemberWebService::EWSResult CQMMemberWebService::GetCheckUpdateEdition(std::wstring& edition)
{
    return GetCheckUpdateEdition(m_strProductKeyPath, edition, m_bStoreBuild);
}

CQMMemberWebService::EWSResult CQMMemberWebService::GetProductBuild(std::wstring& build)
{
    return GetProductBuild(m_strProductKeyPath, build, m_bStoreBuild);
}

CQMMemberWebService::EWSResult CQMMemberWebService::GetVersionCode(std::wstring& versionCode)
{
    return GetVersionCode(m_strProductKeyPath, versionCode, m_bStoreBuild);
}

CQMMemberWebService::EWSResult CQMMemberWebService::GetProductName(std::wstring& name)
{
    return GetProductName(m_strProductKeyPath, name, m_bStoreBuild);
}

CQMMemberWebService::EWSResult CQMMemberWebService::GetLanguageID(std::wstring& languageID)
{
    return GetLanguageID(m_strProductKeyPath, languageID, m_bStoreBuild);
}

CQMMemberWebService::EWSResult CQMMemberWebService::GetLanguagePackPath(std::wstring& path)
{
    return GetLanguagePackPath(m_strProductKeyPath, path, m_bStoreBuild);
}

CQMMemberWebService::EWSResult CQMMemberWebService::GetLanguageID(int& languageID)
{
    std::wstring text;
    if (GetLanguageID(text) != WS_OK)
        return WS_UNEXPECT_FAIL;
    // The conversion's own errors reach the caller, with the texts hosts know.
    try {
        languageID = std::stoi(text, nullptr, 10);
    } catch (const std::invalid_argument&) {
        throw std::invalid_argument("invalid stoi argument");
    } catch (const std::out_of_range&) {
        throw std::out_of_range("stoi argument out of range");
    }
    return WS_OK;
}

int CQMMemberWebService::GetLocaleLanguageID()
{
    switch (QLocale::system().country()) {
    case QLocale::Taiwan:
        return 2;
    case QLocale::Japan:
        return 4;
    case QLocale::Germany:
        return 8;
    default:
        return 1;
    }
}

std::wstring CQMMemberWebService::GetMachineID()
{
    return m_strMachineID;
}

void CQMMemberWebService::SetUserAgent(std::wstring userAgent)
{
    m_strUserAgent = std::move(userAgent);
}

std::wstring CQMMemberWebService::GetHttpRequestUserAgent() const
{
    return m_strUserAgent;
}

void CQMMemberWebService::SetInHouseTest(bool inHouseTest)
{
    ms_bInHouseTest = inHouseTest;
}

void CQMMemberWebService::SetRegistryInterface(QMRegistryTool::CQMRegistryAgent* agent)
{
    ms_pRegistryInterface = agent;
}

void CQMMemberWebService::SetLoginResultCallback(LoginResultCallback callback)
{
    m_pfnLoginResult = callback;
}

CQMMemberWebService* CQMMemberWebService::InnerMemberService()
{
    if (!m_bAsyncLogin)
        return nullptr;
    if (!m_pWorkerLink)
        m_pWorkerLink = std::make_shared<CQMWorkerLink>(this);
    // The link, not the guarded pointer, says whether it exists: an inner service
    // ending in its own thread leaves the link before its guarded pointers clear.
    CQMMemberWebService* existing = nullptr;
    m_pWorkerLink->WithInner([&existing](CQMMemberWebService* inner) { existing = inner; });
    if (existing)
        return existing;
    auto* inner = new CQMMemberWebService(m_strProductKeyPath, m_bStoreBuild, 10000, 0);
    m_pInnerService = inner;
    m_pWorkerLink->SetInner(inner);
    inner->m_pOwnerLink = m_pWorkerLink;
    connect(inner, &QObject::destroyed, this, [this] { OnInnerServiceDestroyed(); });
    return inner;
}

void CQMMemberWebService::OnInnerServiceDestroyed()
{
    qCDebug(lcService) << "CQMMemberWebService::OnInnerServiceDestroyed";
}

// --- inner services on worker threads ------------------------------------------

void CQMWorkerLink::Post(std::function<void(CQMMemberWebService*)> work)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_owner)
        return;
    // Posted under the lock: an owner that dies after this drops the event with itself.
    CQMMemberWebService* owner = m_owner;
    QMetaObject::invokeMethod(
        owner, QMCompat::Queued([owner, work = std::move(work)] { work(owner); }), Qt::QueuedConnection);
}

void CQMWorkerLink::SetInner(CQMMemberWebService* inner)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_inner = inner;
}

void CQMWorkerLink::InnerGone(CQMMemberWebService* inner)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_inner == inner)
        m_inner = nullptr;
}

bool CQMWorkerLink::WithInner(const std::function<void(CQMMemberWebService*)>& work)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_inner)
        return false;
    work(m_inner);
    return true;
}

void CQMWorkerLink::AddThread(QThread* thread)
{
    m_threads.removeAll(QPointer<QThread>());
    m_threads.append(thread);
}

void CQMWorkerLink::Shutdown(const std::function<void(CQMMemberWebService*)>& stop, unsigned long waitMs)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_owner = nullptr;
        if (m_inner)
            stop(m_inner);
    }
    for (const QPointer<QThread>& thread : qAsConst(m_threads)) {
        if (!thread)
            continue;
        // A thread still stuck after the wait ends on its own: its inner service
        // deletes itself there and nothing reaches this object any more.
        if (thread->wait(waitMs))
            delete thread.data();
    }
    m_threads.clear();
}

// --- result texts ------------------------------------------------------------

std::wstring CQMMemberWebService::GetErrorCodeString(int code)
{
    QString text;
    switch (code) {
    case WS_UNEXPECT_FAIL:
        text = tr("Unexpect Fail", "a failure without a more precise reason");
        break;
    case WS_NO_LOGIN:
        text = tr("No Login", "no member is signed in");
        break;
    case WS_ACCOUNT_NOT_MATCH:
        text = tr("Account Not Match", "the signed-in member is not the expected one");
        break;
    case WS_CONNECTION_FAILED:
        text = tr("Connection Failed", "the HTTP exchange did not complete");
        break;
    case WS_NO_INTERNET:
        text = tr("No Internet", "the connection check failed");
        break;
    case WS_CONNECTION_TIMEOUT:
        text = tr("Connection Timeout", "the request ran out of time");
        break;
    case WS_LOGIN_STATUS_FAIL:
        text = tr("Login Staus Fail", "the browser sign-in reported a failure");
        break;
    case WS_GET_REGISTRY_INFO_FAIL:
        text = tr("Get Registry Infomation Fail", "a product value is missing from the registry");
        break;
    case WS_MEMORY_ALLOCATE_FAIL:
        text = tr("Memory Allocate Fail", "a request object could not be made");
        break;
    case WS_PARSE_CONTENT_FAIL:
        text = tr("Parse Content Fail", "the reply could not be read");
        break;
    case WS_DB_OPERATION_FAIL:
        text = tr("DB Operation Fail", "the server's database failed");
        break;
    case WS_PARAM_FAIL:
        text = tr("Param Fail", "the server refused the request's parameters");
        break;
    case WS_TOKEN_EXPIRE:
        text = tr("Token Expire", "the access token has expired");
        break;
    case WS_TOKEN_VERIFY_FAIL:
        text = tr("Token Verify Fail", "the server could not verify the access token");
        break;
    default:
        text = tr("Unexpect Fail", "a failure without a more precise reason");
        break;
    }
    return text.toStdWString();
}

// --- application agent --------------------------------------------------------

void CQMQApplicationAgent::Start()
{
    static int argc = 1;
    static char name[] = "SharedLibrary";
    static char* argv[] = {name, nullptr};
    QCoreApplication application(argc, argv);
    QCoreApplication::exec();
}

bool CQMQApplicationAgent::IsStartingUp()
{
    return QCoreApplication::startingUp();
}
