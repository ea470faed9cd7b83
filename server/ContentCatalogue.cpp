#include "ContentCatalogue.h"

#include "ContentSql.h"
#include "ServerState.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QJsonDocument>

namespace ContentCatalogue {

using ContentSql::Statement;

bool EnsureTables(sqlite3* db, std::string& error)
{
    // Items carry their current file version and hash; content_files keeps the history.
    static const char* const kSchema =
        "CREATE TABLE IF NOT EXISTS content_items(content_id TEXT PRIMARY KEY, product_id TEXT, version TEXT, "
        "type_id INTEGER, category_id INTEGER, title TEXT, owner_mid TEXT, price REAL, for_sale INTEGER, "
        "file_version INTEGER, sha256 TEXT, metadata TEXT, published INTEGER);"
        "CREATE INDEX IF NOT EXISTS content_items_product ON content_items(product_id, version);"
        "CREATE INDEX IF NOT EXISTS content_items_owner ON content_items(owner_mid, product_id);"
        "CREATE TABLE IF NOT EXISTS content_files(content_id TEXT, file_version INTEGER, sha256 TEXT, "
        "published INTEGER, PRIMARY KEY(content_id, file_version));"
        "CREATE TABLE IF NOT EXISTS content_types(product_id TEXT, version TEXT, variant INTEGER, type_id INTEGER, "
        "name TEXT, PRIMARY KEY(product_id, version, variant, type_id));"
        "CREATE TABLE IF NOT EXISTS content_categories(product_id TEXT, version TEXT, category_id INTEGER, "
        "type_id INTEGER, parent_id INTEGER, name TEXT, PRIMARY KEY(product_id, version, category_id));"
        "CREATE TABLE IF NOT EXISTS content_fields(product_id TEXT, version TEXT, position INTEGER, name TEXT, "
        "kind TEXT, PRIMARY KEY(product_id, version, name));"
        "CREATE TABLE IF NOT EXISTS content_inventory(member_id TEXT, content_id TEXT, acquired INTEGER, "
        "PRIMARY KEY(member_id, content_id));"
        "CREATE TABLE IF NOT EXISTS content_recommend(member_id TEXT, content_id TEXT, rank INTEGER, "
        "PRIMARY KEY(member_id, content_id));"
        "CREATE TABLE IF NOT EXISTS content_sitters(member_id TEXT, sitter_mid TEXT, "
        "PRIMARY KEY(member_id, sitter_mid));"
        "CREATE TABLE IF NOT EXISTS content_fetches(member_id TEXT, content_id TEXT, file_version INTEGER, "
        "fetched INTEGER, PRIMARY KEY(member_id, content_id));"
        "CREATE INDEX IF NOT EXISTS content_fetches_item ON content_fetches(content_id, fetched);"
        "CREATE TABLE IF NOT EXISTS content_hash_notices(content_id TEXT, member_id TEXT, product_id TEXT, "
        "version TEXT, count INTEGER, first_at INTEGER, last_at INTEGER, PRIMARY KEY(content_id, member_id));"
        "CREATE TABLE IF NOT EXISTS content_cart(member_id TEXT, content_id TEXT, added INTEGER, "
        "PRIMARY KEY(member_id, content_id));";
    return ContentSql::Exec(db, kSchema, error);
}

namespace {

QString DerivedSha256(const QString& contentId, int fileVersion)
{
    return QString::fromLatin1(
        QCryptographicHash::hash((contentId + QLatin1Char('/') + QString::number(fileVersion)).toUtf8(),
                                 QCryptographicHash::Sha256)
            .toHex());
}

} // namespace

bool AddPublishedItemLocked(sqlite3* db, const PublishedItem& item, int& fileVersion, std::string& error)
{
    if (item.contentId.isEmpty() || item.productId.isEmpty()) {
        error = "a content ID and a product ID are required";
        return false;
    }
    if (!EnsureTables(db, error))
        return false;
    Statement current(db, "SELECT file_version FROM content_items WHERE content_id = ?1");
    fileVersion = current.Text(1, item.contentId).Row() ? static_cast<int>(current.ColumnInt(0)) + 1 : 1;
    const QString sha = item.sha256.isEmpty() ? DerivedSha256(item.contentId, fileVersion) : item.sha256.toLower();
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    Statement write(db, "INSERT OR REPLACE INTO content_items(content_id, product_id, version, type_id, category_id, "
                        "title, owner_mid, price, for_sale, file_version, sha256, metadata, published) "
                        "VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12, ?13)");
    Statement file(db, "INSERT OR REPLACE INTO content_files(content_id, file_version, sha256, published) "
                       "VALUES(?1, ?2, ?3, ?4)");
    const bool ok = write.Text(1, item.contentId)
                        .Text(2, item.productId)
                        .Text(3, item.version)
                        .Int(4, item.typeId)
                        .Int(5, item.categoryId)
                        .Text(6, item.title)
                        .Text(7, item.ownerMid)
                        .Real(8, item.price)
                        .Int(9, item.forSale ? 1 : 0)
                        .Int(10, fileVersion)
                        .Text(11, sha)
                        .Utf8(12, QJsonDocument(item.metadata).toJson(QJsonDocument::Compact))
                        .Int(13, now)
                        .Done()
                    && file.Text(1, item.contentId).Int(2, fileVersion).Text(3, sha).Int(4, now).Done();
    if (!ok)
        error = std::string("cannot write the item: ") + sqlite3_errmsg(db);
    return ok;
}

bool AddPublishedItem(ServerState& state, const PublishedItem& item, int& fileVersion, std::string& error)
{
    return state.WithDatabase([&](sqlite3* db) { return AddPublishedItemLocked(db, item, fileVersion, error); });
}

} // namespace ContentCatalogue
