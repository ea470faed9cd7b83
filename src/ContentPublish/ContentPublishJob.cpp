#include "QMContentPublishJob.h"

#include "QMMemberWebService.h"
#include "S3Client.h"
#include "../compat/QueuedCall.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QSaveFile>
#include <QTimer>

#include <algorithm>
#include <chrono>
#include <map>
#include <vector>

using QMPublish::S3Client;
using QMPublish::S3Part;
using QMPublish::S3Reply;

namespace {

constexpr qint64 kReadChunk = 1024 * 1024;

QJsonValue ReplyData(const std::wstring& text)
{
    const QJsonDocument document = QJsonDocument::fromJson(QString::fromStdWString(text).toUtf8());
    QJsonValue value = document.isArray() ? QJsonValue(document.array()) : QJsonValue(document.object());
    // The text may still be wrapped in the envelope's result and data.
    for (const char* wrapper : {"result", "data", "Data"}) {
        if (value.isObject() && value.toObject().contains(QLatin1String(wrapper)))
            value = value.toObject().value(QLatin1String(wrapper));
    }
    return value;
}

// Characters the storage and the service's pack IDs take without encoding.
QString SafeName(const QString& name)
{
    QString out = name;
    out.replace(QRegularExpression(QStringLiteral("[^A-Za-z0-9._-]")), QStringLiteral("_"));
    return out.left(100);
}

QString Words(const S3Reply& reply)
{
    if (reply.status == 0)
        return QString::fromStdString(reply.error);
    const std::string code = reply.Code();
    return QStringLiteral("the storage answered %1%2")
        .arg(reply.status)
        .arg(code.empty() ? QString() : QStringLiteral(" (%1)").arg(QString::fromStdString(code)));
}

} // namespace

CQMContentPublishJob::CQMContentPublishJob(CQMMemberWebService* service, Options options, QObject* parent)
    : QObject(parent)
    , m_service(service)
    , m_options(std::move(options))
{
    m_timer = new QTimer(this);
    m_timer->setInterval(200);
    connect(m_timer, &QTimer::timeout, this, &CQMContentPublishJob::Tick);
}

CQMContentPublishJob::~CQMContentPublishJob()
{
    m_cancel = true;
    if (m_thread.joinable())
        m_thread.join();
    disconnect(m_progressConnection);
    disconnect(m_resultConnection);
    if (m_phase == PhaseProcessing && !m_finished && m_service)
        m_service->StopUploadPolling();
}

void CQMContentPublishJob::start()
{
    QTimer::singleShot(0, this, &CQMContentPublishJob::Run);
}

void CQMContentPublishJob::kill()
{
    m_cancel = true;
    QMetaObject::invokeMethod(
        this,
        [this] {
            if (m_finished)
                return;
            if (m_phase == PhaseProcessing)
                m_service->StopUploadPolling(); // its UploadResult(-8) ends the job
            else if (!m_thread.joinable())
                Finish(Cancelled, tr("cancelled"));
            // A worker at work ends the job itself, after aborting what it started.
        },
        Qt::QueuedConnection);
}

void CQMContentPublishJob::Post(std::function<void()> work)
{
    QMetaObject::invokeMethod(this, QMCompat::Queued(std::move(work)), Qt::QueuedConnection);
}

void CQMContentPublishJob::InWorker(std::function<void()> work)
{
    if (m_thread.joinable())
        m_thread.join();
    m_thread = std::thread(std::move(work));
}

void CQMContentPublishJob::SetPhase(int phase, qint64 total)
{
    m_phase = phase;
    m_total = total;
    m_base = 0;
    m_done = 0;
    m_phaseStart = QDateTime::currentMSecsSinceEpoch();
    emit phaseChanged(phase);
    emit progress(phase, 0, total, 0, -1);
}

void CQMContentPublishJob::Tick()
{
    if (m_phase != PhaseHash && m_phase != PhaseTransfer)
        return;
    const qint64 done = std::min<qint64>(m_base + m_done.load(), m_total);
    const double seconds = std::max<qint64>(1, QDateTime::currentMSecsSinceEpoch() - m_phaseStart) / 1000.0;
    const double rate = (done - m_base) / seconds;
    const int eta = rate > 0 ? int((m_total - done) / rate) : -1;
    emit progress(m_phase, done, m_total, rate, eta);
}

void CQMContentPublishJob::Finish(int code, const QString& text)
{
    if (m_finished)
        return;
    m_finished = true;
    m_timer->stop();
    disconnect(m_progressConnection);
    disconnect(m_resultConnection);
    if (code == Published) {
        m_phase = PhaseDone;
        emit phaseChanged(PhaseDone);
    }
    emit result(code, text);
}

// --- hash ------------------------------------------------------------------------------

void CQMContentPublishJob::Run()
{
    if (m_finished) // cancelled before it began
        return;
    const QFileInfo info(m_options.filePath);
    if (!info.isFile() || !info.isReadable())
        return Finish(FileUnreadable, tr("cannot read %1").arg(m_options.filePath));
    m_size = info.size();
    SetPhase(PhaseHash, m_size);
    m_timer->start();
    InWorker([this] {
        QFile file(m_options.filePath);
        QCryptographicHash hash(QCryptographicHash::Sha256);
        if (!file.open(QIODevice::ReadOnly))
            return Post([this] { AfterHash(FileUnreadable, tr("cannot open %1").arg(m_options.filePath)); });
        QByteArray buffer(int(kReadChunk), Qt::Uninitialized);
        qint64 read = 0;
        while (!m_cancel && (read = file.read(buffer.data(), buffer.size())) > 0) {
            hash.addData(QByteArray::fromRawData(buffer.constData(), int(read)));
            m_done += read;
        }
        const QString sha = QString::fromLatin1(hash.result().toHex());
        const bool ok = read == 0 && m_done == m_size;
        Post([this, sha, ok] {
            m_sha256 = sha;
            if (m_cancel)
                return AfterHash(Cancelled, tr("cancelled"));
            AfterHash(ok ? Published : FileUnreadable, ok ? QString() : tr("%1 changed while it was read").arg(m_options.filePath));
        });
    });
}

// --- credentials and IDs ---------------------------------------------------------------

bool CQMContentPublishJob::ReadJournal()
{
    QFile file(JournalPath(m_options.filePath));
    if (!file.open(QIODevice::ReadOnly) || file.size() > 1024 * 1024)
        return false;
    const QJsonObject journal = QJsonDocument::fromJson(file.readAll()).object();
    // Until this job goes on with it, the journal's upload is one to abort: a new upload
    // replaces it, and its parts would stay on the storage otherwise.
    m_staleKey = journal.value(QStringLiteral("key")).toString();
    m_staleUploadId = journal.value(QStringLiteral("uploadId")).toString();
    if (!m_options.resume || journal.value(QStringLiteral("sha256")).toString() != m_sha256
        || journal.value(QStringLiteral("size")).toDouble() != double(m_size)
        || journal.value(QStringLiteral("partSize")).toDouble() != double(m_options.partSize)
        || journal.value(QStringLiteral("productId")).toString() != QString::fromStdWString(m_options.productId)
        || journal.value(QStringLiteral("version")).toString() != QString::fromStdWString(m_options.version))
        return false;
    m_packId = journal.value(QStringLiteral("packId")).toString();
    m_contentId = journal.value(QStringLiteral("contentId")).toString();
    m_key = journal.value(QStringLiteral("key")).toString();
    m_uploadId = journal.value(QStringLiteral("uploadId")).toString();
    if (m_packId.isEmpty() || m_contentId.isEmpty() || m_key.isEmpty())
        return false;
    m_staleKey.clear();
    m_staleUploadId.clear();
    return true;
}

namespace {

bool WriteJournal(const QString& path, const QJsonObject& journal)
{
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    file.write(QJsonDocument(journal).toJson(QJsonDocument::Compact));
    return file.commit();
}

} // namespace

void CQMContentPublishJob::AfterHash(int code, const QString& text)
{
    if (m_cancel)
        return Finish(Cancelled, tr("cancelled"));
    if (code != Published)
        return Finish(code, text);
    SetPhase(PhaseCredentials, 3);

    std::wstring out;
    int result = m_service->GetContentUploadInitInfo(m_options.productId, m_options.version, out, m_options.timeoutMs);
    if (result != Published)
        return Finish(result, tr("the service gave no upload info"));
    const QJsonObject init = ReplyData(out).toObject();
    const QString prefix = init.value(QStringLiteral("KeyPrefix")).toString();
    m_storageUrl = init.value(QStringLiteral("StorageURL")).toString().toStdString();
    if (prefix.isEmpty() || m_storageUrl.empty())
        return Finish(BadReply, tr("the upload info names no storage"));
    const double largest = init.value(QStringLiteral("MaxSize")).toDouble(0);
    if (largest > 0 && double(m_size) > largest)
        return Finish(TooLarge, tr("%1 bytes is above the largest upload, %2 bytes").arg(m_size).arg(qint64(largest)));
    emit progress(PhaseCredentials, 1, 3, 0, -1);

    std::wstring access, secret, bucket;
    result = m_service->GetContentUploadAWSInfo(access, secret, bucket, m_options.timeoutMs);
    if (result != Published)
        return Finish(result, tr("the service gave no storage credentials"));
    m_accessKey = QString::fromStdWString(access).toStdString();
    m_secretKey = QString::fromStdWString(secret).toStdString();
    m_bucket = QString::fromStdWString(bucket).toStdString();
    std::fill(secret.begin(), secret.end(), L'\0');
    emit progress(PhaseCredentials, 2, 3, 0, -1);

    if (!ReadJournal()) {
        m_uploadId.clear();
        out.clear();
        result = m_service->GetGenerateContentID({{m_options.productId, 1}}, out, m_options.timeoutMs);
        if (result != Published)
            return Finish(result, tr("the service allotted no content ID"));
        const QJsonArray lists = ReplyData(out).toArray();
        m_contentId = lists.isEmpty() ? QString()
                                      : lists.first().toObject().value(QStringLiteral("content_id")).toArray().first().toString();
        if (m_contentId.isEmpty())
            return Finish(BadReply, tr("the service's content IDs could not be read"));
        m_packId = SafeName(m_contentId) + QLatin1Char('-')
                   + QString::number(QRandomGenerator::global()->generate(), 16);
        m_key = prefix + SafeName(m_contentId) + QLatin1Char('/') + SafeName(QFileInfo(m_options.filePath).fileName());
    }
    emit progress(PhaseCredentials, 3, 3, 0, -1);
    if (m_cancel)
        return Finish(Cancelled, tr("cancelled"));

    SetPhase(PhaseTransfer, m_size);
    InWorker([this] {
        QString words;
        const int code = Transfer(words);
        Post([this, code, words] { AfterTransfer(code, words); });
    });
}

// --- transfer --------------------------------------------------------------------------

int CQMContentPublishJob::Transfer(QString& text)
{
    S3Client storage(m_storageUrl, m_accessKey, m_secretKey, m_bucket, m_cancel, m_done);
    storage.SetMaxRate(m_options.maxBytesPerSecond);
    storage.SetStallSeconds(m_options.stallSeconds);
    const std::string key = m_key.toStdString();
    const QString journalPath = JournalPath(m_options.filePath);
    bool skewCorrected = false;
    if (!m_staleKey.isEmpty() && !m_staleUploadId.isEmpty()) {
        storage.Abort(m_staleKey.toStdString(), m_staleUploadId.toStdString()); // gone already is fine
        m_staleUploadId.clear();
    }

    // One request with its retries: transport failures and 5xx again after 1, 2, 4 ... s,
    // a clock the storage refuses corrected once.
    auto attempt = [&](const std::function<S3Reply()>& request, int& code) {
        for (int tries = 0;; ++tries) {
            const long long before = m_done;
            S3Reply reply = request();
            if (reply.curlCode == 0 && reply.status >= 200 && reply.status < 300)
                return reply;
            m_done = before;
            if (m_cancel) {
                code = Cancelled;
                text = tr("cancelled");
                return reply;
            }
            const std::string storageCode = reply.Code();
            if (storageCode == "RequestTimeTooSkewed"
                || (reply.status == 403 && reply.body.find("valid Date") != std::string::npos)) {
                if (!skewCorrected && reply.date > 0) {
                    skewCorrected = true;
                    storage.SetClockOffset(reply.date - static_cast<long long>(std::time(nullptr)));
                    --tries;
                    continue;
                }
                code = ClockSkew;
                text = tr("the storage refuses our clock: %1").arg(Words(reply));
                return reply;
            }
            if (storageCode == "SignatureDoesNotMatch" || storageCode == "InvalidAccessKeyId"
                || (reply.status == 403 && storageCode == "AccessDenied")) {
                code = StorageRefusedCredentials;
                text = tr("the storage refused the credentials: %1").arg(Words(reply));
                return reply;
            }
            const bool transient = reply.status == 0 || reply.status >= 500;
            if (!transient || tries >= m_options.retries) {
                code = reply.curlCode == 28 /* CURLE_OPERATION_TIMEDOUT */ ? TransferStalled : StorageFailed;
                text = code == TransferStalled ? tr("no bytes moved for %1 s, %2 tries").arg(m_options.stallSeconds).arg(tries + 1)
                                               : Words(reply);
                return reply;
            }
            for (int waited = 0; waited < (1000 << std::min(tries, 5)) && !m_cancel; waited += 50)
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    };

    QFile file(m_options.filePath);
    if (!file.open(QIODevice::ReadOnly)) {
        text = tr("cannot open %1").arg(m_options.filePath);
        return FileUnreadable;
    }
    int code = Published;
    if (m_size < m_options.multipartThreshold) {
        const QByteArray data = file.readAll();
        if (data.size() != m_size) {
            text = tr("%1 changed while it was read").arg(m_options.filePath);
            return FileUnreadable;
        }
        attempt([&] { return storage.Put(key, data.constData(), size_t(data.size())); }, code);
        return code;
    }

    const qint64 partSize = std::max<qint64>(m_options.partSize, 5 * 1024 * 1024);
    const int count = int((m_size + partSize - 1) / partSize);
    std::map<int, S3Part> done;
    if (!m_uploadId.isEmpty()) {
        std::vector<S3Part> listed;
        S3Reply reply = storage.ListParts(key, m_uploadId.toStdString(), listed);
        if (reply.status == 200) {
            for (const S3Part& part : listed) {
                const qint64 expected = part.number == count ? m_size - (count - 1) * partSize : partSize;
                if (part.number <= count && part.size == expected)
                    done[part.number] = part;
            }
        } else {
            m_uploadId.clear(); // gone from the storage: start over
        }
    }
    if (m_uploadId.isEmpty()) {
        std::string uploadId;
        attempt([&] { return storage.Create(key, uploadId); }, code);
        if (code != Published)
            return code;
        if (uploadId.empty()) {
            text = tr("the storage gave no upload ID");
            return StorageFailed;
        }
        m_uploadId = QString::fromStdString(uploadId);
    }
    const std::string uploadId = m_uploadId.toStdString();
    QJsonObject journal{{QStringLiteral("sha256"), m_sha256},
                        {QStringLiteral("size"), double(m_size)},
                        {QStringLiteral("partSize"), double(m_options.partSize)},
                        {QStringLiteral("productId"), QString::fromStdWString(m_options.productId)},
                        {QStringLiteral("version"), QString::fromStdWString(m_options.version)},
                        {QStringLiteral("packId"), m_packId},
                        {QStringLiteral("contentId"), m_contentId},
                        {QStringLiteral("key"), m_key},
                        {QStringLiteral("uploadId"), m_uploadId}};
    auto save = [&] {
        QJsonArray parts;
        for (const auto& entry : done)
            parts.append(QJsonObject{{QStringLiteral("n"), entry.first},
                                     {QStringLiteral("etag"), QString::fromStdString(entry.second.etag)}});
        journal.insert(QStringLiteral("parts"), parts);
        WriteJournal(journalPath, journal);
    };
    save();
    m_partsFound = int(done.size());
    for (const auto& entry : done)
        m_base += entry.second.size;

    QByteArray buffer;
    for (int number = 1; number <= count && code == Published; ++number) {
        if (done.count(number))
            continue;
        if (m_cancel) {
            code = Cancelled;
            break;
        }
        const qint64 size = std::min(partSize, m_size - (number - 1) * partSize);
        buffer.resize(int(size));
        if (!file.seek((number - 1) * partSize) || file.read(buffer.data(), size) != size) {
            text = tr("%1 changed while it was sent").arg(m_options.filePath);
            code = FileUnreadable;
            break;
        }
        const S3Reply reply =
            attempt([&] { return storage.UploadPart(key, uploadId, number, buffer.constData(), size_t(size)); }, code);
        if (code != Published)
            break;
        done[number] = S3Part{number, reply.etag, size};
        save();
        ++m_partsSent;
        Post([this, number, count] { emit partSent(number, count); });
    }
    if (code == Published) {
        std::vector<S3Part> parts;
        for (const auto& entry : done)
            parts.push_back(entry.second);
        attempt([&] { return storage.Complete(key, uploadId, parts); }, code);
    }
    if (code == Cancelled) {
        // Nothing stays behind: the parts go from the storage, the journal from the disk.
        std::atomic<bool> never{false};
        std::atomic<long long> ignored{0};
        S3Client cleaner(m_storageUrl, m_accessKey, m_secretKey, m_bucket, never, ignored);
        cleaner.SetClockOffset(storage.ClockOffset());
        cleaner.Abort(key, uploadId);
        QFile::remove(journalPath);
        text = tr("cancelled");
    }
    return code;
}

// --- metadata and processing -----------------------------------------------------------

void CQMContentPublishJob::AfterTransfer(int code, const QString& text)
{
    if (m_thread.joinable())
        m_thread.join();
    if (code != Published)
        return Finish(code, text);
    if (m_cancel)
        return Finish(Cancelled, tr("cancelled"));
    m_timer->stop();
    emit progress(PhaseTransfer, m_size, m_size, 0, 0);
    SetPhase(PhaseMetadata, 1);
    const QString title = m_options.title.isEmpty() ? QFileInfo(m_options.filePath).completeBaseName() : m_options.title;
    const QJsonObject item{{QStringLiteral("ContentID"), m_contentId},
                           {QStringLiteral("Title"), title},
                           {QStringLiteral("Type"), m_options.type},
                           {QStringLiteral("Key"), m_key},
                           {QStringLiteral("Size"), double(m_size)},
                           {QStringLiteral("SHA256"), m_sha256}};
    const QJsonObject metadata{{QStringLiteral("PackID"), m_packId},
                               {QStringLiteral("ProductID"), QString::fromStdWString(m_options.productId)},
                               {QStringLiteral("Version"), QString::fromStdWString(m_options.version)},
                               {QStringLiteral("Items"), QJsonArray{item}}};
    const int result = m_service->UploadContentMetaData(
        QString::fromUtf8(QJsonDocument(metadata).toJson(QJsonDocument::Compact)).toStdWString(), m_options.timeoutMs,
        true);
    if (result != Published)
        return Finish(result, tr("the service did not take the metadata"));
    // The pack is the service's now: a new job starts afresh.
    QFile::remove(JournalPath(m_options.filePath));
    emit progress(PhaseMetadata, 1, 1, 0, 0);

    SetPhase(PhaseProcessing, 100);
    m_progressConnection = connect(m_service, &CQMMemberWebService::UploadMetaDataProgress, this, [this](int percent) {
        const double seconds = std::max<qint64>(1, QDateTime::currentMSecsSinceEpoch() - m_phaseStart) / 1000.0;
        const double rate = percent / seconds;
        emit progress(PhaseProcessing, percent, 100, rate, rate > 0 ? int((100 - percent) / rate) : -1);
    });
    m_resultConnection = connect(m_service, &CQMMemberWebService::UploadResult, this, [this](int status) {
        if (status == -8 && m_cancel)
            return Finish(Cancelled, tr("cancelled while the service processed the pack"));
        std::wstring out;
        QString last;
        if (int(m_service->GetUploadContentMetaDataLog(m_packId.toStdWString(), out, m_options.timeoutMs)) == Published) {
            const QStringList lines = ReplyData(out).toObject().value(QStringLiteral("Log")).toString().split(
                QLatin1Char('\n'), Qt::SkipEmptyParts);
            last = lines.isEmpty() ? QString() : lines.last();
        }
        if (status == Published)
            emit progress(PhaseProcessing, 100, 100, 0, 0);
        Finish(status, last.isEmpty() ? tr("processing ended with status %1").arg(status) : last);
    });
    // A polling of the host's own would swallow the start and leave the job waiting for ever.
    if (m_service->IsUploadPollingThreadRunning())
        return Finish(PollingBusy, tr("another upload polling runs on this service; pack %1 is processed all the same")
                                       .arg(m_packId));
    m_service->MemberUploadPollingAsync(m_packId.toStdWString(), 0, m_options.pollIntervalMs, false);
    if (m_cancel)
        m_service->StopUploadPolling();
}
