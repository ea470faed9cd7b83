#include "UploadProcessor.h"

#include "ContentCatalogue.h"
#include "ServerState.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <openssl/evp.h>

#include <memory>

namespace {

QString Text(const unsigned char* bytes, size_t size)
{
    return QString::fromLatin1(QByteArray(reinterpret_cast<const char*>(bytes), int(size)).toHex());
}

bool ReadMetadata(sqlite3* db, const QString& packId, QJsonObject& metadata, QString& member)
{
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db, "SELECT metadata, member FROM upload_packs WHERE pack_id=?", -1, &statement, nullptr)
        != SQLITE_OK)
        return false;
    const QByteArray id = packId.toUtf8();
    sqlite3_bind_text(statement, 1, id.constData(), id.size(), SQLITE_TRANSIENT);
    bool found = false;
    if (sqlite3_step(statement) == SQLITE_ROW) {
        metadata = QJsonDocument::fromJson(QByteArray(reinterpret_cast<const char*>(sqlite3_column_text(statement, 0))))
                       .object();
        member = QString::fromUtf8(reinterpret_cast<const char*>(sqlite3_column_text(statement, 1)));
        found = true;
    }
    sqlite3_finalize(statement);
    return found;
}

} // namespace

UploadProcessor::UploadProcessor(ServerState& state, const UploadStorage& storage)
    : m_state(state)
    , m_storage(storage)
    , m_thread([this] { Run(); })
{
}

UploadProcessor::~UploadProcessor()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
    }
    m_wake.notify_all();
    m_thread.join();
}

void UploadProcessor::Enqueue(const QString& packId)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_queue.push_back(packId);
    }
    m_wake.notify_all();
}

void UploadProcessor::Run()
{
    for (;;) {
        QString packId;
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_wake.wait(lock, [this] { return m_stop || !m_queue.empty(); });
            if (m_stop)
                return;
            packId = m_queue.front();
            m_queue.pop_front();
        }
        Process(packId);
    }
}

void UploadProcessor::Report(const QString& packId, int status, int percentage, const QString& line)
{
    m_state.WithDatabase([&](sqlite3* db) {
        sqlite3_stmt* statement = nullptr;
        sqlite3_prepare_v2(db,
                           "UPDATE upload_packs SET status=?, percentage=?, "
                           "log=CASE WHEN ?='' THEN log ELSE log || ? || char(10) END WHERE pack_id=?",
                           -1, &statement, nullptr);
        const QByteArray text = line.toUtf8();
        const QByteArray id = packId.toUtf8();
        sqlite3_bind_int(statement, 1, status);
        sqlite3_bind_int(statement, 2, percentage);
        sqlite3_bind_text(statement, 3, text.constData(), text.size(), SQLITE_TRANSIENT);
        sqlite3_bind_text(statement, 4, text.constData(), text.size(), SQLITE_TRANSIENT);
        sqlite3_bind_text(statement, 5, id.constData(), id.size(), SQLITE_TRANSIENT);
        sqlite3_step(statement);
        sqlite3_finalize(statement);
    });
}

void UploadProcessor::Process(const QString& packId)
{
    QJsonObject metadata;
    QString member;
    if (!m_state.WithDatabase([&](sqlite3* db) { return ReadMetadata(db, packId, metadata, member); }))
        return;
    Report(packId, Running, 0, QStringLiteral("Processing pack %1").arg(packId));

    // Every item must name its object, size and hash before anything is fetched.
    const QJsonArray items = metadata.value(QStringLiteral("Items")).toArray();
    const QString productId = metadata.value(QStringLiteral("ProductID")).toString();
    double total = 0;
    for (int i = 0; i < items.size(); ++i) {
        const QJsonObject item = items.at(i).toObject();
        const QString why = item.value(QStringLiteral("ContentID")).toString().isEmpty() ? QStringLiteral("ContentID")
                            : item.value(QStringLiteral("Key")).toString().isEmpty()     ? QStringLiteral("Key")
                            : item.value(QStringLiteral("SHA256")).toString().size() != 64 ? QStringLiteral("SHA256")
                            : item.value(QStringLiteral("Size")).toDouble(-1) < 0          ? QStringLiteral("Size")
                                                                                          : QString();
        if (!why.isEmpty())
            return Report(packId, BadMetadata, 0, QStringLiteral("Item %1: \"%2\" missing or invalid").arg(i).arg(why));
        total += item.value(QStringLiteral("Size")).toDouble();
    }
    if (items.isEmpty() || productId.isEmpty())
        return Report(packId, BadMetadata, 0, QStringLiteral("The pack names no product or no items"));
    if (!m_storage.Configured())
        return Report(packId, StorageFailed, 0, QStringLiteral("The server has no storage configured"));

    double checked = 0;
    int percentage = 0;
    for (const QJsonValue& value : items) {
        const QJsonObject item = value.toObject();
        const QString key = item.value(QStringLiteral("Key")).toString();
        std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> hash(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
        EVP_DigestInit_ex(hash.get(), EVP_sha256(), nullptr);
        double size = 0;
        long http = 0;
        std::string error;
        const bool fetched = m_storage.Fetch(
            key.toStdString(),
            [&](const char* data, size_t length) {
                EVP_DigestUpdate(hash.get(), data, length);
                size += double(length);
                const int now = total > 0 ? int((checked + size) * 100 / total) : 0;
                if (now != percentage && now < 100) {
                    percentage = now;
                    Report(packId, Running, percentage, QString());
                }
                return true;
            },
            m_stop, http, error);
        if (m_stop)
            return;
        if (!fetched && http == 404)
            return Report(packId, ObjectMissing, percentage, QStringLiteral("Object %1 is missing").arg(key));
        if (!fetched)
            return Report(packId, StorageFailed, percentage,
                          QStringLiteral("Object %1 could not be read: %2").arg(key, QString::fromStdString(error)));
        unsigned char digest[EVP_MAX_MD_SIZE];
        unsigned int digestSize = 0;
        EVP_DigestFinal_ex(hash.get(), digest, &digestSize);
        const double expected = item.value(QStringLiteral("Size")).toDouble();
        if (size != expected)
            return Report(packId, SizeMismatch, percentage,
                          QStringLiteral("Object %1 holds %2 bytes, the metadata says %3")
                              .arg(key)
                              .arg(qint64(size))
                              .arg(qint64(expected)));
        if (Text(digest, digestSize) != item.value(QStringLiteral("SHA256")).toString().toLower())
            return Report(packId, HashMismatch, percentage,
                          QStringLiteral("Object %1 does not have the SHA-256 of the metadata").arg(key));
        checked += size;
        Report(packId, Running, percentage,
               QStringLiteral("Object %1 checked: %2 bytes, SHA-256 matches").arg(key).arg(qint64(size)));
    }

    // All items or none: a pack is never half-published.
    std::string error;
    const bool published = m_state.WithDatabase([&](sqlite3* db) {
        sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr);
        for (const QJsonValue& value : items) {
            const QJsonObject item = value.toObject();
            ContentCatalogue::PublishedItem published;
            published.contentId = item.value(QStringLiteral("ContentID")).toString();
            published.productId = productId;
            published.version = metadata.value(QStringLiteral("Version")).toString();
            published.typeId = item.value(QStringLiteral("Type")).toInt();
            published.title = item.value(QStringLiteral("Title")).toString();
            published.ownerMid = member;
            published.price = 0;
            published.sha256 = item.value(QStringLiteral("SHA256")).toString().toLower();
            published.metadata = item;
            int fileVersion = 0;
            if (!ContentCatalogue::AddPublishedItemLocked(db, published, fileVersion, error)) {
                sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
                return false;
            }
        }
        return sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK;
    });
    if (!published)
        return Report(packId, StorageFailed, percentage,
                      QStringLiteral("Publishing failed: %1").arg(QString::fromStdString(error)));
    Report(packId, Published, 100, QStringLiteral("Published %1 item(s)").arg(items.size()));
}
