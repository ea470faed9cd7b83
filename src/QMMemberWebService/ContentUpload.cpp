// Content upload and upload polling.
#include "QMMemberWebService.h"

#include "AwsInfoKey.h"
#include "Cipher.h"
#include "ServicePrivate.h"
#include "../qmnetwork/TextConvert.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QPointer>
#include <QThread>

#include <algorithm>
#include <utility>

using namespace QMService;

namespace {

constexpr int kLogRequestTimeoutMs = 30000;
// A status that stays 0 or 11 would otherwise be polled for ever: past this many
// passes (more than a day at one pass a second) the loop ends as timed out.
constexpr int kMaxUploadPollPasses = 100000;
// How long the host waits for an ended polling thread to be gone.
constexpr unsigned long kPollingThreadEndMs = 5000;

// The query value as the other content calls append it: unencoded.
std::wstring UploadUrl(const wchar_t* path, const wchar_t* key, const std::wstring& value)
{
    return std::wstring(path) + key + value;
}

} // namespace

// --- the five upload calls -------------------------------------------------------------

CQMMemberWebService::EWSResult CQMMemberWebService::GetContentUploadInitInfo(const std::wstring& productId,
                                                                             const std::wstring& version,
                                                                             std::wstring& out, int timeout)
{
    const std::wstring url =
        UploadUrl(L"/ContentManager/v1/Upload/UploadInfoInit", L"?ProductID=", productId) + L"&Version=" + version;
    return ContentSyncRequest(url, std::string(), timeout, true, out);
}

CQMMemberWebService::EWSResult CQMMemberWebService::GetContentUploadAWSInfo(std::wstring& accessKey,
                                                                            std::wstring& secretKey,
                                                                            std::wstring& bucketName, int timeout)
{
    std::wstring text;
    const EWSResult result =
        ContentSyncRequest(L"/ContentManager/v1/Upload/AWSInfo", std::string(), timeout, true, text);
    // Whatever went wrong after the request, a failed request included, is a parse failure.
    const QJsonDocument reply = QJsonDocument::fromJson(QByteArray::fromStdString(QMText::ToUtf8(text)));
    if (reply.isNull() || reply.object().isEmpty()) {
        qCWarning(lcService) << "CQMMemberWebService::GetContentUploadAWSInfo no reply to read, result" << int(result);
        return WS_PARSE_CONTENT_FAIL;
    }
    const QByteArray hex = reply.object().value(QLatin1String("aws_info")).toString().toLatin1();
    std::string key = AwsInfoKey();
    QByteArray keyBytes(key.data(), int(key.size()));
    std::fill(key.begin(), key.end(), '\0');
    QString plain;
    const bool deciphered = QMCipher::Decrypt(hex, keyBytes, plain);
    keyBytes.fill('\0');
    const QJsonDocument info = deciphered ? QJsonDocument::fromJson(plain.toUtf8()) : QJsonDocument();
    plain.fill(QLatin1Char('\0'));
    if (info.isNull()) {
        qCWarning(lcService) << "CQMMemberWebService::GetContentUploadAWSInfo aws_info does not decipher";
        return WS_PARSE_CONTENT_FAIL;
    }
    const QJsonObject object = info.object();
    accessKey = object.value(QLatin1String("aws_accesskey")).toString().toStdWString();
    secretKey = object.value(QLatin1String("aws_secretkey")).toString().toStdWString();
    bucketName = object.value(QLatin1String("aws_bucketname")).toString().toStdWString();
    if (accessKey.empty() || secretKey.empty() || bucketName.empty()) {
        qCWarning(lcService) << "CQMMemberWebService::GetContentUploadAWSInfo a credential is missing";
        return WS_PARSE_CONTENT_FAIL;
    }
    return result;
}

CQMMemberWebService::EWSResult CQMMemberWebService::GetGenerateContentID(std::map<std::wstring, int> countsByProduct,
                                                                         std::wstring& out, int timeout)
{
    // Every entry ends in "},", the last too: the service reads the list with its trailing comma.
    std::string body = "{\"generate_info\":[";
    for (const auto& entry : countsByProduct) {
        body += "{\"ap_product\":\"";
        body += QMText::ToUtf8(entry.first);
        body += "\",\"count\":";
        body += std::to_string(entry.second);
        body += "},";
    }
    body += "]}";
    return ContentSyncRequest(L"/ContentManager/v1/Upload/GenerateContentID", std::move(body), timeout, true, out);
}

CQMMemberWebService::EWSResult CQMMemberWebService::UploadContentMetaData(const std::wstring& metaData, int timeout,
                                                                          bool whole)
{
    const std::wstring path = whole ? L"/ContentManager/v1/Upload/UploadMetaData"
                                    : L"/ContentManager/v1/Upload/UploadMetaData/Item";
    // No identifier and no handler: the reply's data is not read.
    return DoApiRequest(path, QMText::ToUtf8(metaData), timeout, true, true, QString(), std::wstring());
}

CQMMemberWebService::EWSResult CQMMemberWebService::GetUploadContentMetaDataLog(const std::wstring& packId,
                                                                                std::wstring& out, int timeout)
{
    return ContentSyncRequest(UploadUrl(L"/ContentManager/v1/Upload/GetUploadedContentProcessLog", L"?PackID=", packId),
                              std::string(), timeout, false, out);
}

// --- upload polling --------------------------------------------------------------------

void CQMMemberWebService::MemberUploadPollingAsync(const std::wstring& packId, int pollArg, int pollIntervalMs,
                                                   bool pollFlag)
{
    qCDebug(lcService) << "CQMMemberWebService::MemberUploadPollingAsync()";
    // An inner service at work belongs to its thread: a second start leaves it alone.
    if (m_pWorkerLink && m_pWorkerLink->WithInner([](CQMMemberWebService*) {})) {
        qCWarning(lcService) << "CQMMemberWebService::MemberUploadPollingAsync a polling runs already";
        return;
    }
    m_bAsyncLogin = true;
    m_bPollingThreadRunning = true;
    CQMMemberWebService* inner = InnerMemberService();
    if (!inner) {
        m_bAsyncLogin = false;
        m_bPollingThreadRunning = false;
        return;
    }
    if (!m_pWorkerLink) // an InnerMemberService of a subclass
        m_pWorkerLink = std::make_shared<CQMWorkerLink>(this);
    inner->m_strPollPackId = packId;
    inner->m_nPollArg = pollArg;
    inner->m_nPollIntervalMs = pollIntervalMs;
    inner->m_bPollFlag = pollFlag;
    inner->m_bUploadStop = false;

    auto* thread = new QThread;
    inner->moveToThread(thread);
    connect(thread, SIGNAL(started()), inner, SLOT(OnMemberUploadPolling()));
    // Run on the worker thread (the inner service is their context); the host's signals are
    // posted to the host's thread through the link, which drops them once the host is gone.
    const std::shared_ptr<CQMWorkerLink> link = m_pWorkerLink;
    connect(inner, &CQMMemberWebService::UploadResult, inner, [link](int status) {
        QThread::currentThread()->quit();
        link->Post([status](CQMMemberWebService* owner) { emit owner->UploadResult(status); });
    });
    connect(inner, &CQMMemberWebService::UploadMetaDataProgress, inner, [link](int progress) {
        link->Post([progress](CQMMemberWebService* owner) { emit owner->UploadMetaDataProgress(progress); });
    });
    // The inner service is deleted as its thread ends; waiting for that end here means that a
    // host which sees IsUploadPollingThreadRunning() false may start the next polling at once.
    const QPointer<QThread> ending(thread);
    connect(thread, &QThread::finished, this, [this, ending] {
        qCDebug(lcService) << "OnMemberUploadPolling thread finished";
        if (ending && ending != QThread::currentThread())
            ending->wait(kPollingThreadEndMs);
        m_bAsyncLogin = false;
        m_bPollingThreadRunning = false;
    });
    // The inner service is deleted in its own thread as that thread ends.
    connect(thread, &QThread::finished, inner, &QObject::deleteLater);
    connect(thread, SIGNAL(finished()), thread, SLOT(deleteLater()));
    m_pWorkerLink->AddThread(thread);
    thread->start(QThread::InheritPriority);
}

void CQMMemberWebService::StopUploadPolling()
{
    qCDebug(lcService) << "CQMMemberWebService::StopUploadPolling()";
    if (m_pWorkerLink)
        m_pWorkerLink->WithInner([](CQMMemberWebService* inner) { inner->StopInnerUploadPolling(); });
}

void CQMMemberWebService::OnMemberUploadPolling()
{
    qCDebug(lcService) << "CQMMemberWebService::OnMemberUploadPolling()";
    if (m_bUploadPolling.exchange(true))
        return;
    int status = 0;
    int passes = 0;
    while (m_bUploadPolling) {
        if (++passes > kMaxUploadPollPasses) {
            qCWarning(lcService) << "CQMMemberWebService::OnMemberUploadPolling gives up after" << kMaxUploadPollPasses
                                 << "passes";
            status = WS_CONNECTION_TIMEOUT;
            break;
        }
        // Slept in slices so that a stop takes effect at once.
        for (int slept = 0; slept < m_nPollIntervalMs && !m_bUploadStop; slept += 10)
            QThread::msleep(static_cast<unsigned long>(qMin(10, m_nPollIntervalMs - slept)));
        if (m_bUploadStop) {
            status = WS_CONNECTION_TIMEOUT;
            break;
        }
        std::wstring log;
        GetUploadContentMetaDataLog(m_strPollPackId, log, kLogRequestTimeoutMs);
        if (m_bUploadStop) {
            status = WS_CONNECTION_TIMEOUT;
            break;
        }
        if (log.empty()) {
            status = WS_UNEXPECT_FAIL;
            break;
        }
        const QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(QMText::ToUtf8(log)));
        if (document.isNull()) {
            status = WS_UNEXPECT_FAIL;
            break;
        }
        const QJsonObject object = document.object();
        status = object.value(QLatin1String("ProcessStatus")).toInt(0);
        if (status == 11)
            emit UploadMetaDataProgress(0);
        else if (status == 0)
            emit UploadMetaDataProgress(object.value(QLatin1String("Percentage")).toInt(0));
        if (status != 0 && status != 11)
            m_bUploadPolling = false;
    }
    m_bUploadPolling = false;
    qCDebug(lcService) << "CQMMemberWebService::OnMemberUploadPolling UploadResult" << status;
    emit UploadResult(status);
}
