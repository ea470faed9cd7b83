// The upload service area of qmmember-server: what may be uploaded, the storage
// credentials, new content IDs, pack metadata and the processing of uploaded packs.
#include "MemberServer.h"

#include "../src/QMMemberWebService/AwsInfoKey.h"
#include "UploadProcessor.h"
#include "UploadStorage.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>

#include <array>
#include <deque>
#include <map>
#include <mutex>

namespace {

using httplib::Request;
using httplib::Response;

constexpr int kStatusParam = 4; // the request's parameters are bad
constexpr int kStatusNoStorage = 5;
constexpr double kLargestUpload = 2.0 * 1024 * 1024 * 1024;

QString Text(const std::string& text)
{
    return QString::fromUtf8(text.data(), int(text.size()));
}

// RC4 as the library's cipher does it, written as uppercase hexadecimal.
QString Encipher(const QByteArray& plain)
{
    std::string key = QMService::AwsInfoKey();
    std::array<unsigned char, 256> s;
    for (int i = 0; i < 256; ++i)
        s[i] = static_cast<unsigned char>(i);
    unsigned char j = 0;
    for (int i = 0; i < 256; ++i) {
        j = static_cast<unsigned char>(j + static_cast<unsigned char>(key[i % key.size()]) + s[i]);
        std::swap(s[i], s[j]);
    }
    std::fill(key.begin(), key.end(), '\0');
    QByteArray out(plain.size(), '\0');
    unsigned char a = 0;
    unsigned char b = 0;
    for (int n = 0; n < plain.size(); ++n) {
        a = static_cast<unsigned char>(a + 1);
        b = static_cast<unsigned char>(b + s[a]);
        std::swap(s[a], s[b]);
        out[n] = static_cast<char>(plain[n] ^ s[static_cast<unsigned char>(s[a] + s[b])]);
    }
    return QString::fromLatin1(out.toHex().toUpper());
}

// The library sends its list with a comma before the closing bracket, which strict JSON
// refuses: commas right before "]" or "}" are dropped (product IDs hold neither).
QJsonObject LenientObject(const std::string& body)
{
    QString text = Text(body);
    text.replace(QRegularExpression(QStringLiteral(",\\s*([\\]}])")), QStringLiteral("\\1"));
    return QJsonDocument::fromJson(text.toUtf8()).object();
}

class UploadArea : public ServiceArea
{
public:
    explicit UploadArea(MemberServer& server)
        : m_server(server)
        , m_storage(server.Options().storageUrl, server.Options().storageKey, server.Options().storageSecret,
                    server.Options().bucket)
    {
    }

    bool Open(std::string& error) override
    {
        const bool ok = m_server.State().WithDatabase([&](sqlite3* db) {
            const char* sql = "CREATE TABLE IF NOT EXISTS upload_packs(pack_id TEXT PRIMARY KEY, member TEXT, "
                              "metadata TEXT, status INTEGER, percentage INTEGER, log TEXT);"
                              "CREATE TABLE IF NOT EXISTS upload_ids(product TEXT PRIMARY KEY, next INTEGER)";
            return sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
        });
        if (!ok) {
            error = "cannot create the upload tables";
            return false;
        }
        // A storage that is down now may be up later: the bucket is made again on each credential request.
        if (m_storage.Configured()) {
            std::string ignored;
            m_storage.EnsureBucket(ignored);
        }
        m_processor = std::make_unique<UploadProcessor>(m_server.State(), m_storage);
        return true;
    }

    void AddRoutes(httplib::Server& http, bool admin) override
    {
        // Tests script the processing log of a pack: {"PackID", "logs": [...]}; each log request
        // takes the next entry and the last one stays. An object is the reply's data, a string is
        // sent as the whole raw reply, null answers with no data.
        if (admin) {
            http.Post("/admin/upload/script", [this](const Request& request, Response& response) {
                const QJsonObject body = QJsonDocument::fromJson(QByteArray::fromStdString(request.body)).object();
                const QString packId = body.value(QStringLiteral("PackID")).toString();
                const QJsonArray logs = body.value(QStringLiteral("logs")).toArray();
                if (packId.isEmpty() || logs.isEmpty())
                    return m_server.SendJson(response, QJsonObject{{QStringLiteral("error"),
                                                                    QStringLiteral("PackID and logs required")}},
                                             400);
                std::lock_guard<std::mutex> lock(m_scriptMutex);
                m_scripts[packId] = std::deque<QJsonValue>(logs.begin(), logs.end());
                response.set_content("{\"ok\":true}", "application/json");
            });
        }
        http.Get("/ContentManager/v1/Upload/UploadInfoInit",
                 [this](const Request& request, Response& response) { InitInfo(request, response); });
        http.Get("/ContentManager/v1/Upload/AWSInfo",
                 [this](const Request& request, Response& response) { AwsInfo(request, response); });
        http.Post("/ContentManager/v1/Upload/GenerateContentID",
                  [this](const Request& request, Response& response) { GenerateIds(request, response); });
        http.Post("/ContentManager/v1/Upload/UploadMetaData",
                  [this](const Request& request, Response& response) { MetaData(request, response, true); });
        http.Post("/ContentManager/v1/Upload/UploadMetaData/Item",
                  [this](const Request& request, Response& response) { MetaData(request, response, false); });
        http.Get("/ContentManager/v1/Upload/GetUploadedContentProcessLog",
                 [this](const Request& request, Response& response) { ProcessLog(request, response); });
    }

private:
    // The member of a valid token; otherwise the reply is sent and false returned.
    bool Member(const Request& request, Response& response, QString& member)
    {
        switch (m_server.CheckToken(request, member)) {
        case ServerState::TokenState::Valid:
            return true;
        case ServerState::TokenState::Expired:
            m_server.SendEnvelope(request, response, 2, 6, QJsonValue());
            return false;
        default:
            m_server.SendEnvelope(request, response, 2, 13, QJsonValue());
            return false;
        }
    }

    void InitInfo(const Request& request, Response& response)
    {
        QString member;
        if (!Member(request, response, member))
            return;
        const QString product = Text(request.get_param_value("ProductID"));
        if (product.isEmpty())
            return m_server.SendEnvelope(request, response, 2, kStatusParam, QJsonValue());
        m_server.SendEnvelope(
            request, response, 2, 2,
            QJsonObject{{QStringLiteral("ProductID"), product},
                        {QStringLiteral("Version"), Text(request.get_param_value("Version"))},
                        {QStringLiteral("Types"), QJsonArray{1, 2, 3}},
                        {QStringLiteral("MaxSize"), kLargestUpload},
                        {QStringLiteral("Bucket"), QString::fromStdString(m_storage.Bucket())},
                        {QStringLiteral("StorageURL"), QString::fromStdString(m_server.Options().storageUrl)},
                        {QStringLiteral("KeyPrefix"), QStringLiteral("members/%1/").arg(member)}});
    }

    void AwsInfo(const Request& request, Response& response)
    {
        QString member;
        if (!Member(request, response, member))
            return;
        if (!m_storage.Configured())
            return m_server.SendEnvelope(request, response, 2, kStatusNoStorage, QJsonValue());
        std::string ignored;
        m_storage.EnsureBucket(ignored);
        const QJsonObject info{{QStringLiteral("aws_accesskey"), QString::fromStdString(m_server.Options().storageKey)},
                               {QStringLiteral("aws_secretkey"), QString::fromStdString(m_server.Options().storageSecret)},
                               {QStringLiteral("aws_bucketname"), QString::fromStdString(m_storage.Bucket())}};
        m_server.SendEnvelope(request, response, 2, 2,
                              QJsonObject{{QStringLiteral("aws_info"),
                                           Encipher(QJsonDocument(info).toJson(QJsonDocument::Compact))}});
    }

    void GenerateIds(const Request& request, Response& response)
    {
        QString member;
        if (!Member(request, response, member))
            return;
        const QJsonValue list = LenientObject(request.body).value(QStringLiteral("generate_info"));
        if (!list.isArray())
            return m_server.SendEnvelope(request, response, 2, kStatusParam, QJsonValue());
        QJsonArray out;
        for (const QJsonValue& value : list.toArray()) {
            const QString product = value.toObject().value(QStringLiteral("ap_product")).toString();
            const int count = value.toObject().value(QStringLiteral("count")).toInt(-1);
            if (product.isEmpty() || count < 0 || count > 1000)
                return m_server.SendEnvelope(request, response, 2, kStatusParam, QJsonValue());
            const qint64 first = m_server.State().WithDatabase([&](sqlite3* db) {
                sqlite3_stmt* statement = nullptr;
                sqlite3_prepare_v2(db,
                                   "INSERT INTO upload_ids(product, next) VALUES(?, 1 + ?) ON CONFLICT(product) "
                                   "DO UPDATE SET next = next + ? RETURNING next - ?",
                                   -1, &statement, nullptr);
                const QByteArray name = product.toUtf8();
                sqlite3_bind_text(statement, 1, name.constData(), name.size(), SQLITE_TRANSIENT);
                for (int i = 2; i <= 4; ++i)
                    sqlite3_bind_int(statement, i, count);
                const qint64 value = sqlite3_step(statement) == SQLITE_ROW ? sqlite3_column_int64(statement, 0) : 1;
                sqlite3_finalize(statement);
                return value;
            });
            QJsonArray ids;
            for (int i = 0; i < count; ++i)
                ids.append(QStringLiteral("%1-%2").arg(product).arg(first + i, 6, 10, QLatin1Char('0')));
            out.append(QJsonObject{{QStringLiteral("ap_product"), product}, {QStringLiteral("content_id"), ids}});
        }
        m_server.SendEnvelope(request, response, 2, 2, out);
    }

    // {"PackID", "ProductID", "Version", "Items": [{"ContentID", "Title", "Type", "Key", "Size", "SHA256"}]};
    // one item posts {"PackID", "ProductID", "Version", "Item": {...}}.
    void MetaData(const Request& request, Response& response, bool whole)
    {
        QString member;
        if (!Member(request, response, member))
            return;
        QJsonObject metadata = QJsonDocument::fromJson(QByteArray::fromStdString(request.body)).object();
        const QString packId = metadata.value(QStringLiteral("PackID")).toString();
        if (!whole)
            metadata.insert(QStringLiteral("Items"), QJsonArray{metadata.take(QStringLiteral("Item"))});
        static const QRegularExpression safe(QStringLiteral("^[A-Za-z0-9._-]{1,64}$"));
        if (!safe.match(packId).hasMatch())
            return m_server.SendEnvelope(request, response, 2, kStatusParam, QJsonValue());
        const int stored = m_server.State().WithDatabase([&](sqlite3* db) {
            sqlite3_stmt* statement = nullptr;
            sqlite3_prepare_v2(db,
                               "INSERT INTO upload_packs(pack_id, member, metadata, status, percentage, log) "
                               "VALUES(?, ?, ?, 11, 0, 'Queued' || char(10)) ON CONFLICT(pack_id) DO UPDATE SET "
                               "metadata=excluded.metadata, status=11, percentage=0, log=excluded.log "
                               "WHERE member=excluded.member",
                               -1, &statement, nullptr);
            const QByteArray id = packId.toUtf8();
            const QByteArray who = member.toUtf8();
            const QByteArray json = QJsonDocument(metadata).toJson(QJsonDocument::Compact);
            sqlite3_bind_text(statement, 1, id.constData(), id.size(), SQLITE_TRANSIENT);
            sqlite3_bind_text(statement, 2, who.constData(), who.size(), SQLITE_TRANSIENT);
            sqlite3_bind_text(statement, 3, json.constData(), json.size(), SQLITE_TRANSIENT);
            // A pack ID of another member is not taken over: no row changes then.
            const int step = sqlite3_step(statement);
            sqlite3_finalize(statement);
            return step != SQLITE_DONE ? 0 : sqlite3_changes(db) == 1 ? 1 : 2;
        });
        if (stored == 2)
            return m_server.SendEnvelope(request, response, 2, kStatusParam, QJsonValue());
        if (stored != 1)
            return m_server.SendEnvelope(request, response, 2, 3, QJsonValue());
        m_processor->Enqueue(packId);
        m_server.SendEnvelope(request, response, 2, 2, QJsonObject{{QStringLiteral("PackID"), packId}});
    }

    void ProcessLog(const Request& request, Response& response)
    {
        const QByteArray packId = QByteArray::fromStdString(request.get_param_value("PackID"));
        QJsonValue scripted;
        if (Scripted(QString::fromUtf8(packId), scripted)) {
            if (scripted.isString()) {
                response.set_content(scripted.toString().toStdString(), "application/json");
                return;
            }
            return m_server.SendEnvelope(request, response, 2, scripted.isObject() ? 2 : kStatusParam,
                                         scripted.isObject() ? scripted : QJsonValue());
        }
        QJsonObject log;
        m_server.State().WithDatabase([&](sqlite3* db) {
            sqlite3_stmt* statement = nullptr;
            sqlite3_prepare_v2(db, "SELECT status, percentage, log FROM upload_packs WHERE pack_id=?", -1, &statement,
                               nullptr);
            sqlite3_bind_text(statement, 1, packId.constData(), packId.size(), SQLITE_TRANSIENT);
            if (sqlite3_step(statement) == SQLITE_ROW) {
                log = QJsonObject{
                    {QStringLiteral("PackID"), QString::fromUtf8(packId)},
                    {QStringLiteral("ProcessStatus"), sqlite3_column_int(statement, 0)},
                    {QStringLiteral("Percentage"), sqlite3_column_int(statement, 1)},
                    {QStringLiteral("Log"),
                     QString::fromUtf8(reinterpret_cast<const char*>(sqlite3_column_text(statement, 2)))}};
            }
            sqlite3_finalize(statement);
        });
        if (log.isEmpty())
            return m_server.SendEnvelope(request, response, 2, kStatusParam, QJsonValue());
        m_server.SendEnvelope(request, response, 2, 2, log);
    }

    // The next scripted log of a pack; false when the pack has no script.
    bool Scripted(const QString& packId, QJsonValue& log)
    {
        std::lock_guard<std::mutex> lock(m_scriptMutex);
        const auto found = m_scripts.find(packId);
        if (found == m_scripts.end())
            return false;
        log = found->second.front();
        if (found->second.size() > 1)
            found->second.pop_front();
        return true;
    }

    MemberServer& m_server;
    std::mutex m_scriptMutex;
    std::map<QString, std::deque<QJsonValue>> m_scripts;
    UploadStorage m_storage;
    std::unique_ptr<UploadProcessor> m_processor;
};

} // namespace

std::unique_ptr<ServiceArea> MakeUploadArea(MemberServer& server)
{
    return std::make_unique<UploadArea>(server);
}
