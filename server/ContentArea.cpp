// The content service area of qmmember-server: catalogue lists, member lists, metadata,
// file versions, hash notices and the cart, over the tables of ContentCatalogue.
#include "ContentCatalogue.h"
#include "ContentSql.h"
#include "MemberServer.h"

#include "../src/QMMemberWebService/SafeJson.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSet>
#include <QUrl>

#include <cstdlib>

using httplib::Request;
using httplib::Response;
using ContentSql::Statement;

namespace {

// Service statuses of the content replies.
constexpr int kOk = 2;
constexpr int kBadParameters = 4; // missing product or version, unreadable body, unknown owner
constexpr int kNotAllowed = 5;    // another member's list the caller may not see
constexpr int kTokenExpired = 6;
constexpr int kUnknownToken = 13;

// "ReturnCode" of one cart item.
constexpr int kCartAdded = 2;
constexpr int kCartAlreadyInCart = 3;
constexpr int kCartAlreadyOwned = 7;
constexpr int kCartNotForSale = 8;
constexpr int kCartUnknownItem = 9;

constexpr int kCatalogueMax = 100000;

// Type-list variants: "/ContentManager/v2" and "/ContentManager20/v2".
constexpr int kTypesV2 = 1;
constexpr int kTypes20 = 2;

QString Text(const std::string& utf8)
{
    return QString::fromUtf8(utf8.data(), static_cast<int>(utf8.size()));
}

QString Param(const Request& request, const char* name)
{
    return Text(request.get_param_value(name));
}

// The item columns every read selects, in the order ItemFromRow expects.
const char* const kItemColumns = "i.content_id, i.product_id, i.version, i.type_id, i.category_id, i.title, "
                                 "i.owner_mid, i.price, i.for_sale, i.file_version, i.sha256";

QJsonObject ItemFromRow(const Statement& row, int first = 0)
{
    return QJsonObject{{QStringLiteral("ContentID"), row.ColumnText(first)},
                       {QStringLiteral("ProductID"), row.ColumnText(first + 1)},
                       {QStringLiteral("Version"), row.ColumnText(first + 2)},
                       {QStringLiteral("TypeID"), row.ColumnInt(first + 3)},
                       {QStringLiteral("CategoryID"), row.ColumnInt(first + 4)},
                       {QStringLiteral("Title"), row.ColumnText(first + 5)},
                       {QStringLiteral("OwnerMID"), row.ColumnText(first + 6)},
                       {QStringLiteral("Price"), row.ColumnReal(first + 7)},
                       {QStringLiteral("ForSale"), row.ColumnInt(first + 8) != 0},
                       {QStringLiteral("FileVersion"), row.ColumnInt(first + 9)},
                       {QStringLiteral("SHA256"), row.ColumnText(first + 10)}};
}

// The library writes "Version" unquoted and possibly empty ({"Version":,"ContentID":…}),
// which no JSON parser takes: quote its raw text first. False when the body stays unreadable or
// names no product. The IDs come without repeats, in their first order.
struct VersionBody {
    QString productId;
    QString version;
    QStringList ids;
    QJsonObject object;
};

bool ReadVersionBody(const std::string& body, VersionBody& out)
{
    static const std::string key = "\"Version\":";
    std::string text = body;
    const size_t at = text.find(key);
    if (at != std::string::npos) {
        size_t start = at + key.size();
        while (start < text.size() && (text[start] == ' ' || text[start] == '\t'))
            ++start;
        if (start < text.size() && text[start] != '"') {
            const size_t end = text.find_first_of(",}", start);
            if (end == std::string::npos)
                return false;
            std::string raw = text.substr(start, end - start);
            while (!raw.empty() && (raw.back() == ' ' || raw.back() == '\t'))
                raw.pop_back();
            if (raw.find_first_of("\"\\[]{}") != std::string::npos)
                return false;
            text.replace(start, end - start, '"' + raw + '"');
        }
    }
    const QJsonDocument document = QMSafeJson::ParseJson(QByteArray::fromStdString(text));
    if (!document.isObject())
        return false;
    out.object = document.object();
    const QJsonValue product = out.object.value(QStringLiteral("ProductID"));
    const QJsonValue version = out.object.value(QStringLiteral("Version"));
    const QJsonValue ids = out.object.value(QStringLiteral("ContentID"));
    if (!product.isString() || product.toString().isEmpty() || !(version.isString() || version.isUndefined())
        || !ids.isArray())
        return false;
    out.productId = product.toString();
    out.version = version.toString();
    const QJsonArray list = ids.toArray();
    out.ids.reserve(list.size());
    for (const QJsonValue& id : list) {
        if (!id.isString())
            return false;
        out.ids.append(id.toString());
    }
    out.ids.removeDuplicates();
    return true;
}

// Reads item \a id into \a row (kItemColumns first); false when there is none or it is not of the
// body's product and version (an empty version takes any).
bool FindItem(Statement& row, const QString& id, const VersionBody& body)
{
    return row.Reset().Text(1, id).Row() && row.ColumnText(1) == body.productId
           && (body.version.isEmpty() || row.ColumnText(2) == body.version);
}

// The data of a reply about one product version: \a fields with its ProductID and Version.
QJsonObject VersionData(const QString& product, const QString& version, QJsonObject fields)
{
    fields.insert(QStringLiteral("ProductID"), product);
    fields.insert(QStringLiteral("Version"), version);
    return fields;
}

class Transaction
{
public:
    explicit Transaction(sqlite3* db)
        : m_db(db)
    {
        sqlite3_exec(m_db, "BEGIN", nullptr, nullptr, nullptr);
    }
    ~Transaction() { sqlite3_exec(m_db, m_commit ? "COMMIT" : "ROLLBACK", nullptr, nullptr, nullptr); }
    void Commit() { m_commit = true; }

private:
    sqlite3* m_db;
    bool m_commit = false;
};

QString DemoSha(const QString& contentId, int fileVersion)
{
    return QString::fromLatin1(
        QCryptographicHash::hash((contentId + QLatin1Char('/') + QString::number(fileVersion)).toUtf8(),
                                 QCryptographicHash::Sha256)
            .toHex());
}

// Seeds add what is missing and keep what a run before added, published versions included.
struct SeedWriter {
    explicit SeedWriter(sqlite3* db)
        : item(db, "INSERT OR IGNORE INTO content_items(content_id, product_id, version, type_id, category_id, "
                   "title, owner_mid, price, for_sale, file_version, sha256, metadata, published) "
                   "VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, 1, ?10, ?11, ?12)")
        , file(db, "INSERT OR IGNORE INTO content_files(content_id, file_version, sha256, published) "
                   "VALUES(?1, 1, ?2, ?3)")
        , type(db, "INSERT OR IGNORE INTO content_types(product_id, version, variant, type_id, name) "
                   "VALUES(?1, ?2, ?3, ?4, ?5)")
        , category(db, "INSERT OR IGNORE INTO content_categories(product_id, version, category_id, type_id, "
                       "parent_id, name) VALUES(?1, ?2, ?3, ?4, ?5, ?6)")
        , field(db, "INSERT OR IGNORE INTO content_fields(product_id, version, position, name, kind) "
                    "VALUES(?1, ?2, ?3, ?4, ?5)")
    {
    }
    bool Ok() const { return item.Ok() && file.Ok() && type.Ok() && category.Ok() && field.Ok(); }

    bool Item(const QString& id, const QString& product, const QString& version, int typeId, int categoryId,
              const QString& title, const QString& owner, double price, bool forSale, const QByteArray& metadata)
    {
        const QString sha = DemoSha(id, 1);
        const qint64 now = QDateTime::currentMSecsSinceEpoch();
        return item.Reset()
                   .Text(1, id)
                   .Text(2, product)
                   .Text(3, version)
                   .Int(4, typeId)
                   .Int(5, categoryId)
                   .Text(6, title)
                   .Text(7, owner)
                   .Real(8, price)
                   .Int(9, forSale ? 1 : 0)
                   .Text(10, sha)
                   .Utf8(11, metadata)
                   .Int(12, now)
                   .Done()
               && file.Reset().Text(1, id).Text(2, sha).Int(3, now).Done();
    }
    void Type(const QString& product, const QString& version, int variant, int id, const QString& name)
    {
        type.Reset().Text(1, product).Text(2, version).Int(3, variant).Int(4, id).Text(5, name).Done();
    }
    void Category(const QString& product, const QString& version, int id, int typeId, int parent, const QString& name)
    {
        category.Reset().Text(1, product).Text(2, version).Int(3, id).Int(4, typeId).Int(5, parent).Text(6, name).Done();
    }
    void Fields(const QString& product, const QString& version)
    {
        const char* const fields[][2] = {{"Author", "string"}, {"Description", "string"}, {"Tags", "array"},
                                         {"PreviewUrl", "string"}, {"Size", "integer"}};
        int position = 0;
        for (const auto& f : fields)
            field.Reset()
                .Text(1, product)
                .Text(2, version)
                .Int(3, position++)
                .Text(4, QLatin1String(f[0]))
                .Text(5, QLatin1String(f[1]))
                .Done();
    }

    Statement item;
    Statement file;
    Statement type;
    Statement category;
    Statement field;
};

class ContentArea : public ServiceArea
{
public:
    explicit ContentArea(MemberServer& server)
        : m_server(server)
    {
    }

    bool Open(std::string& error) override
    {
        return m_server.State().WithDatabase([&](sqlite3* db) { return ContentCatalogue::EnsureTables(db, error); });
    }

    bool Seed(const std::string& seed, std::string& error) override
    {
        if (seed == "demo")
            return SeedDemo(error);
        static const std::string catalogue = "catalogue=";
        if (seed.rfind(catalogue, 0) == 0) {
            const std::string number = seed.substr(catalogue.size());
            char* end = nullptr;
            const long count = std::strtol(number.c_str(), &end, 10);
            if (number.empty() || *end || count < 1 || count > kCatalogueMax) {
                error = "--seed catalogue=N takes N from 1 to 100000";
                return false;
            }
            return SeedCatalogue(static_cast<int>(count), error);
        }
        return false;
    }

    void AddRoutes(httplib::Server& http, bool admin) override
    {
        http.Get("/ContentManager/v1/Content/BaseList", [this](const Request& q, Response& r) { BaseList(q, r); });
        http.Get("/ContentManager/v2/Content/Type",
                 [this](const Request& q, Response& r) { Types(q, r, kTypesV2); });
        http.Get("/ContentManager20/v2/Content/Type",
                 [this](const Request& q, Response& r) { Types(q, r, kTypes20); });
        http.Get("/ContentManager20/v2/Content/ContentCategory",
                 [this](const Request& q, Response& r) { Categories(q, r); });
        http.Get("/ContentManager/v1/Content/InitializeInfo",
                 [this](const Request& q, Response& r) { GalleryInfo(q, r); });
        http.Get("/ContentManager/v1/User/SitterMemberList", [this](const Request& q, Response& r) { Sitters(q, r); });
        http.Get("/ContentManager/v2/User/UserInventory",
                 [this](const Request& q, Response& r) { MemberList(q, r, List::Inventory); });
        http.Get("/ContentManager/v2/User/MyContent",
                 [this](const Request& q, Response& r) { MemberList(q, r, List::Mine); });
        http.Get("/ContentManager/v1/User/Recommend",
                 [this](const Request& q, Response& r) { MemberList(q, r, List::Recommend); });
        http.Post("/ContentManager/v1/User/GetQMContent", [this](const Request& q, Response& r) { QMContent(q, r); });
        http.Post("/ContentManager/v3/Content/MetaData", [this](const Request& q, Response& r) { MetaData(q, r); });
        http.Get("/ContentManager/v2/Content/MetaDataEx", [this](const Request& q, Response& r) { MetaDataEx(q, r); });
        http.Post("/ContentManager/v1/Content/FileVersion",
                  [this](const Request& q, Response& r) { FileVersion(q, r); });
        http.Post("/ContentManager/v1/Content/NotifyInconsistentHash",
                  [this](const Request& q, Response& r) { HashNotice(q, r); });
        http.Post("/ContentManager/v2/User/Cart", [this](const Request& q, Response& r) { AddToCart(q, r); });
        http.Get(R"(/cart/([0-9A-Za-z_-]+))", [this](const Request& q, Response& r) { CartPage(q, r); });
        if (admin) {
            http.Post("/admin/content/publish", [this](const Request& q, Response& r) { Publish(q, r); });
            http.Get("/admin/content/hash-notices", [this](const Request& q, Response& r) { HashNotices(q, r); });
            http.Post("/admin/content/item", [this](const Request& q, Response& r) { AddItem(q, r); });
        }
    }

private:
    enum class List { Inventory, Mine, Recommend };

    void Reply(const Request& request, Response& response, int status, const QJsonValue& data = QJsonValue())
    {
        m_server.SendEnvelope(request, response, 2, status, data);
    }

    // The caller's member ID; false after answering when the token is missing or expired.
    bool Member(const Request& request, Response& response, QString& memberId)
    {
        const auto state = m_server.CheckToken(request, memberId);
        if (state == ServerState::TokenState::Valid)
            return true;
        Reply(request, response, state == ServerState::TokenState::Expired ? kTokenExpired : kUnknownToken);
        return false;
    }

    // ProductID and Version from the query; false after answering 4 when either is empty.
    bool ProductVersion(const Request& request, Response& response, QString& product, QString* version)
    {
        product = Param(request, "ProductID");
        if (version)
            *version = Param(request, "Version");
        if (!product.isEmpty() && (!version || !version->isEmpty()))
            return true;
        Reply(request, response, kBadParameters);
        return false;
    }

    void BaseList(const Request& request, Response& response)
    {
        QString product;
        if (!ProductVersion(request, response, product, nullptr))
            return;
        const QJsonArray versions = m_server.State().WithDatabase([&](sqlite3* db) {
            Statement rows(db, "SELECT version, SUM(n) FROM (SELECT version, COUNT(*) AS n FROM content_items "
                               "WHERE product_id = ?1 GROUP BY version UNION ALL SELECT DISTINCT version, 0 "
                               "FROM content_types WHERE product_id = ?1) GROUP BY version ORDER BY version");
            rows.Text(1, product);
            QJsonArray list;
            while (rows.Row())
                list.append(QJsonObject{{QStringLiteral("Version"), rows.ColumnText(0)},
                                        {QStringLiteral("ItemCount"), rows.ColumnInt(1)}});
            return list;
        });
        Reply(request, response, kOk,
              QJsonObject{{QStringLiteral("ProductID"), product}, {QStringLiteral("Versions"), versions}});
    }

    static QJsonArray TypeRows(sqlite3* db, const QString& product, const QString& version, int variant)
    {
        Statement rows(db, "SELECT type_id, name FROM content_types WHERE product_id = ?1 AND version = ?2 AND "
                           "variant = ?3 ORDER BY type_id");
        rows.Text(1, product).Text(2, version).Int(3, variant);
        QJsonArray list;
        while (rows.Row())
            list.append(QJsonObject{{QStringLiteral("TypeID"), rows.ColumnInt(0)},
                                    {QStringLiteral("TypeName"), rows.ColumnText(1)}});
        return list;
    }

    static QJsonArray CategoryRows(sqlite3* db, const QString& product, const QString& version)
    {
        Statement rows(db, "SELECT category_id, type_id, parent_id, name FROM content_categories WHERE "
                           "product_id = ?1 AND version = ?2 ORDER BY category_id");
        rows.Text(1, product).Text(2, version);
        QJsonArray list;
        while (rows.Row())
            list.append(QJsonObject{{QStringLiteral("CategoryID"), rows.ColumnInt(0)},
                                    {QStringLiteral("TypeID"), rows.ColumnInt(1)},
                                    {QStringLiteral("ParentID"), rows.ColumnInt(2)},
                                    {QStringLiteral("CategoryName"), rows.ColumnText(3)}});
        return list;
    }

    void Types(const Request& request, Response& response, int variant)
    {
        QString product;
        QString version;
        if (!ProductVersion(request, response, product, &version))
            return;
        m_server.State().WithDatabase([&](sqlite3* db) {
            const QJsonArray types = TypeRows(db, product, version, variant);
            if (variant == kTypesV2)
                return Reply(request, response, kOk, types);
            // The second service nests each type's categories.
            const QJsonArray categories = CategoryRows(db, product, version);
            QJsonArray nested;
            for (const QJsonValue& type : types) {
                QJsonObject object = type.toObject();
                QJsonArray own;
                for (const QJsonValue& category : categories) {
                    if (category.toObject().value(QStringLiteral("TypeID")) == object.value(QStringLiteral("TypeID")))
                        own.append(category);
                }
                object.insert(QStringLiteral("Categories"), own);
                nested.append(object);
            }
            Reply(request, response, kOk, VersionData(product, version, {{QStringLiteral("Types"), nested}}));
        });
    }

    void Categories(const Request& request, Response& response)
    {
        QString product;
        QString version;
        if (!ProductVersion(request, response, product, &version))
            return;
        Reply(request, response, kOk,
              m_server.State().WithDatabase([&](sqlite3* db) { return CategoryRows(db, product, version); }));
    }

    void GalleryInfo(const Request& request, Response& response)
    {
        QString product;
        QString version;
        if (!ProductVersion(request, response, product, &version))
            return;
        const QJsonObject data = m_server.State().WithDatabase([&](sqlite3* db) {
            Statement count(db, "SELECT COUNT(*) FROM content_items WHERE product_id = ?1 AND version = ?2");
            count.Text(1, product).Text(2, version).Row();
            const std::string sql = std::string("SELECT ") + kItemColumns
                                    + " FROM content_items i WHERE i.product_id = ?1 AND i.version = ?2 AND "
                                      "i.for_sale = 1 ORDER BY i.published DESC, i.content_id LIMIT 12";
            Statement latest(db, sql.c_str());
            latest.Text(1, product).Text(2, version);
            QJsonArray items;
            while (latest.Row())
                items.append(ItemFromRow(latest));
            return VersionData(product, version,
                               {{QStringLiteral("ItemCount"), count.ColumnInt(0)},
                                {QStringLiteral("Types"), TypeRows(db, product, version, kTypesV2)},
                                {QStringLiteral("Categories"), CategoryRows(db, product, version)},
                                {QStringLiteral("Latest"), items}});
        });
        Reply(request, response, kOk, data);
    }

    void Sitters(const Request& request, Response& response)
    {
        QString memberId;
        if (!Member(request, response, memberId))
            return;
        const QStringList sitters = m_server.State().WithDatabase([&](sqlite3* db) {
            Statement rows(db, "SELECT sitter_mid FROM content_sitters WHERE member_id = ?1 ORDER BY sitter_mid");
            rows.Text(1, memberId);
            QStringList list;
            while (rows.Row())
                list.append(rows.ColumnText(0));
            return list;
        });
        // Member rows are read under the state's own lock, outside WithDatabase.
        QJsonArray list;
        for (const QString& sitter : sitters) {
            ServerState::Member member;
            m_server.State().FindMemberById(sitter, member);
            list.append(QJsonObject{{QStringLiteral("MemberID"), sitter},
                                    {QStringLiteral("NickName"), member.nickName}});
        }
        Reply(request, response, kOk, list);
    }

    void MemberList(const Request& request, Response& response, List kind)
    {
        QString memberId;
        if (!Member(request, response, memberId))
            return;
        QString product;
        QString version;
        if (!ProductVersion(request, response, product, &version))
            return;
        QString owner = memberId;
        if (request.has_param("OwnerMID")) {
            owner = Param(request, "OwnerMID");
            ServerState::Member ownerRow;
            if (owner.isEmpty() || !m_server.State().FindMemberById(owner, ownerRow))
                return Reply(request, response, kBadParameters);
        }
        int status = kOk;
        const QJsonArray items = m_server.State().WithDatabase([&](sqlite3* db) {
            QJsonArray list;
            if (owner != memberId) {
                // Another member's list: only for a sitter that member named.
                Statement sitter(db, "SELECT 1 FROM content_sitters WHERE member_id = ?1 AND sitter_mid = ?2");
                if (!sitter.Text(1, owner).Text(2, memberId).Row()) {
                    status = kNotAllowed;
                    return list;
                }
            }
            std::string sql = std::string("SELECT ") + kItemColumns;
            switch (kind) {
            case List::Inventory:
                sql += ", v.acquired FROM content_inventory v JOIN content_items i ON i.content_id = v.content_id "
                       "WHERE v.member_id = ?1 AND i.product_id = ?2 AND i.version = ?3 ORDER BY v.acquired, "
                       "i.content_id";
                break;
            case List::Mine:
                sql += " FROM content_items i WHERE i.owner_mid = ?1 AND i.product_id = ?2 AND i.version = ?3 "
                       "ORDER BY i.content_id";
                break;
            case List::Recommend:
                sql += ", v.rank FROM content_recommend v JOIN content_items i ON i.content_id = v.content_id "
                       "WHERE v.member_id = ?1 AND i.product_id = ?2 AND i.version = ?3 ORDER BY v.rank";
                break;
            }
            Statement rows(db, sql.c_str());
            rows.Text(1, owner).Text(2, product).Text(3, version);
            while (rows.Row()) {
                QJsonObject item = ItemFromRow(rows);
                if (kind == List::Inventory)
                    item.insert(QStringLiteral("Acquired"),
                                QDateTime::fromMSecsSinceEpoch(rows.ColumnInt(11), Qt::UTC).toString(Qt::ISODate));
                list.append(item);
            }
            return list;
        });
        if (status != kOk)
            return Reply(request, response, status);
        Reply(request, response, kOk,
              VersionData(product, version, {{QStringLiteral("OwnerMID"), owner}, {QStringLiteral("Items"), items}}));
    }

    void QMContent(const Request& request, Response& response)
    {
        QString memberId;
        if (!Member(request, response, memberId))
            return;
        const QJsonValue ids = QMSafeJson::ParseJson(QByteArray::fromStdString(request.body))
                                   .object()
                                   .value(QStringLiteral("ContentID"));
        if (!ids.isArray())
            return Reply(request, response, kBadParameters);
        const QJsonArray list = ids.toArray();
        QJsonArray items;
        QJsonArray missing;
        m_server.State().WithDatabase([&](sqlite3* db) {
            const std::string sql =
                std::string("SELECT ") + kItemColumns
                + ", EXISTS(SELECT 1 FROM content_inventory v WHERE v.member_id = ?2 AND v.content_id = i.content_id), "
                  "EXISTS(SELECT 1 FROM content_cart c WHERE c.member_id = ?2 AND c.content_id = i.content_id) "
                  "FROM content_items i WHERE i.content_id = ?1";
            Statement row(db, sql.c_str());
            QSet<QString> seen;
            for (const QJsonValue& value : list) {
                const QString id = value.toString();
                if (seen.contains(id))
                    continue;
                seen.insert(id);
                if (!row.Reset().Text(1, id).Text(2, memberId).Row()) {
                    missing.append(id);
                    continue;
                }
                QJsonObject item = ItemFromRow(row);
                item.insert(QStringLiteral("Owned"), row.ColumnInt(11) != 0 || row.ColumnText(6) == memberId);
                item.insert(QStringLiteral("InCart"), row.ColumnInt(12) != 0);
                items.append(item);
            }
        });
        Reply(request, response, kOk, QJsonObject{{QStringLiteral("Items"), items}, {QStringLiteral("Missing"), missing}});
    }

    void MetaData(const Request& request, Response& response)
    {
        QString memberId;
        if (!Member(request, response, memberId))
            return;
        VersionBody body;
        if (!ReadVersionBody(request.body, body))
            return Reply(request, response, kBadParameters);
        QJsonArray items;
        QJsonArray missing;
        m_server.State().WithDatabase([&](sqlite3* db) {
            const std::string sql = std::string("SELECT ") + kItemColumns + ", i.metadata FROM content_items i "
                                                                             "WHERE i.content_id = ?1";
            Statement row(db, sql.c_str());
            // What the member fetched is what FileVersion later compares with.
            Statement fetched(db, "INSERT OR REPLACE INTO content_fetches(member_id, content_id, file_version, "
                                  "fetched) VALUES(?1, ?2, ?3, ?4)");
            const qint64 now = QDateTime::currentMSecsSinceEpoch();
            Transaction transaction(db);
            for (const QString& id : body.ids) {
                if (!FindItem(row, id, body)) {
                    missing.append(id);
                    continue;
                }
                QJsonObject item = ItemFromRow(row);
                item.insert(QStringLiteral("MetaData"), QJsonDocument::fromJson(row.ColumnUtf8(11)).object());
                items.append(item);
                fetched.Reset().Text(1, memberId).Text(2, id).Int(3, row.ColumnInt(9)).Int(4, now).Done();
            }
            transaction.Commit();
        });
        Reply(request, response, kOk,
              VersionData(body.productId, body.version,
                          {{QStringLiteral("RequestIndex"), body.object.value(QStringLiteral("RequestIndex"))},
                           {QStringLiteral("RequestTarget"), body.object.value(QStringLiteral("RequestTarget"))},
                           {QStringLiteral("Items"), items},
                           {QStringLiteral("Missing"), missing}}));
    }

    void MetaDataEx(const Request& request, Response& response)
    {
        QString product;
        QString version;
        if (!ProductVersion(request, response, product, &version))
            return;
        const QJsonObject data = m_server.State().WithDatabase([&](sqlite3* db) {
            Statement fields(db, "SELECT name, kind FROM content_fields WHERE product_id = ?1 AND version = ?2 "
                                 "ORDER BY position");
            fields.Text(1, product).Text(2, version);
            QJsonArray fieldList;
            while (fields.Row())
                fieldList.append(QJsonObject{{QStringLiteral("Name"), fields.ColumnText(0)},
                                             {QStringLiteral("Kind"), fields.ColumnText(1)}});
            Statement files(db, "SELECT content_id, file_version, sha256 FROM content_items WHERE product_id = ?1 "
                                "AND version = ?2 ORDER BY content_id");
            files.Text(1, product).Text(2, version);
            QJsonArray fileList;
            while (files.Row())
                fileList.append(QJsonObject{{QStringLiteral("ContentID"), files.ColumnText(0)},
                                            {QStringLiteral("FileVersion"), files.ColumnInt(1)},
                                            {QStringLiteral("SHA256"), files.ColumnText(2)}});
            return VersionData(product, version,
                               {{QStringLiteral("Fields"), fieldList}, {QStringLiteral("Files"), fileList}});
        });
        Reply(request, response, kOk, data);
    }

    void FileVersion(const Request& request, Response& response)
    {
        // No login is asked; a token that comes anyway makes the comparison the member's own.
        QString memberId;
        if (m_server.CheckToken(request, memberId) != ServerState::TokenState::Valid)
            memberId.clear();
        VersionBody body;
        if (!ReadVersionBody(request.body, body))
            return Reply(request, response, kBadParameters);
        QJsonArray groups;
        m_server.State().WithDatabase([&](sqlite3* db) {
            const std::string sql = std::string("SELECT ") + kItemColumns + " FROM content_items i WHERE i.content_id = ?1";
            Statement row(db, sql.c_str());
            Statement own(db, "SELECT file_version FROM content_fetches WHERE member_id = ?1 AND content_id = ?2");
            Statement anyone(db, "SELECT file_version FROM content_fetches WHERE content_id = ?1 "
                                 "ORDER BY fetched DESC LIMIT 1");
            QHash<qint64, int> groupOfType;
            QList<QJsonArray> itemsOfGroup;
            QList<qint64> typeOfGroup;
            QJsonArray missing;
            for (const QString& id : body.ids) {
                if (!FindItem(row, id, body)) {
                    missing.append(id);
                    continue;
                }
                const qint64 current = row.ColumnInt(9);
                Statement& fetch = memberId.isEmpty() ? anyone : own;
                fetch.Reset();
                if (memberId.isEmpty())
                    fetch.Text(1, id);
                else
                    fetch.Text(1, memberId).Text(2, id);
                const bool newer = fetch.Row() && fetch.ColumnInt(0) < current;
                const qint64 type = row.ColumnInt(3);
                auto found = groupOfType.find(type);
                if (found == groupOfType.end()) {
                    found = groupOfType.insert(type, itemsOfGroup.size());
                    itemsOfGroup.append(QJsonArray());
                    typeOfGroup.append(type);
                }
                itemsOfGroup[found.value()].append(QJsonObject{{QStringLiteral("ContentID"), id},
                                                               {QStringLiteral("FileVersion"), current},
                                                               {QStringLiteral("SHA256"), row.ColumnText(10)},
                                                               {QStringLiteral("HasNewVersion"), newer}});
            }
            for (int i = 0; i < itemsOfGroup.size(); ++i)
                groups.append(QJsonObject{{QStringLiteral("TypeID"), typeOfGroup.at(i)},
                                          {QStringLiteral("ItemInfo"), itemsOfGroup.at(i)}});
            if (!missing.isEmpty())
                groups.append(QJsonObject{{QStringLiteral("Missing"), missing}});
        });
        Reply(request, response, kOk, groups);
    }

    void HashNotice(const Request& request, Response& response)
    {
        QString memberId;
        if (!Member(request, response, memberId))
            return;
        VersionBody body;
        if (!ReadVersionBody(request.body, body))
            return Reply(request, response, kBadParameters);
        int recorded = 0;
        QJsonArray unknown;
        m_server.State().WithDatabase([&](sqlite3* db) {
            Statement exists(db, "SELECT 1 FROM content_items WHERE content_id = ?1");
            Statement note(db, "INSERT INTO content_hash_notices(content_id, member_id, product_id, version, count, "
                               "first_at, last_at) VALUES(?1, ?2, ?3, ?4, 1, ?5, ?5) "
                               "ON CONFLICT(content_id, member_id) DO UPDATE SET count = count + 1, "
                               "last_at = excluded.last_at, product_id = excluded.product_id, "
                               "version = excluded.version");
            const qint64 now = QDateTime::currentMSecsSinceEpoch();
            Transaction transaction(db);
            for (const QString& id : body.ids) {
                if (!exists.Reset().Text(1, id).Row()) {
                    unknown.append(id);
                    continue;
                }
                if (note.Reset().Text(1, id).Text(2, memberId).Text(3, body.productId).Text(4, body.version).Int(5, now).Done())
                    ++recorded;
            }
            transaction.Commit();
        });
        Reply(request, response, kOk,
              QJsonObject{{QStringLiteral("Recorded"), recorded}, {QStringLiteral("Unknown"), unknown}});
    }

    QString CartUrl(const QString& memberId, const QString& contentId) const
    {
        return m_server.WebBase() + QStringLiteral("/cart/") + memberId + QStringLiteral("?added=")
               + QString::fromLatin1(QUrl::toPercentEncoding(contentId));
    }

    void AddToCart(const Request& request, Response& response)
    {
        QString memberId;
        if (!Member(request, response, memberId))
            return;
        const QJsonDocument document = QMSafeJson::ParseJson(QByteArray::fromStdString(request.body));
        if (!document.isArray())
            return Reply(request, response, kBadParameters);
        const QJsonArray list = document.array();
        QJsonArray results;
        m_server.State().WithDatabase([&](sqlite3* db) {
            Statement item(db, "SELECT owner_mid, for_sale, EXISTS(SELECT 1 FROM content_inventory v WHERE "
                               "v.member_id = ?2 AND v.content_id = ?1), EXISTS(SELECT 1 FROM content_cart c WHERE "
                               "c.member_id = ?2 AND c.content_id = ?1) FROM content_items WHERE content_id = ?1");
            Statement add(db, "INSERT OR IGNORE INTO content_cart(member_id, content_id, added) VALUES(?1, ?2, ?3)");
            const qint64 now = QDateTime::currentMSecsSinceEpoch();
            Transaction transaction(db);
            for (const QJsonValue& value : list) {
                const QString id = value.toObject().value(QStringLiteral("ContentID")).toString();
                int code = kCartUnknownItem;
                if (!id.isEmpty() && item.Reset().Text(1, id).Text(2, memberId).Row()) {
                    if (item.ColumnInt(2) != 0 || item.ColumnText(0) == memberId)
                        code = kCartAlreadyOwned;
                    else if (item.ColumnInt(1) == 0)
                        code = kCartNotForSale;
                    else if (item.ColumnInt(3) != 0)
                        code = kCartAlreadyInCart;
                    else if (add.Reset().Text(1, memberId).Text(2, id).Int(3, now).Done())
                        code = kCartAdded;
                }
                QJsonObject result{{QStringLiteral("ContentID"), id}, {QStringLiteral("ReturnCode"), code}};
                if (code == kCartAdded)
                    result.insert(QStringLiteral("CartUrl"), CartUrl(memberId, id));
                results.append(result);
            }
            transaction.Commit();
        });
        Reply(request, response, kOk, QJsonObject{{QStringLiteral("DataArray"), results}});
    }

    void CartPage(const Request& request, Response& response)
    {
        const QString memberId = Text(request.matches[1]);
        const QString added = Param(request, "added");
        struct Line {
            QString id;
            QString title;
            double price;
        };
        const QList<Line> lines = m_server.State().WithDatabase([&](sqlite3* db) {
            Statement rows(db, "SELECT c.content_id, i.title, i.price FROM content_cart c JOIN content_items i ON "
                               "i.content_id = c.content_id WHERE c.member_id = ?1 ORDER BY c.added, c.content_id");
            rows.Text(1, memberId);
            QList<Line> list;
            while (rows.Row())
                list.append(Line{rows.ColumnText(0), rows.ColumnText(1), rows.ColumnReal(2)});
            return list;
        });
        double total = 0;
        QString table;
        for (const Line& line : lines) {
            total += line.price;
            table += QStringLiteral("<tr%1><td>%2</td><td>%3</td><td class=\"price\">%4</td></tr>")
                         .arg(line.id == added ? QStringLiteral(" class=\"added\"") : QString(),
                              line.id.toHtmlEscaped(), line.title.toHtmlEscaped(),
                              QString::number(line.price, 'f', 2));
        }
        const QString body =
            lines.isEmpty()
                ? QStringLiteral("<p role=\"status\">Your cart is empty.</p>")
                : QStringLiteral("<table><caption>%1 item(s)</caption><thead><tr><th scope=\"col\">Item</th>"
                                 "<th scope=\"col\">Title</th><th scope=\"col\">Price</th></tr></thead><tbody>%2"
                                 "</tbody><tfoot><tr><th scope=\"row\" colspan=\"2\">Total</th><td class=\"price\">"
                                 "%3</td></tr></tfoot></table>")
                      .arg(lines.size())
                      .arg(table, QString::number(total, 'f', 2));
        const QString page =
            QStringLiteral("<!DOCTYPE html><html lang=\"en\"><head><meta charset=\"utf-8\"><meta name=\"viewport\" "
                           "content=\"width=device-width, initial-scale=1\"><title>Your cart - Quillmarsh</title>"
                           "<style>body{font-family:system-ui,sans-serif;margin:2rem;color:#111827}"
                           "table{border-collapse:collapse;min-width:24rem}th,td{padding:.4rem .8rem;"
                           "border-bottom:1px solid #d1d5db;text-align:left}.price{text-align:right}"
                           "tr.added{background:#ecfdf5}</style></head><body><main><h1>Your cart</h1>%1"
                           "</main></body></html>")
                .arg(body);
        response.set_content(page.toStdString(), "text/html; charset=utf-8");
    }

    // --- admin ------------------------------------------------------------------------------

    void Publish(const Request& request, Response& response)
    {
        const QJsonObject body = QMSafeJson::ParseJson(QByteArray::fromStdString(request.body)).object();
        const QString id = body.value(QStringLiteral("ContentID")).toString();
        QString sha = body.value(QStringLiteral("SHA256")).toString().toLower();
        qint64 version = 0;
        m_server.State().WithDatabase([&](sqlite3* db) {
            Statement current(db, "SELECT file_version FROM content_items WHERE content_id = ?1");
            if (id.isEmpty() || !current.Text(1, id).Row())
                return;
            version = current.ColumnInt(0) + 1;
            if (sha.isEmpty())
                sha = DemoSha(id, static_cast<int>(version));
            const qint64 now = QDateTime::currentMSecsSinceEpoch();
            Transaction transaction(db);
            Statement item(db, "UPDATE content_items SET file_version = ?2, sha256 = ?3, published = ?4 "
                               "WHERE content_id = ?1");
            Statement file(db, "INSERT OR REPLACE INTO content_files(content_id, file_version, sha256, published) "
                               "VALUES(?1, ?2, ?3, ?4)");
            if (item.Text(1, id).Int(2, version).Text(3, sha).Int(4, now).Done()
                && file.Text(1, id).Int(2, version).Text(3, sha).Int(4, now).Done())
                transaction.Commit();
            else
                version = 0;
        });
        if (version == 0)
            return m_server.SendJson(response, QJsonObject{{QStringLiteral("error"), QStringLiteral("unknown ContentID")}},
                                     404);
        m_server.SendJson(response, QJsonObject{{QStringLiteral("ContentID"), id},
                                                {QStringLiteral("FileVersion"), version},
                                                {QStringLiteral("SHA256"), sha}});
    }

    void HashNotices(const Request& request, Response& response)
    {
        const QString id = Param(request, "ContentID");
        const QJsonArray notices = m_server.State().WithDatabase([&](sqlite3* db) {
            Statement rows(db, "SELECT content_id, member_id, product_id, version, count, first_at, last_at FROM "
                               "content_hash_notices WHERE ?1 = '' OR content_id = ?1 ORDER BY content_id, member_id");
            rows.Text(1, id);
            QJsonArray list;
            while (rows.Row())
                list.append(QJsonObject{
                    {QStringLiteral("ContentID"), rows.ColumnText(0)},
                    {QStringLiteral("MemberID"), rows.ColumnText(1)},
                    {QStringLiteral("ProductID"), rows.ColumnText(2)},
                    {QStringLiteral("Version"), rows.ColumnText(3)},
                    {QStringLiteral("Count"), rows.ColumnInt(4)},
                    {QStringLiteral("First"), QDateTime::fromMSecsSinceEpoch(rows.ColumnInt(5), Qt::UTC).toString(Qt::ISODateWithMs)},
                    {QStringLiteral("Last"), QDateTime::fromMSecsSinceEpoch(rows.ColumnInt(6), Qt::UTC).toString(Qt::ISODateWithMs)}});
            return list;
        });
        m_server.SendJson(response, QJsonObject{{QStringLiteral("notices"), notices}});
    }

    void AddItem(const Request& request, Response& response)
    {
        const QJsonObject body = QMSafeJson::ParseJson(QByteArray::fromStdString(request.body)).object();
        ContentCatalogue::PublishedItem item;
        item.contentId = body.value(QStringLiteral("ContentID")).toString();
        item.productId = body.value(QStringLiteral("ProductID")).toString();
        item.version = body.value(QStringLiteral("Version")).toString();
        item.typeId = body.value(QStringLiteral("TypeID")).toInt();
        item.categoryId = body.value(QStringLiteral("CategoryID")).toInt();
        item.title = body.value(QStringLiteral("Title")).toString();
        item.ownerMid = body.value(QStringLiteral("OwnerMID")).toString();
        item.price = body.value(QStringLiteral("Price")).toDouble();
        item.forSale = body.value(QStringLiteral("ForSale")).toBool(true);
        item.sha256 = body.value(QStringLiteral("SHA256")).toString();
        item.metadata = body.value(QStringLiteral("MetaData")).toObject();
        int fileVersion = 0;
        std::string error;
        if (!ContentCatalogue::AddPublishedItem(m_server.State(), item, fileVersion, error))
            return m_server.SendJson(response, QJsonObject{{QStringLiteral("error"), QString::fromStdString(error)}},
                                     400);
        m_server.SendJson(response, QJsonObject{{QStringLiteral("ContentID"), item.contentId},
                                                {QStringLiteral("FileVersion"), fileVersion}});
    }

    // --- seeds ---------------------------------------------------------------------------------

    static QByteArray Metadata(const QString& author, const QString& description, const QStringList& tags,
                               const QString& preview, qint64 size)
    {
        return QJsonDocument(QJsonObject{{QStringLiteral("Author"), author},
                                         {QStringLiteral("Description"), description},
                                         {QStringLiteral("Tags"), QJsonArray::fromStringList(tags)},
                                         {QStringLiteral("PreviewUrl"), preview},
                                         {QStringLiteral("Size"), size}})
            .toJson(QJsonDocument::Compact);
    }

    // The member that owns the seeded catalogues' items.
    ServerState::Member AddStudio()
    {
        return m_server.State().AddMember(QStringLiteral("studio@quillmarsh.test"), QStringLiteral("studio-password"),
                                          QStringLiteral("Quillmarsh Studio"));
    }

    bool SeedDemo(std::string& error)
    {
        ServerState& state = m_server.State();
        // The server made the demo member before the areas' seeds run.
        const ServerState::Member demo = state.AddMember(QStringLiteral("demo@quillmarsh.test"),
                                                         QStringLiteral("demo-password"), QStringLiteral("Demo"));
        const ServerState::Member studio = AddStudio();
        const ServerState::Member sitter = state.AddMember(QStringLiteral("sitter@quillmarsh.test"),
                                                           QStringLiteral("sitter-password"), QStringLiteral("Sitter"));
        return state.WithDatabase([&](sqlite3* db) {
            SeedWriter seed(db);
            if (!seed.Ok()) {
                error = "cannot prepare the demo catalogue";
                return false;
            }
            Transaction transaction(db);
            const QString p = QStringLiteral("DemoStudio");
            const QString v = QStringLiteral("8");
            seed.Type(p, v, kTypesV2, 1, QStringLiteral("Templates"));
            seed.Type(p, v, kTypesV2, 2, QStringLiteral("Brushes"));
            seed.Type(p, v, kTypesV2, 3, QStringLiteral("Fonts"));
            seed.Type(p, v, kTypes20, 1, QStringLiteral("Project Templates"));
            seed.Type(p, v, kTypes20, 2, QStringLiteral("Brush Packs"));
            seed.Type(p, v, kTypes20, 3, QStringLiteral("Font Packs"));
            seed.Type(p, v, kTypes20, 4, QStringLiteral("Effects"));
            seed.Category(p, v, 11, 1, 0, QStringLiteral("Posters"));
            seed.Category(p, v, 12, 1, 0, QStringLiteral("Cards"));
            seed.Category(p, v, 111, 1, 11, QStringLiteral("Event Posters"));
            seed.Category(p, v, 21, 2, 0, QStringLiteral("Ink"));
            seed.Category(p, v, 22, 2, 0, QStringLiteral("Watercolour"));
            seed.Category(p, v, 31, 3, 0, QStringLiteral("Serif"));
            seed.Category(p, v, 32, 3, 0, QStringLiteral("Script"));
            seed.Fields(p, v);
            struct DemoItem {
                const char* id;
                int type;
                int category;
                const char* title;
                bool byDemo;
                double price;
                bool forSale;
                const char* description;
            };
            const DemoItem items[] = {
                {"DEMO-0001", 1, 111, "Spring Fair Poster", false, 4.99, true, "An A3 poster for a spring fair."},
                {"DEMO-0002", 1, 12, "Birthday Card", false, 1.99, true, "A folded card with room for a photo."},
                {"DEMO-0003", 2, 21, "Ink Brushes", false, 2.99, true, "Twelve pressure-sensitive ink brushes."},
                {"DEMO-0004", 2, 22, "Watercolour Set", false, 3.49, true, "Wet edges and paper grain."},
                {"DEMO-0005", 3, 31, "Quill Serif", false, 0, true, "A free text face in four weights."},
                {"DEMO-0006", 3, 32, "Marsh Script", false, 5.99, true, "A connected script with swashes."},
                {"DEMO-0007", 1, 11, "Demo's Gig Poster", true, 0, false, "Made by the demo member."},
                {"DEMO-0008", 2, 21, "Retired Brush", false, 1.49, false, "No longer sold."},
            };
            for (const DemoItem& item : items) {
                const QString id = QLatin1String(item.id);
                const QString owner = item.byDemo ? demo.id : studio.id;
                const QByteArray meta = Metadata(item.byDemo ? demo.nickName : studio.nickName,
                                                 QString::fromUtf8(item.description),
                                                 {QStringLiteral("demo"), QString::number(item.type)},
                                                 QStringLiteral("https://media.quillmarsh.test/preview/") + id + QStringLiteral(".png"),
                                                 10000 + 137 * (&item - items));
                if (!seed.Item(id, p, v, item.type, item.category, QString::fromUtf8(item.title), owner, item.price,
                               item.forSale, meta)) {
                    error = std::string("cannot seed the demo catalogue: ") + sqlite3_errmsg(db);
                    return false;
                }
            }
            const qint64 now = QDateTime::currentMSecsSinceEpoch();
            Statement inventory(db, "INSERT OR IGNORE INTO content_inventory(member_id, content_id, acquired) "
                                    "VALUES(?1, ?2, ?3)");
            for (const char* id : {"DEMO-0003", "DEMO-0005"})
                inventory.Reset().Text(1, demo.id).Text(2, QLatin1String(id)).Int(3, now).Done();
            Statement recommend(db, "INSERT OR IGNORE INTO content_recommend(member_id, content_id, rank) "
                                    "VALUES(?1, ?2, ?3)");
            int rank = 0;
            for (const char* id : {"DEMO-0001", "DEMO-0006", "DEMO-0004"})
                recommend.Reset().Text(1, demo.id).Text(2, QLatin1String(id)).Int(3, ++rank).Done();
            // The sitter may act for the demo member, and the demo member for the studio.
            Statement sitters(db, "INSERT OR IGNORE INTO content_sitters(member_id, sitter_mid) VALUES(?1, ?2)");
            sitters.Text(1, demo.id).Text(2, sitter.id).Done();
            sitters.Reset().Text(1, studio.id).Text(2, demo.id).Done();
            transaction.Commit();
            return true;
        });
    }

    bool SeedCatalogue(int count, std::string& error)
    {
        const ServerState::Member studio = AddStudio();
        return m_server.State().WithDatabase([&](sqlite3* db) {
            SeedWriter seed(db);
            if (!seed.Ok()) {
                error = "cannot prepare the catalogue";
                return false;
            }
            // One transaction and reused statements: 100,000 items take about a second.
            Transaction transaction(db);
            const QString p = QStringLiteral("BenchStudio");
            const QString v = QStringLiteral("1");
            seed.Type(p, v, kTypesV2, 1, QStringLiteral("Templates"));
            seed.Type(p, v, kTypesV2, 2, QStringLiteral("Brushes"));
            seed.Type(p, v, kTypes20, 1, QStringLiteral("Project Templates"));
            seed.Category(p, v, 11, 1, 0, QStringLiteral("Posters"));
            seed.Category(p, v, 21, 2, 0, QStringLiteral("Ink"));
            seed.Fields(p, v);
            for (int n = 1; n <= count; ++n) {
                const QString id = QStringLiteral("BENCH-%1").arg(n, 6, 10, QLatin1Char('0'));
                const int type = 1 + n % 2;
                const QByteArray meta = Metadata(
                    studio.nickName,
                    QStringLiteral("Catalogue item %1: a generated entry of the benchmark catalogue.").arg(n),
                    {QStringLiteral("bench"), QStringLiteral("group-%1").arg(n % 17)},
                    QStringLiteral("https://media.quillmarsh.test/preview/") + id + QStringLiteral(".png"), (n * 7919LL) % 5000000);
                if (!seed.Item(id, p, v, type, type * 10 + 1, QStringLiteral("Catalogue item %1").arg(n), studio.id,
                               0.99 + n % 5, true, meta)) {
                    error = std::string("cannot seed the catalogue: ") + sqlite3_errmsg(db);
                    return false;
                }
            }
            transaction.Commit();
            return true;
        });
    }

    MemberServer& m_server;
};

} // namespace

std::unique_ptr<ServiceArea> MakeContentArea(MemberServer& server)
{
    return std::make_unique<ContentArea>(server);
}
