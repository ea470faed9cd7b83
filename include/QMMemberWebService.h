#pragma once

#include <QHash>
#include <QMap>
#include <QMutex>
#include <QObject>
#include <QPointer>
#include <QString>

#include <atomic>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "MemberLoginInfo.h"
#include "qmmemberwebservice_export.h"

class CHttpRequest;
class QDomDocument;
class QDomElement;
class QJsonDocument;
class QJsonObject;
class QThread;
class QTimer;

namespace QMRegistryTool {
class CQMRegistryAgent;
}

/// The client of the member web services, one object per product.
///
/// Every call returns an EWSResult: 2 is success, negative values are
/// failures found on this side, other positive values are server statuses.
///
/// \code
/// static QMRegistryTool::CQMRegistryAgent agent;
/// CQMMemberWebService::SetRegistryInterface(&agent);
/// CQMMemberWebService service(L"SOFTWARE\\Quillmarsh\\Studio", false, 10000, 0);
/// std::wstring build;
/// if (service.GetProductBuild(build) == CQMMemberWebService::WS_OK) { ... }
/// \endcode
class QMMEMBERWEBSERVICE_EXPORT CQMMemberWebService : public QObject
{
    Q_OBJECT

public:
    enum EWSResult : int {
        WS_OK = 2,
        WS_UNEXPECT_FAIL = -1,
        WS_NO_LOGIN = -2,
        WS_ACCOUNT_NOT_MATCH = -3,
        WS_CONNECTION_FAILED = -6,
        WS_NO_INTERNET = -7,
        WS_CONNECTION_TIMEOUT = -8,
        WS_LOGIN_STATUS_FAIL = -9,
        WS_GET_REGISTRY_INFO_FAIL = -10,
        WS_MEMORY_ALLOCATE_FAIL = -11,
        WS_PARSE_CONTENT_FAIL = -12,
        WS_STATUS_1 = 1,
        WS_DB_OPERATION_FAIL = 3,
        WS_PARAM_FAIL = 4,
        WS_STATUS_5 = 5,
        WS_TOKEN_EXPIRE = 6,
        WS_STATUS_7 = 7,
        WS_TOKEN_VERIFY_FAIL = 13,
        WS_SERVER_BUSY = 14,
        WS_STATUS_15 = 15,
    };

    using ProductIDList = std::vector<std::pair<std::wstring, int>>;
    using LoginResultCallback = void (*)(int, char*);

    /// Internal constructor: no product key, user agent "QMAutoTestAgent".
    explicit CQMMemberWebService(int targetServer);
    /// Product constructor. \a reserved is accepted and not used.
    CQMMemberWebService(std::wstring productKeyPath, bool storeBuild, int reserved, int targetServer);
    ~CQMMemberWebService() override;

    // --- request handles --------------------------------------------------
    virtual CHttpRequest* ServiceHttpRequest(QString caller, bool sync);
    virtual CQMMemberWebService* InnerMemberService();

    // --- identity and product information ----------------------------------
    virtual std::wstring GetMachineID();
    virtual EWSResult GetCheckUpdateEdition(std::wstring& edition);
    virtual EWSResult GetProductBuild(std::wstring& build);
    virtual EWSResult GetVersionCode(std::wstring& versionCode);
    virtual EWSResult GetProductName(std::wstring& name);
    /// Throws std::invalid_argument / std::out_of_range when the stored text is
    /// not a base-10 integer in range, as the standard conversion does.
    virtual EWSResult GetLanguageID(int& languageID);
    virtual EWSResult GetLanguageID(std::wstring& languageID);
    virtual EWSResult GetLanguagePackPath(std::wstring& path);
    virtual int GetLocaleLanguageID();

    // --- token store ----------------------------------------------------------
    virtual bool GetAccessToken(std::wstring& token);
    virtual bool GetRefreshToken(std::wstring& token);
    virtual bool GetTargetServer(int& target);

    static EWSResult GetCheckUpdateEdition(std::wstring keyPath, std::wstring& edition, bool currentUser);
    static EWSResult GetProductBuild(std::wstring keyPath, std::wstring& build, bool currentUser);
    static EWSResult GetVersionCode(std::wstring keyPath, std::wstring& versionCode, bool currentUser);
    static EWSResult GetProductName(std::wstring keyPath, std::wstring& name, bool currentUser);
    static EWSResult GetLanguageID(std::wstring keyPath, std::wstring& languageID, bool currentUser);
    static EWSResult GetLanguagePackPath(std::wstring keyPath, std::wstring& path, bool currentUser);
    /// "Edition/Build" from the product key; "UnknowAgent" and -10 when either is missing.
    static EWSResult GetUserAgent(std::wstring keyPath, std::wstring& userAgent, bool currentUser);

    void SetUserAgent(std::wstring userAgent);
    std::wstring GetHttpRequestUserAgent() const;
    std::wstring GetErrorCodeString(int code);
    std::wstring GetApiHost() const { return m_strApiHost; }
    std::wstring GetWebHost() const { return m_strWebHost; }
    std::wstring GetPrimaryMachineKey() const { return m_strPrimaryMachineKey; }
    std::wstring GetSecondaryMachineKey() const { return m_strSecondaryMachineKey; }
    /// Values of the "QM_Sign" and "QM_SignCheck" headers; empty by default.
    void SetApiSignature(std::wstring sign, std::wstring signCheck)
    {
        m_strSign = std::move(sign);
        m_strSignCheck = std::move(signCheck);
    }
    void SetLoginResultCallback(LoginResultCallback callback);
    /// Wait cursor during token requests, only when the application is a QApplication.
    void SetWaitCursor(bool on) { m_bWaitCursor = on; }

    static void SetInHouseTest(bool inHouseTest);
    static bool GetInHouseTest() { return ms_bInHouseTest; }
    /// Must be called before any object is built; the agent must outlive every service object.
    static void SetRegistryInterface(QMRegistryTool::CQMRegistryAgent* agent);

    // --- request pipeline -------------------------------------------------------
    static QString GenerateApiRequestID();
    EWSResult DoApiRequest(std::wstring path, std::string body, int timeoutMs, bool needLogin, bool sync,
                           QString kGuid, std::wstring replyKey = std::wstring());
    EWSResult GeneralSyncApiRequest(std::wstring path, bool needLogin, std::string body, std::wstring& resultText,
                                    int timeoutMs, std::wstring replyKey = std::wstring());
    EWSResult GeneralSyncGetApiRequest(std::wstring path, bool needLogin, std::wstring& resultText, int timeoutMs,
                                       std::wstring replyKey = std::wstring());
    static EWSResult ProcessXmlReturnValue(const std::wstring& reply, QDomDocument& document, int& status);
    static bool FindQDomElement(QDomDocument& document, QString tagName, QDomElement& element);

    // --- connectivity -------------------------------------------------------------
    static bool CheckInternetConnection(int timeoutMs, bool arg2, bool arg3);
    static void SetCheckCurrentInternetConnection(bool check);
    static bool GetInternetConnectionFlag();

    // --- member session -------------------------------------------------------------
    std::wstring GetMemberID();
    std::wstring GetMemberIDByToken();
    static std::wstring GetMemberIDByTokenStaicVersion();
    bool IsMemberLogIn();
    static bool IsMemberLogIn(std::wstring productRegistryKey);
    static bool MemberLogOut();
    bool DumpBackupTokenToRegFile(std::wstring folder);
    bool GetIsLoginPolling() const { return m_bLoginPolling; }

    // --- sign-in and profile --------------------------------------------------------
    /// Password grant. \a credential receives the credential string that was sent.
    EWSResult MemberLogIn(const std::wstring& email, const std::wstring& password, std::wstring& credential,
                          int timeoutMs, bool flag);
    /// Authorization-code grant for a browser sign-in bound to \a guid.
    EWSResult MemberLogIn(const std::wstring& guid, std::wstring& credential, int timeoutMs, bool flag);
    /// Starts a browser sign-in: an inner service on a thread of its own asks for the code
    /// bound to \a guid every \a pollIntervalMs until the sign-in succeeds or fails, \a timeLimitMs
    /// runs out, or OnMemberLogInStop() is called. The outcome comes once, by LoginResult (and the
    /// plain callback), or, for a sign-in the browser refused, by LoginStatus only.
    void MemberLogInPollingAsync(const std::wstring& guid, int timeLimitMs, int pollIntervalMs, bool flag);
    /// True from MemberLogInPollingAsync until its polling thread has finished, a stop included.
    bool IsLoginPollingThreadRunning() const { return m_bPollingThreadRunning; }
    /// The member's profile, from "MemberInfo.json" while it is fresh unless \a forceServer.
    EWSResult GetMemberLoginInfo(_CMemberLoginInfo& info, bool forceServer, bool flag, unsigned int timeoutMs);
    /// Fetches the profile only when the stored refresh token changed since the last fetch.
    EWSResult SyncMemberID();
    /// Access token, refresh token, machine GUID, machine id and both machine keys, enciphered.
    std::wstring GetQMMemberRequestInfo();

    // --- cache and URL-scheme codec ------------------------------------------------
    static QString GetCacheFolderPath();
    static void SetCacheFolderPath(QString path);
    static QString EncryptUrlScheme(const QString& text);
    static QString DecryptUrlScheme(const QString& token);

    // --- transport diagnostics ----------------------------------------------------------
    /// Why the last exchange that finished in the calling thread failed, for hosts that show
    /// the cause of a failed call: 0 when it succeeded (or none ran yet), the HTTP status when
    /// the server answered with a non-2xx status, else the transport's number (WinINet
    /// numbering: 12002 time-out, 12007 host not resolved, 12029 connection refused, 12030
    /// connection dropped, 12045 certificate not trusted, 12157 TLS failure, 12004 other).
    /// Asynchronous calls record it in the thread that owns their request.
    static unsigned int GetLastTransportError();
    /// The words for GetLastTransportError(): libcurl's text ("SSL certificate problem: unable to
    /// get local issuer certificate"), or "HTTP 503"; empty after success. Holds no secret.
    static std::wstring GetLastTransportErrorText();
    /// Called during a browser sign-in, on the polling thread, for each poll that got no answer
    /// from the server: \a netError and \a text as GetLastTransportError() and its text give
    /// them, \a failuresInRow the polls without an answer since the last answered one. Polling
    /// goes on; the host may stop it with OnMemberLogInStop(). Set it before MemberLogInPollingAsync.
    using LoginPollFailedCallback = std::function<void(unsigned int netError, const std::wstring& text, int failuresInRow)>;
    void SetLoginPollFailedCallback(LoginPollFailedCallback callback) { m_fnLoginPollFailed = std::move(callback); }

    // --- launcher services ------------------------------------------------------------
    /// Where a member redirect link leads (GetMemberRedirectLink).
    enum ERedirectType : int {
        REDIRECT_WEB_PAGE = 0,       ///< the given page of the member web site, signed in
        REDIRECT_MEMBER_ACCOUNT = 1, ///< the member's account page; the target URL is not sent
        REDIRECT_PURCHASE_PAGE = 2,  ///< the given page, marked for the site as a purchase visit
    };
    /// Which end-user agreement is meant. 4 also asks for the system language's variant.
    enum EContentManagerEulaServiceType : int {
        EULA_GENERAL = 0,
        EULA_APPLICATION = 4, ///< English text
        EULA_APPLICATION_TW = 7,
        EULA_APPLICATION_JP = 8,
        EULA_APPLICATION_DE = 9,
    };
    /// Language bits of the agreement texts; LID_SYSTEM follows the system locale.
    enum ELanguageID : int {
        LID_SYSTEM = -1,
        LID_ENGLISH = 1,
        LID_TRADITIONAL_CHINESE = 2,
        LID_JAPANESE = 4,
        LID_GERMAN = 8,
    };

    /// The member's products for the \a installed (product ID, language) list, as the compact
    /// JSON of the whole reply, from "ProductInfoList.json" while it is from today and the
    /// list is unchanged (unless \a forceUpdate, or SetCacheFolderPath("") turned the cache off).
    /// \a requestAp (may be null) names the calling application (ID, build).
    /// Synchronous: 2 with \a productInfo filled; 6 after a refresh and one repeat; a reply
    /// served from the cache returns -1 (-7 offline) with \a productInfo filled all the same.
    /// Asynchronous (\a sync false): returns -1 at once (-7 offline) and never touches \a productInfo
    /// afterwards; the outcome comes once, in the thread owning this object, as
    /// FinishRequest(L"GetMemberProductInfo", json, netError) then FinishCurrentFunction();
    /// json is empty when neither the server nor the cache had an answer.
    /// \a flag is set on the request object. Shows the wait cursor in a GUI thread.
    EWSResult GetMemberProductInfo(ProductIDList& installed, std::wstring& productInfo, bool forceUpdate,
                                   std::pair<std::wstring, std::wstring>* requestAp, bool sync, int timeoutMs,
                                   bool flag);
    /// The member's purchased products as the compact JSON of the whole reply (no installed
    /// list is sent). \a checkBuyFullProduct non-zero lists full licences only (perpetual and
    /// subscription), zero trials too; \a reserved1 and \a reserved2 are accepted and unused.
    /// 2 leaves \a purchaseInfo untouched when nothing was bought; status 6 refreshes the token
    /// and repeats once. Asynchronous (\a sync false): -1 at once, then, in the thread owning
    /// this object, FinishRequest(L"GetPurchaseProductInfo", json, netError); json is empty on a
    /// failure and when nothing was bought.
    EWSResult GetPurchaseProductInfo(int checkBuyFullProduct, int reserved1, int reserved2,
                                     std::wstring& purchaseInfo, std::pair<std::wstring, std::wstring>* requestAp,
                                     int timeoutMs, bool sync);
    /// Builds, without a request, the member redirect link that signs the browser in: \a link
    /// is the target URL in and the link out. Refreshes the token first when the last refresh is
    /// 2 minutes old. 4 and \a link untouched when \a languageId < 1, no token, an empty target
    /// (types 0 and 2) or another type. The link carries the access token: do not log it.
    EWSResult GetMemberRedirectLink(std::wstring& link, int languageId, ERedirectType type);
    /// The language packs of the product registered under \a productKey, for this application,
    /// as the compact JSON of the reply with "result" expanded. Synchronous.
    EWSResult GetLanguagePackInfo(std::wstring& languagePackInfo, const std::wstring& productKey, int timeoutMs);
    /// What the service knows of a plug-in for this application's version, as compact JSON.
    /// The values go into the query as they are. Synchronous.
    EWSResult GetPluginInfo(const std::wstring& pluginProductId, const std::wstring& pluginVersion,
                            std::wstring& pluginInfo, int timeoutMs);
    /// Downloads an agreement text from the web host: 2 with \a agreementText, -1 on a failed
    /// download or a type other than 0 and 4. Synchronous.
    EWSResult GetWebEndUserLicenseAgreement(EContentManagerEulaServiceType type, std::wstring& agreementText,
                                            ELanguageID language);
    /// True when the member must agree to a renewed agreement; any failure reads false (logged
    /// unless the server said "not due"). Synchronous.
    bool CheckIfNeedToShowEula(EContentManagerEulaServiceType type, int timeoutMs);
    /// Records the member's consent to the current version; the outcome is not reported
    /// (ask CheckIfNeedToShowEula again). Synchronous.
    void SetUserEulaConsent(EContentManagerEulaServiceType type, int timeoutMs);

    // --- content manager ----------------------------------------------------------------

    // --- content upload and upload polling -------------------------------------------

signals:
    void UploadMetaDataProgress(int nProgress);
    void InnerMemberLogInStop();
    void LoginStatus(int nStatus);
    void LoginResult(EWSResult eResult, const std::wstring& strError);
    void UploadResult(int);
    void FinishCurrentFunction();
    void FinishGetMemberLoginInfo();
    void FinishApiRequest(const std::wstring& strRaw, bool bServerBusy, QString kGuid = QString());
    void ErrorNotice(QString kGuid = QString(), EWSResult eResult = WS_UNEXPECT_FAIL);
    void GetTokenFailed();
    void ServerBusy();
    void FinishRequest(const std::wstring& strService, const std::wstring& strReturnData, int nNetWorkError);

public slots:
    void OnMemberLogInStop();

private slots:
    void OnMemberLogInPolling();

public slots:
    void OnMemberUploadPolling();

private slots:
    void ReleaseServiceHttpRequest(CHttpRequest* pHttp);

protected:
    static bool IsEducationLogIn(std::wstring productRegistryKey);

    bool ParseJsonResult(const std::wstring& reply, int& apiStatus, int& status, QJsonDocument& document);
    EWSResult ExtractApiResult(std::wstring path, std::string body, int timeoutMs, bool needLogin, bool sync,
                               const std::wstring& reply, std::wstring& resultText, QString kGuid);
    EWSResult ProcessStatus(int status, std::function<EWSResult()> retry, bool allowRetry);
    static QJsonObject JsonObjectFromString(const QString& text);
    EWSResult ConnectionEndProcess(std::wstring proxyAccount, std::wstring proxyPassword, bool save, bool ok,
                                   QString kGuid);
    EWSResult RefreshMemberAPIToken(bool flag, bool rateLimited);
    bool SaveMemberToken(const std::wstring& accessToken, const std::wstring& refreshToken);

private:
    friend class CQMRequestGuard;

    EWSResult MemberLogInBase(const std::wstring& credential, const std::string& body, std::wstring& credentialOut,
                              int timeoutMs, bool flag, bool parameterCheck);
    EWSResult GetAuthorizationCode(std::wstring guid, std::wstring& code, int timeoutMs);
    EWSResult ConvertMemberLoginInfo(_CMemberLoginInfo& info, std::wstring& replyText, bool allowRetry,
                                     bool allowSecondRetry, bool firstCacheRead);

    // The agent handed in by the host, or the library's own when none was.
    static QMRegistryTool::CQMRegistryAgent* Registry();
    std::wstring GetServerURL(int target);
    std::wstring GetApiServerURL(int target);
    void OnInnerServiceDestroyed();
    void StartLoginTimer(int ms);
    void StopLoginTimer();
    void StopInnerLoginPolling() { m_bLoginPolling = false; }
    void RelayLoginResult(EWSResult result, const std::wstring& text, QThread* pollingThread);

    static bool CreateCacheFile(QString content, QString fileName);
    static QString GetCacheContent(QString fileName);
    static bool IsCacheFileExist(QString fileName);
    static bool IsCacheFileExpire(QString fileName);
    static bool ClearCacheFile(QString fileName);
    static bool ClearCacheFolder(QString folderName);
    static QString ConvertProudctIDListToString(ProductIDList list);
    static ProductIDList ConvertStringToProudctIDList(QString text);
    static bool IsCacheInstalledProductModified(ProductIDList& installed);

    // Transport diagnostics (private).
    LoginPollFailedCallback m_fnLoginPollFailed;

    // Launcher services (private).
    struct SProductCall;
    EWSResult CheckMemberProductInfo(ProductIDList& installed, std::wstring& productInfo, bool forceUpdate,
                                     std::pair<std::wstring, std::wstring>* requestAp, std::wstring& reply, bool sync,
                                     int timeoutMs, bool flag);
    EContentManagerEulaServiceType GetSystemLanguageForEula();
    EContentManagerEulaServiceType ConvertSystemLanguageIdForEula(ELanguageID language);
    void AddLauncherHeaders(CHttpRequest* request, bool withToken);
    void SendLauncherAsync(CHttpRequest* request, const std::wstring& path, const std::string& body, int timeoutMs,
                           std::function<void(CHttpRequest*, bool)> done);
    EWSResult SendProductRequest(SProductCall* call, std::wstring& productInfo);
    EWSResult EndProductReply(SProductCall* call, EWSResult result,
                              std::wstring& productInfo);
    void FinishProductCall(SProductCall* call, const std::wstring& productInfo,
                           unsigned int netError);
    EWSResult LauncherQuery(const QString& caller, const std::wstring& path, std::wstring& output, int timeoutMs,
                            int depth);
    EWSResult EvaluatePurchaseReply(const std::wstring& reply, std::wstring& purchaseInfo);

    // Content manager (private).

    // Content upload and upload polling (private).

    // Session values: the member id, the refresh token of the last profile
    // fetch, and the GUID the browser sign-in is bound to.
    std::wstring m_strMemberID;
    std::wstring m_strProfileRefreshToken;
    std::wstring m_strPollingGuid;
    std::wstring m_strProductKeyPath;
    std::wstring m_strMachineID;
    std::wstring m_strPrimaryMachineKey;
    std::wstring m_strSecondaryMachineKey;
    bool m_bProfileFetched = false;
    bool m_bStoreBuild = false;
    std::wstring m_strUserAgent;
    QPointer<CQMMemberWebService> m_pInnerService;
    std::atomic<bool> m_bAsyncLogin{false};
    std::atomic<bool> m_bPollingThreadRunning{false};
    int m_nLoginTimeLimitMs = 0;
    int m_nLoginPollIntervalMs = 0;
    bool m_bLoginRequestFlag = true;
    std::atomic<bool> m_bLoginPolling{false};
    QTimer* m_pLoginTimer = nullptr;
    QThread* m_pLoginTimerThread = nullptr;
    LoginResultCallback m_pfnLoginResult = nullptr;
    bool m_bWaitCursor = true;
    std::wstring m_strApiHost;
    std::wstring m_strWebHost;
    int m_nRequestCounter = 1;
    QMap<CHttpRequest*, QString> m_kLiveRequests;
    QHash<QString, int> m_kTokenRetries; // re-sends of asynchronous requests after an expired token
    std::wstring m_strSign;
    std::wstring m_strSignCheck;

    static std::atomic<bool> ms_bInternetConnection;
    static std::atomic<bool> ms_bCheckCurrentInternetConnection;
    static std::atomic<bool> ms_bCurrentInternetConnection;
    static std::atomic<bool> ms_bInHouseTest;
    static QString ms_kCacheFolderPath;
    static QMRegistryTool::CQMRegistryAgent* ms_pRegistryInterface;
    static QMutex m_skMemberIDMutex;
};
