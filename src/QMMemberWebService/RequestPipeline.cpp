#include "QMMemberWebService.h"

#include "Cipher.h"
#include "SafeJson.h"
#include "ServicePrivate.h"
#include "../LZString/LZString.h"
#include "../qmnetwork/HttpRequest.h"
#include "../qmnetwork/QMNetworkCenter.h"
#include "../qmnetwork/TextConvert.h"
#include "../registry/RegistryStore.h"

#include <QAbstractEventDispatcher>
#include <QDateTime>
#include <QDomDocument>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMutex>
#include <QPointer>
#include <QThread>
#include <QUuid>

#include <memory>

using namespace QMService;

namespace {

// A server that keeps answering "token expired" must not make a request
// repeat itself, or the refresh recurse, without end.
constexpr int kMaxTokenRetries = 2;
thread_local int t_retryDepth = 0;

// Read for every request, so it is kept for a second: a write in this process
// shows at once, another process's within the second.
bool UsingLocalTime()
{
    struct Kept {
        QMutex mutex;
        qint64 readAt = -1;
        quint64 generation = 0;
        QByteArray folder;
        bool value = false;
    };
    static Kept kept;
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    const quint64 generation = QMRegistryTool::Store::WriteGeneration();
    const QByteArray folder = qgetenv("QM_REGISTRY_DIR");
    QMutexLocker lock(&kept.mutex);
    if (kept.readAt < 0 || now - kept.readAt >= 1000 || now < kept.readAt || generation != kept.generation
        || folder != kept.folder) {
        kept.value = QMRegistryTool::Store::ReadNative(QString::fromLatin1(kNativeCompanyKey),
                                                       QStringLiteral("UsingLocalTime"))
                         .toBool();
        kept.readAt = now;
        kept.generation = generation;
        kept.folder = folder;
    }
    return kept.value;
}

// "yyyy-MM-dd hh:mm:ss" of the current local time. Converting to local time
// costs a time-zone check each call; the text changes once a second.
QString LocalTimeLabel()
{
    thread_local qint64 second = -1;
    thread_local QString text;
    const qint64 now = QDateTime::currentSecsSinceEpoch();
    if (now != second) {
        second = now;
        text = QDateTime::fromSecsSinceEpoch(now).toString(QStringLiteral("yyyy-MM-dd hh:mm:ss"));
    }
    return text;
}

} // namespace

// --- request handles -------------------------------------------------------------

CQMRequestGuard::CQMRequestGuard(CQMMemberWebService* service, const QString& caller, bool sync)
    : m_service(service)
    , m_request(service->ServiceHttpRequest(caller, sync))
{
}

CQMRequestGuard::~CQMRequestGuard()
{
    if (!m_request)
        return; // went with its parent, the service
    if (m_service)
        m_service->ReleaseServiceHttpRequest(m_request);
    else if (!m_request->parent())
        DisposeRequest(m_request);
}

CHttpRequest* CQMMemberWebService::ServiceHttpRequest(QString caller, bool sync)
{
    auto* request = new (std::nothrow) CHttpRequest(sync ? nullptr : this, sync);
    if (!request)
        return nullptr;
    m_kLiveRequests.insert(request, LocalTimeLabel() + QLatin1Char('_') + caller);
    return request;
}

void CQMMemberWebService::ReleaseServiceHttpRequest(CHttpRequest* pHttp)
{
    if (!pHttp)
        return;
    m_kLiveRequests.remove(pHttp);
    DisposeRequest(pHttp);
}

namespace {

// A thread without a dispatcher (a host's plain thread, or the main thread of a
// host without an application object) never runs a posted deletion.
bool EventLoopCanRun()
{
    QThread* thread = QThread::currentThread();
    return thread->loopLevel() > 0 || QAbstractEventDispatcher::instance(thread) != nullptr;
}

} // namespace

void QMService::DisposeRequest(CHttpRequest* request)
{
    if (request->thread() != QThread::currentThread())
        request->EndSocketThread();
    else if (EventLoopCanRun())
        request->deleteLater();
    else
        delete request; // emits nothing any more: synchronous, or its exchange is over
}

QString CQMMemberWebService::GenerateApiRequestID()
{
    return QUuid::createUuid().toString(QUuid::WithoutBraces);
}

// --- one request -------------------------------------------------------------------

CQMMemberWebService::EWSResult CQMMemberWebService::DoApiRequest(std::wstring path, std::string body, int timeoutMs,
                                                                 bool needLogin, bool sync, QString kGuid,
                                                                 std::wstring replyKey)
{
    const std::wstring host = m_strApiHost;
    const wchar_t* const contentType = L"application/json";

    std::wstring accessToken;
    if (needLogin && (!IsMemberLogIn(m_strProductKeyPath) || !GetAccessToken(accessToken))) {
        // A missing login is reported as -1 here, not as "No Login".
        emit ErrorNotice(kGuid, WS_UNEXPECT_FAIL);
        return WS_UNEXPECT_FAIL;
    }

    // Shared by the asynchronous handlers, which release the request when they are done.
    auto guard = std::make_shared<CQMRequestGuard>(this, QStringLiteral("CQMMemberWebService::DoApiRequest"), sync);
    if (!*guard)
        return WS_MEMORY_ALLOCATE_FAIL;
    CHttpRequest* request = guard->Get();

    request->AddRawHeader(L"Compress-Output", L"false");
    request->AddRawHeader(L"User-Agent", m_strUserAgent);
    if (UsingLocalTime()) {
        // Named local time, but the server expects the UTC date.
        request->AddRawHeader(L"Local-Time",
                              QDateTime::currentDateTimeUtc().toString(QStringLiteral("yyyyMMdd")).toStdWString());
    }
    if (needLogin) {
        if (accessToken.empty()) {
            emit ErrorNotice(kGuid, WS_UNEXPECT_FAIL);
            return WS_UNEXPECT_FAIL;
        }
        request->AddRawHeader(L"Authorization", L"Token " + accessToken);
    }
    request->AddRawHeader(L"QM_Sign", m_strSign);
    request->AddRawHeader(L"QM_SignCheck", m_strSignCheck);

    std::wstring proxyAccount;
    std::wstring proxyPassword;
    CQMNetworkCenter::GetProxyData(proxyAccount, proxyPassword, true);

    auto applyReplyKey = [replyKey](std::wstring& reply) {
        if (replyKey.empty())
            return;
        QString token = Q(reply);
        token.remove(QLatin1Char('"'));
        QString plain;
        QMCipher::Decrypt(token.toUtf8(), Q(replyKey).toUtf8(), plain);
        reply = plain.toStdWString();
    };

    if (sync) {
        // Without a reply key the body goes to the parser as received, never widened.
        const bool asBytes = replyKey.empty();
        request->SetReplyAsBytes(asBytes);
        std::wstring reply;
        std::wstring replyHeaders;
        const bool ok = body.empty()
                            ? request->GetSync(host.c_str(), path.c_str(), reply, replyHeaders, nullptr,
                                               static_cast<unsigned int>(timeoutMs), true, contentType, nullptr, false)
                            : request->PostSync(host.c_str(), path.c_str(), body.c_str(), reply, replyHeaders,
                                                static_cast<unsigned int>(timeoutMs), true, contentType, nullptr,
                                                false);
        // A failed exchange still goes through extraction: what was received decides
        // (an empty reply is -12), after ErrorNotice(kGuid, -1) from here.
        const QPointer<CQMMemberWebService> self(this);
        const EWSResult connection = ConnectionEndProcess(proxyAccount, proxyPassword, true, ok, kGuid);
        if (!self)
            return connection;
        // `reply` already holds the request's return data (PostSync / GetSync fill it), or
        // the request keeps it as bytes.
        std::wstring resultText;
        const CQMSentToken sent(accessToken);
        EWSResult result = WS_OK;
        if (asBytes) {
            result = ExtractApiResult(path, body, timeoutMs, needLogin, sync, request->TakeReturnBytes(), resultText,
                                      kGuid);
        } else {
            applyReplyKey(reply);
            result = ExtractApiResult(path, body, timeoutMs, needLogin, sync, std::move(reply), resultText, kGuid);
        }
        if (!self)
            return result;
        if (request->GetNetLastError() == 499)
            result = WS_SERVER_BUSY;
        FinishSyncRequest(resultText, result == WS_SERVER_BUSY, kGuid);
        return result;
    }

    auto connections = std::make_shared<std::pair<QMetaObject::Connection, QMetaObject::Connection>>();
    auto disconnectBoth = [connections]() {
        QObject::disconnect(connections->first);
        QObject::disconnect(connections->second);
    };
    // A host may destroy the service in a slot of its own signal: after each
    // emit the handler goes on only while the service lives.
    connections->second = connect(request, &CHttpRequest::ErrorAsync, this,
                                  [this, kGuid, guard, disconnectBoth](unsigned int) mutable {
                                      disconnectBoth();
                                      const QPointer<CQMMemberWebService> self(this);
                                      emit ErrorNotice(kGuid, WS_UNEXPECT_FAIL);
                                      if (self)
                                          emit FinishApiRequest(std::wstring(), false, kGuid);
                                      guard.reset();
                                  });
    connections->first = connect(
        request, &CHttpRequest::FinishedAsync, this,
        [this, request, path, body, timeoutMs, needLogin, sync, kGuid, replyKey, guard, disconnectBoth,
         applyReplyKey, accessToken](const std::wstring&) mutable {
            disconnectBoth();
            const QPointer<CQMMemberWebService> self(this);
            ConnectionEndProcess(request->GetProxyAccount(), request->GetProxyPW(), true,
                                 request->GetHttpStatus() != 0, kGuid);
            if (!self)
                return;
            std::string bytes = request->TakeReturnBytes();
            std::wstring resultText;
            EWSResult result = WS_OK;
            {
                const CQMSentToken sent(accessToken);
                if (replyKey.empty()) {
                    // As the sync road: the bytes go to the parser as received.
                    result = ExtractApiResult(path, body, timeoutMs, needLogin, sync, std::move(bytes), resultText,
                                              kGuid);
                } else {
                    std::wstring reply = QMText::FromUtf8(bytes.data(), bytes.size());
                    std::string().swap(bytes);
                    applyReplyKey(reply);
                    result = ExtractApiResult(path, body, timeoutMs, needLogin, sync, std::move(reply), resultText,
                                              kGuid);
                }
            }
            if (!self)
                return;
            if (request->GetNetLastError() == 499)
                result = WS_SERVER_BUSY;
            if (result == WS_TOKEN_EXPIRE && !ms_bCurrentInternetConnection) {
                m_kTokenRetries.remove(kGuid);
                emit GetTokenFailed();
            } else if (result == WS_TOKEN_EXPIRE && m_kTokenRetries.value(kGuid) < kMaxTokenRetries) {
                ++m_kTokenRetries[kGuid];
                DoApiRequest(path, body, timeoutMs, needLogin, false, kGuid, replyKey);
            } else {
                m_kTokenRetries.remove(kGuid);
                if (result == WS_OK || result == WS_SERVER_BUSY) {
                    emit FinishApiRequest(resultText, result == WS_SERVER_BUSY, kGuid);
                } else {
                    emit ErrorNotice(kGuid, result);
                    if (self)
                        emit FinishApiRequest(resultText, false, kGuid);
                }
            }
            guard.reset();
        });

    request->SetReplyAsBytes(true); // the handler takes the bytes: no wide copy for the signal
    if (!body.empty())
        request->PostAsync(host, path, body, static_cast<unsigned int>(timeoutMs), true, contentType, std::wstring(),
                           false);
    else
        request->GetAsync(host, path, static_cast<unsigned int>(timeoutMs), true, contentType);
    return WS_OK;
}

CQMMemberWebService::EWSResult CQMMemberWebService::GeneralSyncApiRequest(std::wstring path, bool needLogin,
                                                                          std::string body, std::wstring& resultText,
                                                                          int timeoutMs, std::wstring replyKey)
{
    return ContentSyncRequest(std::move(path), std::move(body), timeoutMs, needLogin,
                              [&resultText](const std::wstring& text) { resultText = text; }, std::move(replyKey));
}

CQMMemberWebService::EWSResult CQMMemberWebService::GeneralSyncGetApiRequest(std::wstring path, bool needLogin,
                                                                             std::wstring& resultText, int timeoutMs,
                                                                             std::wstring replyKey)
{
    return GeneralSyncApiRequest(std::move(path), needLogin, std::string(), resultText, timeoutMs,
                                 std::move(replyKey));
}

CQMMemberWebService::EWSResult CQMMemberWebService::ConnectionEndProcess(std::wstring proxyAccount,
                                                                         std::wstring proxyPassword, bool save,
                                                                         bool ok, QString kGuid)
{
    if (ok) {
        ms_bCurrentInternetConnection = true;
        CQMNetworkCenter::SaveProxyData(std::move(proxyAccount), std::move(proxyPassword), save);
        return WS_OK;
    }
    ms_bCurrentInternetConnection = false;
    emit ErrorNotice(kGuid, WS_UNEXPECT_FAIL);
    return WS_CONNECTION_FAILED;
}

// --- reply parsing -------------------------------------------------------------------

QJsonObject CQMMemberWebService::JsonObjectFromString(const QString& text)
{
    const QJsonDocument document = QMSafeJson::ParseJson(text.toUtf8());
    if (document.isNull()) {
        qCDebug(lcService).noquote() << "Invalid JSON...\n" + text;
        return QJsonObject();
    }
    if (!document.isObject()) {
        qCDebug(lcService) << "Document is not an object";
        return QJsonObject();
    }
    return document.object();
}

bool CQMMemberWebService::ParseJsonResult(const std::wstring& reply, int& apiStatus, int& status,
                                          QJsonDocument& document)
{
    status = -1;
    if (reply.empty())
        return false;
    return ParseJsonResult(QMText::ToUtf8Bytes(reply), apiStatus, status, document);
}

bool CQMMemberWebService::ParseJsonResult(const QByteArray& utf8, int& apiStatus, int& status,
                                          QJsonDocument& document)
{
    status = -1;
    if (utf8.isEmpty())
        return false;
    QJsonDocument parsed = QMSafeJson::ParseJson(utf8);
    if (parsed.isNull())
        return false;
    QJsonObject top = parsed.object();
    apiStatus = top.value(QLatin1String("apiStatus")).toInt(0);
    QJsonObject result;
    const QJsonValue resultValue = top.value(QLatin1String("result"));
    if (resultValue.isString()) {
        result = JsonObjectFromString(LZString::decompressFromUTF16(resultValue.toString()));
        top.insert(QLatin1String("result"), result);
        parsed.setObject(top);
    } else {
        result = resultValue.toObject();
    }
    if (!result.isEmpty())
        status = result.value(QLatin1String("status")).toInt(0);
    document = parsed;
    return true;
}

CQMMemberWebService::EWSResult CQMMemberWebService::ProcessStatus(int status, std::function<EWSResult()> retry,
                                                                  bool allowRetry)
{
    EWSResult result = WS_UNEXPECT_FAIL;
    switch (status) {
    case 1:
    case 2:
    case 3:
    case 4:
    case 5:
    case 7:
    case 13:
    case 14:
    case 15:
        result = static_cast<EWSResult>(status);
        break;
    case 6:
        result = WS_TOKEN_EXPIRE;
        if (RefreshMemberAPIToken(true, false) == WS_OK && allowRetry && t_retryDepth < kMaxTokenRetries) {
            ++t_retryDepth;
            result = retry();
            --t_retryDepth;
        }
        break;
    default:
        break;
    }
    retry = nullptr;
    return result;
}

CQMMemberWebService::EWSResult CQMMemberWebService::ExtractApiResult(std::wstring path, std::string body,
                                                                     int timeoutMs, bool needLogin, bool sync,
                                                                     std::wstring reply,
                                                                     std::wstring& resultText, QString kGuid)
{
    // The wide reply goes before the parse: a large reply is not held wide and parsed at once.
    std::string utf8 = QMText::ToUtf8(reply);
    std::wstring().swap(reply);
    return ExtractApiResult(std::move(path), std::move(body), timeoutMs, needLogin, sync, std::move(utf8), resultText,
                            std::move(kGuid));
}

namespace {

// The result text at its final size, straight from Qt's compact JSON, which is UTF-8 that
// Qt's own decoder reads code point for code point. Anything else takes Qt's road, as does a
// two-byte wchar_t, where QString's UTF-16 already is the result.
std::wstring WideFromUtf8(const QByteArray& utf8)
{
    const char* const begin = utf8.constData();
    const size_t size = static_cast<size_t>(utf8.size());
    if (QMText::IsAscii(begin, size))
        return std::wstring(begin, begin + size);
    const auto qtRoad = [&utf8] { return QString::fromUtf8(utf8).toStdWString(); };
    if (sizeof(wchar_t) < 4 || (size >= 3 && utf8.startsWith("\xEF\xBB\xBF")))
        return qtRoad(); // Qt drops a leading byte order mark
    const auto* bytes = reinterpret_cast<const unsigned char*>(begin);
    size_t count = 0;
    for (size_t i = 0; i < size; ++count) {
        const unsigned char lead = bytes[i];
        size_t length = 1;
        char32_t least = 0;
        if (lead >= 0xF0 && lead <= 0xF4)
            length = 4, least = 0x10000;
        else if (lead >= 0xE0 && lead <= 0xEF)
            length = 3, least = 0x800;
        else if (lead >= 0xC2 && lead <= 0xDF)
            length = 2, least = 0x80;
        else if (lead >= 0x80)
            return qtRoad();
        if (length > size - i)
            return qtRoad();
        char32_t point = lead & (0x7F >> length);
        for (size_t k = 1; k < length; ++k) {
            if ((bytes[i + k] & 0xC0) != 0x80)
                return qtRoad();
            point = (point << 6) | (bytes[i + k] & 0x3F);
        }
        if (point < least || point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF))
            return qtRoad();
        i += length;
    }
    std::wstring text(count, L'\0');
    wchar_t* out = &text[0];
    for (size_t i = 0; i < size; ++out) {
        const unsigned char lead = bytes[i];
        const size_t length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
        char32_t point = length == 1 ? lead : lead & (0x7F >> length);
        for (size_t k = 1; k < length; ++k)
            point = (point << 6) | (bytes[i + k] & 0x3F);
        *out = static_cast<wchar_t>(point);
        i += length;
    }
    return text;
}

} // namespace

CQMMemberWebService::EWSResult CQMMemberWebService::ExtractApiResult(std::wstring path, std::string body,
                                                                     int timeoutMs, bool needLogin, bool sync,
                                                                     std::string utf8Reply,
                                                                     std::wstring& resultText, QString kGuid)
{
    // What the wide road reads: each sequence that is not UTF-8 becomes a replacement character
    // (and a leading byte order mark goes). ASCII is read as it is, without a copy.
    if (!QMText::IsAscii(utf8Reply.data(), utf8Reply.size()))
        utf8Reply = QString::fromUtf8(utf8Reply.data(), static_cast<int>(utf8Reply.size())).toStdString();
    int apiStatus = 0;
    int status = -1;
    QJsonDocument document;
    const bool parsed = ParseJsonResult(QByteArray::fromRawData(utf8Reply.data(), static_cast<int>(utf8Reply.size())),
                                        apiStatus, status, document);
    // The reply goes before anything else is made from it.
    std::string().swap(utf8Reply);
    if (!parsed)
        return WS_PARSE_CONTENT_FAIL;

    // An expired token at the API level only refreshes; nothing is sent again.
    EWSResult outcome = ProcessStatus(apiStatus, [] { return WS_OK; }, true);
    if (outcome != WS_OK && outcome != WS_SERVER_BUSY)
        return outcome;

    outcome = ProcessStatus(
        status,
        // By reference: the retry runs, if at all, within this call; nothing is copied when it does not.
        [&]() {
            return DoApiRequest(path, body, timeoutMs, needLogin, sync, kGuid, std::wstring());
        },
        sync);

    if (outcome == WS_OK && status == WS_OK) {
        QByteArray compact;
        {
            const QJsonValue data =
                document.object().value(QLatin1String("result")).toObject().value(QLatin1String("data"));
            if (data.isObject())
                compact = QJsonDocument(data.toObject()).toJson(QJsonDocument::Compact);
            else if (data.isArray())
                compact = QJsonDocument(data.toArray()).toJson(QJsonDocument::Compact);
        }
        // The parsed reply goes before the wide text is made.
        document = QJsonDocument();
        resultText = WideFromUtf8(compact);
    }
    if (apiStatus == WS_SERVER_BUSY)
        return WS_SERVER_BUSY;
    return outcome;
}

CQMMemberWebService::EWSResult CQMMemberWebService::ProcessXmlReturnValue(const std::wstring& reply,
                                                                          QDomDocument& document, int& status)
{
    if (!document.setContent(Q(reply)))
        return WS_UNEXPECT_FAIL;
    QDomElement element;
    if (!FindQDomElement(document, QStringLiteral("ProductService"), element))
        return WS_UNEXPECT_FAIL;
    QDomElement statusElement;
    if (!FindQDomElement(document, QStringLiteral("Status"), statusElement) || statusElement.isNull())
        return WS_UNEXPECT_FAIL;
    status = statusElement.text().toInt(nullptr, 10);
    return WS_OK;
}

bool CQMMemberWebService::FindQDomElement(QDomDocument& document, QString tagName, QDomElement& element)
{
    const QDomNodeList list = document.elementsByTagName(tagName);
    if (list.isEmpty())
        return false;
    element = list.at(0).toElement();
    return true;
}

// --- connectivity ----------------------------------------------------------------------

bool CQMMemberWebService::CheckInternetConnection(int timeoutMs, bool useProxy, bool reserved)
{
    const bool active = CQMNetworkCenter::IsInternetConnectionActive(timeoutMs, useProxy, reserved);
    ms_bInternetConnection = active;
    ms_bCurrentInternetConnection = active;
    return active;
}

void CQMMemberWebService::SetCheckCurrentInternetConnection(bool check)
{
    ms_bCheckCurrentInternetConnection = check;
}

bool CQMMemberWebService::GetInternetConnectionFlag()
{
    return ms_bInternetConnection || !ms_bCheckCurrentInternetConnection || ms_bCurrentInternetConnection;
}
