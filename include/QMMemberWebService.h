#pragma once

#include <QHash>
#include <QMap>
#include <QMutex>
#include <QObject>
#include <QPointer>
#include <QSet>
#include <QString>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
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
namespace QMService {
class CQMWorkerLink;
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
///
/// Threads: synchronous calls block the calling thread; asynchronous requests
/// complete in the thread that owns the object, which must run a Qt event loop.
///
/// Logging: the library writes under the categories "qm.service" (service calls),
/// "qm.network" (the HTTPS transport) and "qm.registry" (the per-user store).
/// Only warnings and above are on by default; QT_LOGGING_RULES="qm.*.debug=true"
/// (or QLoggingCategory::setFilterRules) turns the debug lines on. Secrets are
/// never logged.
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
    /// Receives the result code and the result text (UTF-8, NUL-terminated, valid
    /// only during the call) when a browser sign-in ends.
    using LoginResultCallback = void (*)(int result, char* text);

    /// Internal constructor: no product key, hosts of \a targetServer, user agent "QMAutoTestAgent".
    explicit CQMMemberWebService(int targetServer);
    /// Product constructor: identity and user agent from the product's registry key.
    /// \a reserved is accepted and not used.
    CQMMemberWebService(std::wstring productKeyPath, bool storeBuild, int reserved, int targetServer);
    /// Disposes of the requests in flight and stops and joins an inner service's worker
    /// threads; call it in the object's own thread, with none of its synchronous calls running.
    ~CQMMemberWebService() override;

    // --- request handles --------------------------------------------------
    /// Makes a request object and enters it in the live-request map; null when allocation fails.
    virtual CHttpRequest* ServiceHttpRequest(QString caller, bool sync);
    /// The inner service used by the polling calls, made on first use; null unless a polling call is starting.
    virtual CQMMemberWebService* InnerMemberService();

    // --- identity and product information ----------------------------------
    /// This machine's identifier as sent to the services.
    virtual std::wstring GetMachineID();
    /// "Check Update Edition" of the product key; 2 when found, -1 when not.
    virtual EWSResult GetCheckUpdateEdition(std::wstring& edition);
    /// "Product Build" of the product key; 2 when found, -1 when not.
    virtual EWSResult GetProductBuild(std::wstring& build);
    /// "Version Code" of the product key; 2 when found, -1 when not.
    virtual EWSResult GetVersionCode(std::wstring& versionCode);
    /// "Product Name", else "Program Group", else "Product Title"; 2 when one is found, -1 when none.
    virtual EWSResult GetProductName(std::wstring& name);
    /// "Language ID" as a number; 2 when found, -1 when not. Throws std::invalid_argument /
    /// std::out_of_range when the stored text is not a base-10 integer in range.
    virtual EWSResult GetLanguageID(int& languageID);
    /// "Language ID" as text; 2 when found, -1 when not.
    virtual EWSResult GetLanguageID(std::wstring& languageID);
    /// "Language Pack Path" of the product key; 2 when found, -1 when not.
    virtual EWSResult GetLanguagePackPath(std::wstring& path);
    /// Language number from the system locale's country: Taiwan 2, Japan 4, Germany 8, else 1.
    virtual int GetLocaleLanguageID();

    // --- token store ----------------------------------------------------------
    /// The stored access token; true when it exists.
    virtual bool GetAccessToken(std::wstring& token);
    /// The stored refresh token; true when it exists.
    virtual bool GetRefreshToken(std::wstring& token);
    /// The product key's "Target Server" number; true when it overrides the constructor's.
    virtual bool GetTargetServer(int& target);

    /// Static forms of the getters above, for any key path; \a currentUser picks the
    /// current-user hive over the local-machine one. 2 when found, -1 when not.
    static EWSResult GetCheckUpdateEdition(std::wstring keyPath, std::wstring& edition, bool currentUser);
    /// See GetCheckUpdateEdition(std::wstring, std::wstring&, bool).
    static EWSResult GetProductBuild(std::wstring keyPath, std::wstring& build, bool currentUser);
    /// See GetCheckUpdateEdition(std::wstring, std::wstring&, bool).
    static EWSResult GetVersionCode(std::wstring keyPath, std::wstring& versionCode, bool currentUser);
    /// See GetCheckUpdateEdition(std::wstring, std::wstring&, bool).
    static EWSResult GetProductName(std::wstring keyPath, std::wstring& name, bool currentUser);
    /// See GetCheckUpdateEdition(std::wstring, std::wstring&, bool).
    static EWSResult GetLanguageID(std::wstring keyPath, std::wstring& languageID, bool currentUser);
    /// See GetCheckUpdateEdition(std::wstring, std::wstring&, bool).
    static EWSResult GetLanguagePackPath(std::wstring keyPath, std::wstring& path, bool currentUser);
    /// "Edition/Build" from the product key; "UnknowAgent" and -10 when either is missing.
    static EWSResult GetUserAgent(std::wstring keyPath, std::wstring& userAgent, bool currentUser);

    /// Replaces the "User-Agent" header value of this object's requests.
    void SetUserAgent(std::wstring userAgent);
    /// The "User-Agent" header value of this object's requests.
    std::wstring GetHttpRequestUserAgent() const;
    /// The English text of a result code; unknown codes read "Unexpect Fail".
    std::wstring GetErrorCodeString(int code);
    /// The API host chosen at construction.
    std::wstring GetApiHost() const { return m_strApiHost; }
    /// The web host chosen at construction.
    std::wstring GetWebHost() const { return m_strWebHost; }
    /// The first machine key of this machine's identity.
    std::wstring GetPrimaryMachineKey() const { return m_strPrimaryMachineKey; }
    /// The second machine key of this machine's identity.
    std::wstring GetSecondaryMachineKey() const { return m_strSecondaryMachineKey; }
    /// Values of the "QM_Sign" and "QM_SignCheck" headers; empty by default.
    void SetApiSignature(std::wstring sign, std::wstring signCheck)
    {
        m_strSign = std::move(sign);
        m_strSignCheck = std::move(signCheck);
    }
    /// Sets (or, with null, clears) the plain callback of a browser sign-in's result; it runs
    /// in this object's thread, just before LoginResult.
    void SetLoginResultCallback(LoginResultCallback callback);
    /// Wait cursor during token requests, only when the application is a QApplication.
    void SetWaitCursor(bool on) { m_bWaitCursor = on; }

    /// Test mode: sent as "InHouseTest" with product requests and used in credentials.
    static void SetInHouseTest(bool inHouseTest);
    /// The test-mode flag set by SetInHouseTest.
    static bool GetInHouseTest() { return ms_bInHouseTest; }
    /// Must be called before any object is built; the agent must outlive every service object.
    static void SetRegistryInterface(QMRegistryTool::CQMRegistryAgent* agent);

    // --- request pipeline -------------------------------------------------------
    /// A new request identifier: a UUID without braces.
    static QString GenerateApiRequestID();
    /// Sends one request to the API host: a POST when \a body is not empty, else a GET.
    /// Synchronous: returns the result and has emitted FinishApiRequest. Asynchronous:
    /// returns 2 at once; FinishApiRequest (and ErrorNotice on failure) follow in this object's thread.
    EWSResult DoApiRequest(std::wstring path, std::string body, int timeoutMs, bool needLogin, bool sync,
                           QString kGuid, std::wstring replyKey = std::wstring());
    /// Synchronous request; \a resultText receives the reply's "result"."data" as compact JSON.
    EWSResult GeneralSyncApiRequest(std::wstring path, bool needLogin, std::string body, std::wstring& resultText,
                                    int timeoutMs, std::wstring replyKey = std::wstring());
    /// GeneralSyncApiRequest with an empty body: a GET.
    EWSResult GeneralSyncGetApiRequest(std::wstring path, bool needLogin, std::wstring& resultText, int timeoutMs,
                                       std::wstring replyKey = std::wstring());
    /// Parses an XML reply into \a document and reads its "Status"; 2 when both are there, else -1.
    static EWSResult ProcessXmlReturnValue(const std::wstring& reply, QDomDocument& document, int& status);
    /// The first element named \a tagName; false when there is none.
    static bool FindQDomElement(QDomDocument& document, QString tagName, QDomElement& element);

    // --- connectivity -------------------------------------------------------------
    /// Probes the API host within \a timeoutMs (through the proxy when \a useProxy); records
    /// and returns whether it answered. \a reserved is passed on and not used.
    static bool CheckInternetConnection(int timeoutMs, bool useProxy, bool reserved);
    /// Whether requests consult the connectivity state.
    static void SetCheckCurrentInternetConnection(bool check);
    /// True when the last check or the last exchange reached the server, or when checking is off.
    static bool GetInternetConnectionFlag();

    // --- member session -------------------------------------------------------------
    /// The member id stored in this object, without reading the registry.
    std::wstring GetMemberID();
    /// The member id from the stored token (kept in this object); the stored one when the token has none.
    std::wstring GetMemberIDByToken();
    /// The member id from the stored token, or the backup token after a logout; empty when none.
    static std::wstring GetMemberIDByTokenStaicVersion();
    /// True when access and refresh tokens are stored (or the product is an education build).
    bool IsMemberLogIn();
    /// IsMemberLogIn() for any product key.
    static bool IsMemberLogIn(std::wstring productRegistryKey);
    /// Deletes the tokens and, when both went, the profile and product caches; true then.
    static bool MemberLogOut();
    /// Writes the backup token to "QMBakToken.reg" in \a folder; false when the file cannot be written.
    bool DumpBackupTokenToRegFile(std::wstring folder);
    /// True while this very object polls for a browser sign-in (only an inner service does).
    bool GetIsLoginPolling() const { return m_bLoginPolling; }

    // --- sign-in and profile --------------------------------------------------------
    /// Password grant; the tokens are stored on success. \a credential receives the credential
    /// string that was sent; \a flag goes to the request object unchanged.
    EWSResult MemberLogIn(const std::wstring& email, const std::wstring& password, std::wstring& credential,
                          int timeoutMs, bool flag);
    /// Authorization-code grant for a browser sign-in bound to \a guid; the tokens are stored on success.
    EWSResult MemberLogIn(const std::wstring& guid, std::wstring& credential, int timeoutMs, bool flag);
    /// Starts a browser sign-in: an inner service on a thread of its own asks for the code
    /// bound to \a guid every \a pollIntervalMs until the sign-in succeeds or fails, \a timeLimitMs
    /// runs out, or OnMemberLogInStop() is called. The outcome comes once, by LoginResult (and the
    /// plain callback), or, for a sign-in the browser refused, by LoginStatus only.
    void MemberLogInPollingAsync(const std::wstring& guid, int timeLimitMs, int pollIntervalMs, bool flag);
    /// True from MemberLogInPollingAsync until its polling thread has finished, a stop included.
    bool IsLoginPollingThreadRunning() const { return m_bPollingThreadRunning; }
    /// The member's profile, from "MemberInfo.json" while it is fresh unless \a forceServer;
    /// emits FinishGetMemberLoginInfo in the calling thread when one was delivered.
    EWSResult GetMemberLoginInfo(_CMemberLoginInfo& info, bool forceServer, bool flag, unsigned int timeoutMs);
    /// Fetches the profile only when the stored refresh token changed since the last fetch.
    EWSResult SyncMemberID();
    /// Access token, refresh token, machine GUID, machine id and both machine keys, enciphered.
    std::wstring GetQMMemberRequestInfo();

    // --- cache and URL-scheme codec ------------------------------------------------
    /// The folder of the reply cache.
    static QString GetCacheFolderPath();
    /// Sets the folder of the reply cache (with its trailing separator).
    static void SetCacheFolderPath(QString path);
    /// \a text as a URL-scheme token.
    static QString EncryptUrlScheme(const QString& text);
    /// The text of a URL-scheme token; empty when the token is not valid.
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
    /// Sets (or, with an empty function, clears) the callback above.
    void SetLoginPollFailedCallback(LoginPollFailedCallback callback) { m_fnLoginPollFailed = std::move(callback); }

    // --- host tools: cache files, store location, compressed replies ----------------------
    /// Where the per-user store keeps its files: $QM_REGISTRY_DIR, else the user's configuration
    /// folder. Empty on Windows, where the store is the registry.
    static QString GetStoreFolderPath();
    /// Reads the cache file \a fileName, a plain file name in GetCacheFolderPath(): false when it
    /// does not exist or the name has a folder part; else its deciphered \a text, and whether it
    /// is \a expired (written on an earlier calendar day).
    static bool ReadCacheFile(const QString& fileName, QString& text, bool& expired);
    /// Deletes the cache file \a fileName (a plain file name); true when it is gone.
    static bool DeleteCacheFile(const QString& fileName);
    /// Decodes lz-string's UTF-16 form, which compressed replies carry: a null text for a corrupt
    /// stream, an empty one for a stream that ends before its end marker.
    static QString DecompressReplyText(const QString& compressed);

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
    // Every content call below is synchronous unless said otherwise, blocks for at most \a timeout
    // ms, and returns the pipeline's result unchanged. An output string is kept on a missing login
    // or a failed connection, and otherwise replaced by the call's result text (the reply's "data"
    // as compact JSON; empty when the server reported a failing status).

    /// The list that GetMemberContentList asks for.
    enum EMemberContentListType : int {
        MemberContentInventory = 0, ///< the member's inventory (owned content)
        MemberContentMine = 2,      ///< the member's own content
        MemberContentRecommend = 3, ///< content recommended to the member
        MemberContentMineAlias = 4, ///< the same list as MemberContentMine
    };

    /// The content base list of a product.
    EWSResult GetContentBaseList(const std::wstring& productId, std::wstring& out, int timeout);
    /// The content types of a product version.
    EWSResult GetContentTypeList(const std::wstring& productId, const std::wstring& version, std::wstring& out,
                                 int timeout);
    /// The content types of a product version from the second content service.
    EWSResult GetContentTypeListV2(const std::wstring& productId, const std::wstring& version, std::wstring& out,
                                   int timeout);
    /// The content categories of a product version.
    EWSResult GetContentCategoryList(const std::wstring& productId, const std::wstring& version,
                                     std::wstring& out, int timeout);
    /// The initial data of the content gallery of a product version.
    EWSResult GetSmartGalleryInitializeInfo(const std::wstring& productId, const std::wstring& version,
                                            std::wstring& out, int timeout);
    /// The members allowed to act for the signed-in member; needs a login.
    EWSResult GetSitterMemberList(std::wstring& out, int timeout);
    /// One of the member's content lists (another member's when \a ownerMid is not empty). The
    /// text comes only by FinishApiRequest / ErrorNotice under \a requestId, in this object's
    /// thread when \a sync is false (that thread needs an event loop). An unknown \a type returns
    /// 4 at once, with no request and no signal.
    EWSResult GetMemberContentList(EMemberContentListType type, const std::wstring& productId,
                                   const std::wstring& version, QString requestId, const std::wstring& ownerMid,
                                   int timeout, bool sync);
    /// The service's records of the given content IDs, all in one request; needs a login.
    EWSResult GetQMContent(std::vector<std::wstring> contentIds, std::wstring& out, int timeout);
    /// The metadata of the given content IDs, all in one request; \a version goes into the body
    /// unquoted. \a requestIndex and \a requestTarget are passed through. Needs a login.
    EWSResult GetContentMetaData(const std::wstring& productId, const std::wstring& version,
                                 const std::vector<std::wstring>& contentIds, int requestIndex, int requestTarget,
                                 std::wstring& out, int timeout);
    /// The extended metadata of a product version.
    EWSResult GetMetadataEX(const std::wstring& productId, const std::wstring& version, std::wstring& out,
                            int timeout);
    /// Appends, in reply order and duplicates kept, the IDs whose file version is newer than the
    /// member last fetched; never clears \a newVersionIds.
    EWSResult GetNewVersionContentIDList(const std::wstring& productId, const std::wstring& version,
                                         const std::vector<std::wstring>& contentIds,
                                         std::vector<std::wstring>& newVersionIds, int timeout);
    /// Tells the service which items' metadata failed the local hash check; the reply is dropped.
    /// Needs a login.
    EWSResult NotifyInconsistentMetadataHash(const std::wstring& productId, const std::wstring& version,
                                             const std::vector<std::wstring>& contentIds, int timeout);
    /// Puts the items into the member's cart and adds to \a cartLinks (never cleared) the cart link
    /// of each item the service took (its "ReturnCode" 2). Needs a login.
    EWSResult AddToMemberCart(std::vector<std::wstring> contentIds, QSet<QString>& cartLinks, int timeout);

    // --- content upload and upload polling -------------------------------------------
    // Synchronous calls, at most \a timeout ms each; outputs as for the content manager above.

    /// What may be uploaded for a product version (types, largest size, bucket, key prefix); needs a login.
    EWSResult GetContentUploadInitInfo(const std::wstring& productId, const std::wstring& version,
                                       std::wstring& out, int timeout);
    /// The storage credentials of the upload, deciphered from the reply's "aws_info". Every failure
    /// after the request, a failed request included, is WS_PARSE_CONTENT_FAIL (-12); the outputs then
    /// hold what was read before the failing step. The library keeps no copy of them.
    EWSResult GetContentUploadAWSInfo(std::wstring& accessKey, std::wstring& secretKey, std::wstring& bucketName,
                                      int timeout);
    /// Allots new content IDs: \a countsByProduct maps an application product to how many it needs.
    /// \a out receives the server's list.
    EWSResult GetGenerateContentID(std::map<std::wstring, int> countsByProduct, std::wstring& out, int timeout);
    /// Posts the metadata of an uploaded pack (\a metaData, JSON text sent as it is); the server then
    /// processes the pack. \a whole false posts one item ("/Item"). Its signals carry an empty kGuid.
    EWSResult UploadContentMetaData(const std::wstring& metaData, int timeout, bool whole);
    /// The server's processing log of a pack: "ProcessStatus", "Percentage", "Log".
    EWSResult GetUploadContentMetaDataLog(const std::wstring& packId, std::wstring& out, int timeout);
    /// Polls the processing log of \a packId on a worker thread, sleeping \a pollIntervalMs before
    /// every request. UploadMetaDataProgress(percent) follows statuses 0 and 11 (11 reports 0); any
    /// other status, or -1 for an empty or unparsable log, ends the loop with one UploadResult. Both
    /// signals come in this object's thread, which must run an event loop. \a pollArg and
    /// \a pollFlag are kept and not used by the loop. A call while IsUploadPollingThreadRunning()
    /// (or a browser sign-in) does nothing. A status that stays 0 or 11 ends after 100000 passes
    /// with UploadResult(-8).
    void MemberUploadPollingAsync(const std::wstring& packId, int pollArg, int pollIntervalMs, bool pollFlag);
    /// Ends the upload polling after the request in flight; one UploadResult(-8) follows.
    /// Does nothing when no upload polling runs. Any thread.
    void StopUploadPolling();
    /// True from MemberUploadPollingAsync until its thread has finished.
    bool IsUploadPollingThreadRunning() const { return m_bPollingThreadRunning; }

    // Signals come in the thread named below. The library registers no meta-types: a host
    // that receives a signal carrying EWSResult or std::wstring through a queued connection
    // (a receiver in another thread) registers them first, once:
    //     qRegisterMetaType<CQMMemberWebService::EWSResult>("EWSResult");
    //     qRegisterMetaType<std::wstring>("std::wstring");
signals:
    /// Upload progress in percent; in the thread of the upload call.
    void UploadMetaDataProgress(int nProgress);
    /// Part of the published interface; in this object's thread.
    void InnerMemberLogInStop();
    /// A browser sign-in reported status \a nStatus (3: refused); in this object's thread.
    void LoginStatus(int nStatus);
    /// A browser sign-in ended: 2 and the credential, -8 and "time out", or the grant's failure;
    /// once per sign-in, in this object's thread.
    void LoginResult(EWSResult eResult, const std::wstring& strError);
    /// An upload polling ended with the given result; in this object's thread.
    void UploadResult(int);
    /// Part of the published interface for hosts; not emitted by the library itself.
    void FinishCurrentFunction();
    /// A profile was delivered by GetMemberLoginInfo; in the calling thread.
    void FinishGetMemberLoginInfo();
    /// A request ended: its result text, whether the server was busy, its identifier. In the
    /// calling thread for a synchronous request, in this object's thread for an asynchronous one.
    void FinishApiRequest(const std::wstring& strRaw, bool bServerBusy, QString kGuid = QString());
    /// The request \a kGuid failed with \a eResult (missing login, failed connection, error
    /// reply); before its FinishApiRequest, in the same thread.
    void ErrorNotice(QString kGuid = QString(), EWSResult eResult = WS_UNEXPECT_FAIL);
    /// The access token expired while the network was down; in the thread of the request.
    void GetTokenFailed();
    /// Part of the published interface for hosts; not emitted by the library itself.
    void ServerBusy();
    /// An endpoint call ended: the service's name, its raw reply and the network error number;
    /// in the calling thread.
    void FinishRequest(const std::wstring& strService, const std::wstring& strReturnData, int nNetWorkError);

public slots:
    /// Stops a browser sign-in without a LoginResult; the polling ends after its request in flight.
    void OnMemberLogInStop();

private slots:
    void OnMemberLogInPolling();

public slots:
    /// Runs one upload polling on an inner service (its worker thread's entry).
    void OnMemberUploadPolling();

private slots:
    void ReleaseServiceHttpRequest(CHttpRequest* pHttp);

protected:
    static bool IsEducationLogIn(std::wstring productRegistryKey);

    bool ParseJsonResult(const std::wstring& reply, int& apiStatus, int& status, QJsonDocument& document);
    /// The same for the reply's UTF-8 bytes.
    bool ParseJsonResult(const QByteArray& utf8, int& apiStatus, int& status, QJsonDocument& document);
    /// Takes \a reply by value and frees it once parsed: a large reply is not held twice.
    EWSResult ExtractApiResult(std::wstring path, std::string body, int timeoutMs, bool needLogin, bool sync,
                               std::wstring reply, std::wstring& resultText, QString kGuid);
    /// The same for the reply's bytes as received; text that is not UTF-8 is read as the wide
    /// road reads it (each bad sequence a replacement character).
    EWSResult ExtractApiResult(std::wstring path, std::string body, int timeoutMs, bool needLogin, bool sync,
                               std::string utf8Reply, std::wstring& resultText, QString kGuid);
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
    /// The calling pattern of every content call: a fresh id from GenerateApiRequestID, one-shot
    /// ErrorNotice / FinishApiRequest handlers matched by it (direct connections, so a call from
    /// another thread works too), then DoApiRequest(path, body, timeoutMs, needLogin, sync true,
    /// id, empty reply key): a GET for an empty body, else a POST. \a onFinish runs at most once,
    /// in the FinishApiRequest handler, with this request's result text (possibly empty); it does
    /// not run on a missing login or a failed connection, whose ErrorNotice comes first. Returns
    /// DoApiRequest's result unchanged. Other requests on this object never reach \a onFinish.
    /// GeneralSyncApiRequest goes the same way, with its \a replyKey.
    EWSResult ContentSyncRequest(std::wstring path, std::string body, int timeoutMs, bool needLogin,
                                 const std::function<void(const std::wstring&)>& onFinish,
                                 std::wstring replyKey = std::wstring());
    /// ContentSyncRequest whose handler claims the result text for \a out: it is moved there once
    /// every slot of FinishApiRequest has seen it (copied when it comes from elsewhere).
    EWSResult ContentSyncRequest(std::wstring path, std::string body, int timeoutMs, bool needLogin,
                                 std::wstring& out);
    /// The synchronous road's FinishApiRequest: emits it, then hands \a resultText over to the
    /// content call that claimed it (no second copy of a large result).
    void FinishSyncRequest(std::wstring& resultText, bool serverBusy, const QString& kGuid);

    // Content upload and upload polling (private).
    void StopInnerUploadPolling() { m_bUploadStop = true; }
    std::wstring m_strPollPackId;
    int m_nPollArg = 0;
    int m_nPollIntervalMs = 0;
    bool m_bPollFlag = false;
    std::atomic<bool> m_bUploadPolling{false};
    std::atomic<bool> m_bUploadStop{false};

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
    // Between this object and its inner service on a worker thread (ServicePrivate.h):
    // the link of the inner service this object made, and, on an inner service, its owner's.
    std::shared_ptr<QMService::CQMWorkerLink> m_pWorkerLink;
    std::shared_ptr<QMService::CQMWorkerLink> m_pOwnerLink;

    static std::atomic<bool> ms_bInternetConnection;
    static std::atomic<bool> ms_bCheckCurrentInternetConnection;
    static std::atomic<bool> ms_bCurrentInternetConnection;
    static std::atomic<bool> ms_bInHouseTest;
    static QString ms_kCacheFolderPath;
    static QMRegistryTool::CQMRegistryAgent* ms_pRegistryInterface;
    static QMutex m_skMemberIDMutex;
};
