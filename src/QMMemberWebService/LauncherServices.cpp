// Launcher services: the member's products and purchases, redirect links,
// language packs, plug-in information, agreement texts and consent.
#include "QMMemberWebService.h"

#include "Cache.h"
#include "HostConfig.h"
#include "ServicePrivate.h"
#include "../qmnetwork/HttpRequest.h"
#include "../qmnetwork/QMNetworkCenter.h"
#include "../qmnetwork/TextConvert.h"

#include <QApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocale>
#include <QPointer>
#include <QThread>
#include <QUrl>

#include <memory>

using namespace QMService;

namespace {

const QString kProductFile = QStringLiteral("ProductInfoList.json");
const QString kInstalledFile = QStringLiteral("InstalledProductList");
const wchar_t* const kMyProductPath = L"/MemberAPI/v1/Launcher/MyProduct";
const wchar_t* const kRedirectPath = L"/MemberAPI/v1/Launcher/MemberRedirect";

// An expired token repeats a call once; a server that keeps saying so gets 6 back.
constexpr int kMaxProductRepeats = 1;
thread_local int t_productDepth = 0;

std::string Utf8(const std::wstring& text)
{
    return QMText::ToUtf8(text);
}

std::wstring Compact(const QJsonDocument& document)
{
    return QMText::FromUtf8(document.toJson(QJsonDocument::Compact));
}

// Values are spliced into the request bodies as text: one that would end its JSON
// string early cannot be sent.
bool FitsJsonString(const std::wstring& text)
{
    for (wchar_t c : text) {
        if (c == L'"' || c == L'\\' || c < 0x20)
            return false;
    }
    return true;
}

// The wait cursor of a product call: set in the GUI thread, taken down when the call
// finishes, or when its state dies with the service object.
class CQMCursorHold
{
public:
    explicit CQMCursorHold(bool enabled)
    {
        auto* application = qobject_cast<QApplication*>(QCoreApplication::instance());
        m_active = enabled && !CQMNetworkCenter::GetUsingExternalProxyDialog() && application
                   && QThread::currentThread() == application->thread();
        if (m_active)
            QApplication::setOverrideCursor(Qt::WaitCursor);
    }
    ~CQMCursorHold() { Release(); }
    CQMCursorHold(const CQMCursorHold&) = delete;
    CQMCursorHold& operator=(const CQMCursorHold&) = delete;

    void Release()
    {
        if (m_active)
            QApplication::restoreOverrideCursor();
        m_active = false;
    }

private:
    bool m_active = false;
};

} // namespace

// What one GetMemberProductInfo call keeps: copies, so that an asynchronous reply
// never reaches back into the caller's variables.
struct CQMMemberWebService::SProductCall : std::enable_shared_from_this<SProductCall> {
    ProductIDList installed;
    bool hasRequestAp = false;
    std::pair<std::wstring, std::wstring> requestAp;
    bool force = false;
    bool cacheAvailable = false;
    bool cacheOff = false;
    bool sync = true;
    int timeoutMs = 30000;
    bool flag = true;
    int repeats = 0;
    std::unique_ptr<CQMCursorHold> cursor;

    std::pair<std::wstring, std::wstring>* RequestAp() { return hasRequestAp ? &requestAp : nullptr; }
};

// --- shared request parts ------------------------------------------------------------------

void CQMMemberWebService::AddLauncherHeaders(CHttpRequest* request, bool withToken)
{
    request->AddRawHeader(L"User-Agent", m_strUserAgent);
    if (withToken) {
        // Sent empty when no member is signed in: the server answers for itself.
        std::wstring token;
        if (!GetAccessToken(token))
            token.clear();
        request->AddRawHeader(L"Authorization", token.empty() ? std::wstring() : L"Token " + token);
    }
    request->AddRawHeader(L"Compress-Output", L"false");
}

void CQMMemberWebService::SendLauncherAsync(CHttpRequest* request, const std::wstring& path, const std::string& body,
                                            int timeoutMs, std::function<void(CHttpRequest*, bool)> done)
{
    // The handlers die with this object; a request still in flight then is disposed of
    // by the destructor, and nothing is delivered.
    auto connections = std::make_shared<std::pair<QMetaObject::Connection, QMetaObject::Connection>>();
    auto end = [this, request, connections, done](bool completed) {
        QObject::disconnect(connections->first);
        QObject::disconnect(connections->second);
        // A host may destroy this object in a slot of what done() emits.
        const QPointer<CQMMemberWebService> self(this);
        done(request, completed);
        if (self)
            ReleaseServiceHttpRequest(request);
    };
    connections->first = connect(request, &CHttpRequest::FinishedAsync, this, [end](std::wstring) { end(true); });
    connections->second = connect(request, &CHttpRequest::ErrorAsync, this, [end](unsigned int) { end(false); });
    if (body.empty())
        request->GetAsync(m_strApiHost, path, static_cast<unsigned int>(timeoutMs), true, L"application/json");
    else
        request->PostAsync(m_strApiHost, path, body, static_cast<unsigned int>(timeoutMs), true, L"application/json",
                           std::wstring(), false);
}

// --- member products -------------------------------------------------------------------------

CQMMemberWebService::EWSResult CQMMemberWebService::GetMemberProductInfo(
    ProductIDList& installed, std::wstring& productInfo, bool forceUpdate,
    std::pair<std::wstring, std::wstring>* requestAp, bool sync, int timeoutMs, bool flag)
{
    EWSResult result = WS_UNEXPECT_FAIL;
    auto call = std::make_shared<SProductCall>();
    call->installed = installed;
    call->hasRequestAp = requestAp != nullptr;
    if (requestAp)
        call->requestAp = *requestAp;
    call->sync = sync;
    call->timeoutMs = timeoutMs;
    call->flag = flag;
    call->repeats = t_productDepth;

    call->cacheOff = QMCache::FolderTurnedOff();
    bool force = forceUpdate || call->cacheOff;
    call->cacheAvailable = !call->cacheOff && IsCacheFileExist(kProductFile) && IsCacheFileExist(kInstalledFile);
    bool useCache = false;
    if (!force) {
        if (IsCacheFileExpire(kProductFile) || IsCacheInstalledProductModified(installed))
            force = true;
        else
            useCache = call->cacheAvailable;
    }
    call->force = force;
    call->cursor = std::make_unique<CQMCursorHold>(m_bWaitCursor);

    if (!GetInternetConnectionFlag()) {
        result = WS_NO_INTERNET;
        emit ErrorNotice(QString(), WS_UNEXPECT_FAIL);
        useCache = true;
    }

    // An asynchronous call always answers from the event loop, even when it had
    // nothing to send.
    auto finishEarly = [this, call](const std::wstring& text) {
        if (call->sync)
            return FinishProductCall(call.get(), text, 0);
        QMetaObject::invokeMethod(
            this, [this, call, text] { FinishProductCall(call.get(), text, 0); }, Qt::QueuedConnection);
    };

    if (useCache) {
        std::wstring reply = GetCacheContent(kProductFile).toStdWString();
        std::wstring cached;
        if (reply.empty()
            || CheckMemberProductInfo(call->installed, cached, force, call->RequestAp(), reply, sync, 30000, true)
                   != WS_OK)
            emit ErrorNotice(QString(), WS_UNEXPECT_FAIL);
        else
            productInfo = cached; // the caller is still here: this happens before returning
        finishEarly(cached);
        return result; // -1 or -7 even with the cached text delivered: hosts look at productInfo
    }

    std::wstring delivered;
    const EWSResult sent = SendProductRequest(call.get(), sync ? productInfo : delivered);
    if (sent == WS_MEMORY_ALLOCATE_FAIL) {
        finishEarly(std::wstring());
        return result;
    }
    return sync ? sent : WS_UNEXPECT_FAIL;
}

CQMMemberWebService::EWSResult CQMMemberWebService::SendProductRequest(SProductCall* call, std::wstring& productInfo)
{
    // The body first: a list that cannot be written sends nothing.
    std::string installedText;
    for (const auto& [id, language] : call->installed) {
        if (!FitsJsonString(id))
            return WS_MEMORY_ALLOCATE_FAIL;
        if (!installedText.empty())
            installedText += ',';
        installedText += "{\"ProductID\":\"" + Utf8(id) + "\",\"Lang\":" + std::to_string(language) + "}";
    }
    const std::string inHouse = ms_bInHouseTest ? "true" : "false";
    std::string body = "{\"InstalledProducts\":[" + installedText + "],\"InHouseTest\":" + inHouse;
    if (call->hasRequestAp) {
        if (!FitsJsonString(call->requestAp.first) || !FitsJsonString(call->requestAp.second))
            return WS_MEMORY_ALLOCATE_FAIL;
        body += ",\"RequestAp\":{\"ProductID\":\"" + Utf8(call->requestAp.first) + "\",\"ProductBuild\":\""
                + Utf8(call->requestAp.second) + "\"}";
    }
    body += "}";

    const QString caller = QStringLiteral("CQMMemberWebService::GetMemberProductInfo");
    std::wstring proxyAccount;
    std::wstring proxyPassword;

    if (call->sync) {
        CQMRequestGuard request(this, caller, true);
        if (!request)
            return WS_MEMORY_ALLOCATE_FAIL;
        AddLauncherHeaders(request.Get(), true);
        request->SetRequestFlag(call->flag);
        CQMNetworkCenter::GetProxyData(proxyAccount, proxyPassword, true);
        std::wstring reply;
        std::wstring replyHeaders;
        const bool ok = request->PostSync(m_strApiHost.c_str(), kMyProductPath, body.c_str(), reply, replyHeaders,
                                          static_cast<unsigned int>(call->timeoutMs), true, L"application/json",
                                          nullptr, false);
        ConnectionEndProcess(proxyAccount, proxyPassword, true, ok, QString());
        reply = request->GetReturnData();
        EWSResult result = CheckMemberProductInfo(call->installed, productInfo, call->force, call->RequestAp(), reply,
                                                  true, 30000, true);
        if (result == WS_TOKEN_EXPIRE && call->repeats < kMaxProductRepeats) {
            // Refreshed inside; the repeat fills productInfo, and 6 is returned whatever it gave.
            ++t_productDepth;
            GetMemberProductInfo(call->installed, productInfo, call->force, call->RequestAp(), true, call->timeoutMs,
                                 call->flag);
            --t_productDepth;
        } else {
            result = EndProductReply(call, result, productInfo);
        }
        FinishProductCall(call, productInfo, 0);
        return result;
    }

    CHttpRequest* request = ServiceHttpRequest(caller, false);
    if (!request)
        return WS_MEMORY_ALLOCATE_FAIL;
    AddLauncherHeaders(request, true);
    request->SetRequestFlag(call->flag);
    CQMNetworkCenter::GetProxyData(proxyAccount, proxyPassword, true);
    auto shared = call->shared_from_this();
    SendLauncherAsync(request, kMyProductPath, body, call->timeoutMs, [this, shared](CHttpRequest* done, bool completed) {
        // Every emit below may end in a slot that destroys this object: go on only while it lives.
        const QPointer<CQMMemberWebService> self(this);
        std::wstring info;
        EWSResult result = ConnectionEndProcess(done->GetProxyAccount(), done->GetProxyPW(), true, completed,
                                                QString());
        if (!self)
            return;
        if (completed) {
            std::wstring reply = done->GetReturnData();
            result = CheckMemberProductInfo(shared->installed, info, shared->force, shared->RequestAp(), reply, false,
                                            30000, true);
            if (!self)
                return;
        }
        if (result == WS_TOKEN_EXPIRE && shared->repeats < kMaxProductRepeats) {
            // The repeat delivers; this answer does not.
            ++shared->repeats;
            std::wstring unused;
            if (SendProductRequest(shared.get(), unused) == WS_OK)
                return;
        }
        const unsigned int netError = done->GetNetLastError();
        result = EndProductReply(shared.get(), result, info);
        if (self)
            FinishProductCall(shared.get(), info, netError);
    });
    return WS_OK;
}

CQMMemberWebService::EWSResult CQMMemberWebService::EndProductReply(SProductCall* call, EWSResult result,
                                                                    std::wstring& productInfo)
{
    if (result == WS_OK) {
        // A fresh cache that was not asked for stays as it is.
        if ((!call->force && call->cacheAvailable) || call->cacheOff)
            return result;
        CreateCacheFile(Q(productInfo), kProductFile);
        CreateCacheFile(ConvertProudctIDListToString(call->installed), kInstalledFile);
        return result;
    }
    if (call->cacheAvailable) {
        std::wstring cached = GetCacheContent(kProductFile).toStdWString();
        std::wstring info;
        if (!cached.empty()
            && CheckMemberProductInfo(call->installed, info, call->force, call->RequestAp(), cached, call->sync, 30000,
                                      true)
                   == WS_OK) {
            productInfo = info; // silently: the host sees the result code
            return result;
        }
    }
    emit ErrorNotice(QString(), WS_UNEXPECT_FAIL);
    return result;
}

void CQMMemberWebService::FinishProductCall(SProductCall* call, const std::wstring& productInfo,
                                            unsigned int netError)
{
    const QPointer<CQMMemberWebService> self(this);
    if (!call->sync)
        emit FinishRequest(L"GetMemberProductInfo", productInfo, static_cast<int>(netError));
    call->cursor.reset();
    if (self)
        emit FinishCurrentFunction();
}

CQMMemberWebService::EWSResult CQMMemberWebService::CheckMemberProductInfo(
    ProductIDList&, std::wstring& productInfo, bool, std::pair<std::wstring, std::wstring>*, std::wstring& reply, bool,
    int, bool flag)
{
    int apiStatus = 0;
    int status = -1;
    QJsonDocument document;
    if (!ParseJsonResult(reply, apiStatus, status, document))
        return WS_UNEXPECT_FAIL;
    // An expired token at either level refreshes here; the caller repeats the whole call.
    const auto expired = [] { return WS_TOKEN_EXPIRE; };
    EWSResult result = ProcessStatus(apiStatus, expired, true);
    if (result != WS_OK)
        return result;
    if (status == WS_TOKEN_EXPIRE) {
        RefreshMemberAPIToken(true, false);
        return WS_TOKEN_EXPIRE;
    }
    result = ProcessStatus(status, expired, flag);
    if (result == WS_OK && status == WS_OK)
        productInfo = Compact(document);
    return result;
}

// --- purchases -----------------------------------------------------------------------------

CQMMemberWebService::EWSResult CQMMemberWebService::EvaluatePurchaseReply(const std::wstring& reply,
                                                                          std::wstring& purchaseInfo)
{
    int apiStatus = 0;
    int status = -1;
    QJsonDocument document;
    if (!ParseJsonResult(reply, apiStatus, status, document))
        return WS_UNEXPECT_FAIL;
    const auto expired = [] { return WS_TOKEN_EXPIRE; };
    EWSResult result = ProcessStatus(apiStatus, expired, true);
    if (result != WS_OK)
        return result;
    result = ProcessStatus(status, expired, true);
    if (result != WS_OK)
        return result;
    const QJsonArray data =
        document.object().value(QLatin1String("result")).toObject().value(QLatin1String("data")).toArray();
    if (!data.isEmpty())
        purchaseInfo = Compact(document);
    return WS_OK;
}

CQMMemberWebService::EWSResult CQMMemberWebService::GetPurchaseProductInfo(
    int checkBuyFullProduct, int, int, std::wstring& purchaseInfo, std::pair<std::wstring, std::wstring>* requestAp,
    int timeoutMs, bool sync)
{
    std::string body = std::string("{\"InstalledProducts\":[],\"InHouseTest\":") + (ms_bInHouseTest ? "true" : "false")
                       + ",\"CheckBuyFullProduct\":" + (checkBuyFullProduct != 0 ? "true" : "false");
    if (requestAp) {
        if (!FitsJsonString(requestAp->first) || !FitsJsonString(requestAp->second))
            return WS_PARAM_FAIL;
        // The blanks are the service's own.
        body += ", \"RequestAp\":{\"ProductID\":\"" + Utf8(requestAp->first) + "\",\"ProductBuild\":\""
                + Utf8(requestAp->second) + "\"} }";
    } else {
        body += "}";
    }
    const QString caller = QStringLiteral("CQMMemberWebService::GetPurchaseProductInfo");
    std::wstring proxyAccount;
    std::wstring proxyPassword;
    CQMNetworkCenter::GetProxyData(proxyAccount, proxyPassword, true);

    if (sync) {
        EWSResult result = WS_UNEXPECT_FAIL;
        {
            CQMRequestGuard request(this, caller, true);
            if (!request)
                return WS_UNEXPECT_FAIL;
            AddLauncherHeaders(request.Get(), true);
            std::wstring reply;
            std::wstring replyHeaders;
            const bool ok = request->PostSync(m_strApiHost.c_str(), kMyProductPath, body.c_str(), reply,
                                              replyHeaders, static_cast<unsigned int>(timeoutMs), true,
                                              L"application/json", nullptr, false);
            ConnectionEndProcess(proxyAccount, proxyPassword, true, ok, QString());
            result = EvaluatePurchaseReply(request->GetReturnData(), purchaseInfo);
        }
        if (result == WS_TOKEN_EXPIRE && t_productDepth < kMaxProductRepeats) {
            ++t_productDepth;
            result = GetPurchaseProductInfo(checkBuyFullProduct, 0, 0, purchaseInfo, requestAp, timeoutMs, true);
            --t_productDepth;
        }
        return result;
    }

    // Asynchronous: one repeat after an expired token, then FinishRequest once.
    auto send = std::make_shared<std::function<void(int)>>();
    std::weak_ptr<std::function<void(int)>> weakSend = send;
    *send = [this, body, timeoutMs, caller, weakSend](int repeats) {
        CHttpRequest* request = ServiceHttpRequest(caller, false);
        if (!request) {
            // Still one answer, from the event loop, as for any other failure.
            QMetaObject::invokeMethod(
                this, [this] { emit FinishRequest(L"GetPurchaseProductInfo", std::wstring(), 0); },
                Qt::QueuedConnection);
            return;
        }
        AddLauncherHeaders(request, true);
        auto again = weakSend.lock();
        SendLauncherAsync(request, kMyProductPath, body, timeoutMs,
                          [this, repeats, again](CHttpRequest* done, bool completed) {
                              const QPointer<CQMMemberWebService> self(this);
                              std::wstring info;
                              EWSResult result = ConnectionEndProcess(done->GetProxyAccount(), done->GetProxyPW(),
                                                                      true, completed, QString());
                              if (!self)
                                  return;
                              if (completed)
                                  result = EvaluatePurchaseReply(done->GetReturnData(), info);
                              if (!self)
                                  return;
                              if (result == WS_TOKEN_EXPIRE && repeats < kMaxProductRepeats && again)
                                  return (*again)(repeats + 1);
                              emit FinishRequest(L"GetPurchaseProductInfo", info,
                                                 static_cast<int>(done->GetNetLastError()));
                          });
    };
    (*send)(0);
    return WS_UNEXPECT_FAIL;
}

// --- redirect links --------------------------------------------------------------------------

CQMMemberWebService::EWSResult CQMMemberWebService::GetMemberRedirectLink(std::wstring& link, int languageId,
                                                                          ERedirectType type)
{
    RefreshMemberAPIToken(true, true);
    std::wstring token;
    if (!GetAccessToken(token))
        token.clear();

    QString query;
    switch (type) {
    case REDIRECT_WEB_PAGE:
    case REDIRECT_PURCHASE_PAGE:
        if (link.empty() || token.empty() || languageId < 1)
            return WS_PARAM_FAIL;
        // One pass: the encoded URL's own "%3A" must not be taken for a placeholder.
        query = QStringLiteral("?Url=%1&LID=%2&Token=%3&Type=%4")
                    .arg(QString::fromLatin1(QUrl::toPercentEncoding(Q(link))), QString::number(languageId), Q(token),
                         QString::number(int(type)));
        break;
    case REDIRECT_MEMBER_ACCOUNT:
        if (token.empty() || languageId < 1)
            return WS_PARAM_FAIL;
        // The Url value stays empty: the account page needs no target.
        query = QStringLiteral("?Url=&LID=%1&Token=%2&Type=%3")
                    .arg(QString::number(languageId), Q(token), QString::number(int(type)));
        break;
    default:
        return WS_PARAM_FAIL;
    }
    link = L"https://" + m_strApiHost + kRedirectPath + query.toStdWString();
    return WS_OK;
}

// --- language packs and plug-ins --------------------------------------------------------------

CQMMemberWebService::EWSResult CQMMemberWebService::LauncherQuery(const QString& caller, const std::wstring& path,
                                                                  std::wstring& output, int timeoutMs, int depth)
{
    EWSResult result = WS_UNEXPECT_FAIL;
    std::wstring reply;
    {
        CQMRequestGuard request(this, caller, true);
        if (!request)
            return WS_UNEXPECT_FAIL;
        AddLauncherHeaders(request.Get(), false);
        std::wstring proxyAccount;
        std::wstring proxyPassword;
        CQMNetworkCenter::GetProxyData(proxyAccount, proxyPassword, true);
        std::wstring replyHeaders;
        const bool ok = request->GetSync(m_strApiHost.c_str(), path.c_str(), reply, replyHeaders, nullptr,
                                         static_cast<unsigned int>(timeoutMs), true, L"application/json", nullptr,
                                         false);
        ConnectionEndProcess(proxyAccount, proxyPassword, true, ok, QString());
        reply = request->GetReturnData();
    }
    int apiStatus = 0;
    int status = -1;
    QJsonDocument document;
    if (!ParseJsonResult(reply, apiStatus, status, document))
        return WS_UNEXPECT_FAIL;
    result = ProcessStatus(apiStatus, [] { return WS_OK; }, true);
    if (result != WS_OK)
        return result;
    if (status == WS_OK) {
        output = Compact(document);
        return WS_OK;
    }
    if (status == WS_TOKEN_EXPIRE) {
        const EWSResult refreshed = RefreshMemberAPIToken(true, false);
        if (refreshed != WS_OK)
            return refreshed;
        if (depth >= kMaxProductRepeats)
            return WS_TOKEN_EXPIRE;
        return LauncherQuery(caller, path, output, timeoutMs, depth + 1);
    }
    return ProcessStatus(status, [] { return WS_TOKEN_EXPIRE; }, false);
}

CQMMemberWebService::EWSResult CQMMemberWebService::GetLanguagePackInfo(std::wstring& languagePackInfo,
                                                                        const std::wstring& productKey, int timeoutMs)
{
    std::wstring productId;
    std::wstring ownId;
    std::wstring ownBuild;
    GetCheckUpdateEdition(productKey, productId, m_bStoreBuild);
    GetCheckUpdateEdition(ownId);
    GetProductBuild(ownBuild);
    // Sent as they are, without percent-encoding, as the service expects.
    const std::wstring path = L"/MemberAPI/v1/Launcher/LanguagePack?ProductID=" + productId + L"&APProductID=" + ownId
                              + L"&APVersion=" + ownBuild;
    return LauncherQuery(QStringLiteral("CQMMemberWebService::GetLanguagePackInfo"), path, languagePackInfo,
                         timeoutMs, 0);
}

CQMMemberWebService::EWSResult CQMMemberWebService::GetPluginInfo(const std::wstring& pluginProductId,
                                                                  const std::wstring& pluginVersion,
                                                                  std::wstring& pluginInfo, int timeoutMs)
{
    std::wstring ownId;
    std::wstring ownVersion;
    GetCheckUpdateEdition(ownId);
    GetVersionCode(ownVersion);
    // "aPProductID" here against "APProductID" of the language packs: each service's own spelling.
    const std::wstring path = L"/MemberAPI/v1/PluginInfo?aPProductID=" + ownId + L"&aPVersion=" + ownVersion
                              + L"&pluginProductID=" + pluginProductId + L"&pluginVersion=" + pluginVersion;
    return LauncherQuery(QStringLiteral("CQMMemberWebService::GetPluginInfo"), path, pluginInfo, timeoutMs, 0);
}

// --- end-user agreements -----------------------------------------------------------------------

CQMMemberWebService::EContentManagerEulaServiceType CQMMemberWebService::GetSystemLanguageForEula()
{
    // In this order: a name holding "en" and another code is English.
    const QString name = QLocale::system().name();
    if (name.contains(QLatin1String("en")))
        return EULA_APPLICATION;
    if (name.contains(QLatin1String("TW")))
        return EULA_APPLICATION_TW;
    if (name.contains(QLatin1String("ja")))
        return EULA_APPLICATION_JP;
    if (name.contains(QLatin1String("de")))
        return EULA_APPLICATION_DE;
    return EULA_APPLICATION;
}

CQMMemberWebService::EContentManagerEulaServiceType
CQMMemberWebService::ConvertSystemLanguageIdForEula(ELanguageID language)
{
    switch (language) {
    case LID_TRADITIONAL_CHINESE:
        return EULA_APPLICATION_TW;
    case LID_JAPANESE:
        return EULA_APPLICATION_JP;
    case LID_GERMAN:
        return EULA_APPLICATION_DE;
    default:
        return EULA_APPLICATION;
    }
}

CQMMemberWebService::EWSResult CQMMemberWebService::GetWebEndUserLicenseAgreement(EContentManagerEulaServiceType type,
                                                                                  std::wstring& agreementText,
                                                                                  ELanguageID language)
{
    const wchar_t* path = nullptr;
    if (type == EULA_GENERAL) {
        path = L"/content/EULA/EULA.txt"; // lower case here, "Content" below: both as published
    } else if (type == EULA_APPLICATION) {
        const EContentManagerEulaServiceType variant =
            language == LID_SYSTEM ? GetSystemLanguageForEula() : ConvertSystemLanguageIdForEula(language);
        switch (variant) {
        case EULA_APPLICATION_TW:
            path = L"/Content/EULA/AP/EULA_TWAP.txt";
            break;
        case EULA_APPLICATION_JP:
            path = L"/Content/EULA/AP/EULA_JPAP.txt";
            break;
        case EULA_APPLICATION_DE:
            path = L"/Content/EULA/AP/EULA_DEAP.txt";
            break;
        default:
            path = L"/Content/EULA/AP/EULA_AP.txt";
            break;
        }
    } else {
        return WS_UNEXPECT_FAIL;
    }

    CQMRequestGuard request(this, QStringLiteral("CQMMemberWebService::GetWebEndUserLicenseAgreement"), true);
    if (!request)
        return WS_UNEXPECT_FAIL;
    request->AddRawHeader(L"User-Agent", m_strUserAgent);
    const std::wstring host = QMHostConfig::WebHost(QMHostConfig::Production);
    std::wstring reply;
    std::wstring replyHeaders;
    const bool ok = request->GetSync(host.c_str(), path, reply, replyHeaders, nullptr, 30000, true, nullptr, nullptr,
                                     false);
    const int http = request->GetHttpStatus();
    if (!ok || http < 200 || http > 299)
        return WS_UNEXPECT_FAIL;
    agreementText = request->GetReturnData();
    return WS_OK;
}

bool CQMMemberWebService::CheckIfNeedToShowEula(EContentManagerEulaServiceType type, int timeoutMs)
{
    const int number = type == EULA_APPLICATION ? int(GetSystemLanguageForEula()) : int(type);
    std::wstring reply;
    const EWSResult result = GeneralSyncGetApiRequest(
        L"/ContentManager/v1/User/EULARenew/" + std::to_wstring(number), true, reply, timeoutMs);
    if (result == WS_OK)
        return true;
    if (result != WS_STATUS_5) {
        // The operation's old name stays in the line: support searches for it.
        qCDebug(lcService).noquote()
            << QStringLiteral("CQMMemberWebService::CheckIfNeedToAgreeEula Check renew eula error, error code:")
                   + QString::number(int(result));
    }
    return false;
}

void CQMMemberWebService::SetUserEulaConsent(EContentManagerEulaServiceType type, int timeoutMs)
{
    const int number = type == EULA_APPLICATION ? int(GetSystemLanguageForEula()) : int(type);
    DoApiRequest(L"/ContentManager/v1/User/EULAConsent/" + std::to_wstring(number), std::string(), timeoutMs, true,
                 true, GenerateApiRequestID());
}
