#include "ServerState.h"

#include <QDateTime>
#include <QJsonDocument>
#include <QMessageAuthenticationCode>

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

QByteArray RandomBytes(int count)
{
    QByteArray bytes(count, Qt::Uninitialized);
    RAND_bytes(reinterpret_cast<unsigned char*>(bytes.data()), count);
    return bytes;
}

QByteArray HashPassword(const QString& password, const QByteArray& salt)
{
    const QByteArray utf8 = password.toUtf8();
    QByteArray hash(32, Qt::Uninitialized);
    PKCS5_PBKDF2_HMAC(utf8.constData(), utf8.size(), reinterpret_cast<const unsigned char*>(salt.constData()),
                      salt.size(), 20000, EVP_sha256(), hash.size(), reinterpret_cast<unsigned char*>(hash.data()));
    return hash;
}

struct Statement {
    Statement(sqlite3* db, const char* sql) { sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr); }
    ~Statement() { sqlite3_finalize(stmt); }
    Statement& Text(int index, const QString& value)
    {
        const QByteArray utf8 = value.toUtf8();
        sqlite3_bind_text(stmt, index, utf8.constData(), utf8.size(), SQLITE_TRANSIENT);
        return *this;
    }
    Statement& Blob(int index, const QByteArray& value)
    {
        sqlite3_bind_blob(stmt, index, value.constData(), value.size(), SQLITE_TRANSIENT);
        return *this;
    }
    Statement& Int(int index, qint64 value)
    {
        sqlite3_bind_int64(stmt, index, value);
        return *this;
    }
    bool Row() { return sqlite3_step(stmt) == SQLITE_ROW; }
    bool Done() { return sqlite3_step(stmt) == SQLITE_DONE; }
    QString ColumnText(int column) const
    {
        const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt, column));
        return QString::fromUtf8(text ? text : "");
    }
    QByteArray ColumnBlob(int column) const
    {
        return QByteArray(static_cast<const char*>(sqlite3_column_blob(stmt, column)),
                          sqlite3_column_bytes(stmt, column));
    }
    qint64 ColumnInt(int column) const { return sqlite3_column_int64(stmt, column); }
    sqlite3_stmt* stmt = nullptr;
};

// The member columns every read selects, in the order MemberFromRow expects.
const char* const kMemberColumns = "SELECT member_id, email, nickname, first_name, last_name";

ServerState::Member MemberFromRow(const Statement& row)
{
    return {row.ColumnText(0), row.ColumnText(1), row.ColumnText(2), row.ColumnText(3), row.ColumnText(4)};
}

} // namespace

ServerState::~ServerState()
{
    if (m_db)
        sqlite3_close(m_db);
}

bool ServerState::Exec(const char* sql)
{
    return sqlite3_exec(m_db, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

bool ServerState::Open(const std::string& file, int tokenTtlSeconds, std::string& error)
{
    m_tokenTtl = tokenTtlSeconds;
    // Members' password hashes and live tokens: the owner's only. The journal files copy the mode.
    const int fd = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd >= 0) {
        ::fchmod(fd, 0600);
        ::close(fd);
    }
    if (sqlite3_open_v2(file.c_str(), &m_db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                        nullptr)
        != SQLITE_OK) {
        error = "cannot open " + file;
        return false;
    }
    sqlite3_busy_timeout(m_db, 5000);
    const bool ok = Exec("PRAGMA journal_mode=WAL")
                    && Exec("CREATE TABLE IF NOT EXISTS settings(name TEXT PRIMARY KEY, value BLOB)")
                    && Exec("CREATE TABLE IF NOT EXISTS members(member_id TEXT PRIMARY KEY, email TEXT UNIQUE "
                            "COLLATE NOCASE, salt BLOB, hash BLOB, nickname TEXT, first_name TEXT, last_name TEXT)")
                    && Exec("CREATE TABLE IF NOT EXISTS access_tokens(token TEXT PRIMARY KEY, member_id TEXT, "
                            "expires INTEGER)")
                    && Exec("CREATE TABLE IF NOT EXISTS refresh_tokens(token TEXT PRIMARY KEY, member_id TEXT)");
    if (!ok) {
        error = std::string("cannot prepare the database: ") + sqlite3_errmsg(m_db);
        return false;
    }
    Statement read(m_db, "SELECT value FROM settings WHERE name = 'secret'");
    if (read.Row()) {
        m_secret = read.ColumnBlob(0);
    } else {
        m_secret = RandomBytes(32);
        Statement write(m_db, "INSERT INTO settings(name, value) VALUES('secret', ?1)");
        write.Blob(1, m_secret).Done();
    }
    return true;
}

ServerState::Member ServerState::AddMember(const QString& email, const QString& password, const QString& nickName)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    Member member;
    if (SelectMember("email", email, member))
        return member;
    Statement count(m_db, "SELECT COUNT(*) FROM members");
    count.Row();
    member.id = QString::number(100001 + count.ColumnInt(0));
    member.email = email;
    member.nickName = nickName.isEmpty() ? email.section(QLatin1Char('@'), 0, 0) : nickName;
    member.firstName = QStringLiteral("Demo");
    member.lastName = QStringLiteral("Member");
    const QByteArray salt = RandomBytes(16);
    Statement insert(m_db, "INSERT INTO members(member_id, email, salt, hash, nickname, first_name, last_name) "
                           "VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7)");
    insert.Text(1, member.id)
        .Text(2, email)
        .Blob(3, salt)
        .Blob(4, HashPassword(password, salt))
        .Text(5, member.nickName)
        .Text(6, member.firstName)
        .Text(7, member.lastName)
        .Done();
    return member;
}

bool ServerState::SelectMember(const char* column, const QString& value, Member& member)
{
    const std::string sql = std::string(kMemberColumns) + " FROM members WHERE " + column + " = ?1";
    Statement find(m_db, sql.c_str());
    if (!find.Text(1, value).Row())
        return false;
    member = MemberFromRow(find);
    return true;
}

bool ServerState::FindMember(const QString& email, Member& member)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return SelectMember("email", email, member);
}

bool ServerState::FindMemberById(const QString& memberId, Member& member)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return SelectMember("member_id", memberId, member);
}

bool ServerState::CheckPassword(const QString& email, const QString& password, Member& member)
{
    QByteArray salt;
    QByteArray hash;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const std::string sql = std::string(kMemberColumns) + ", salt, hash FROM members WHERE email = ?1";
        Statement find(m_db, sql.c_str());
        if (!find.Text(1, email).Row())
            return false;
        member = MemberFromRow(find);
        salt = find.ColumnBlob(5);
        hash = find.ColumnBlob(6);
    }
    const QByteArray given = HashPassword(password, salt);
    return given.size() == hash.size() && CRYPTO_memcmp(given.constData(), hash.constData(), hash.size()) == 0;
}

QString ServerState::NewAccessToken(const QString& memberId, qint64 expires)
{
    // Three parts; the middle one is standard base64 of a JSON object with
    // "memberid" as a string, which is all the client reads.
    const QByteArray header = QByteArrayLiteral("{\"alg\":\"HS256\",\"typ\":\"JWT\"}").toBase64();
    QJsonObject claims;
    claims.insert(QStringLiteral("memberid"), memberId);
    claims.insert(QStringLiteral("exp"), expires);
    claims.insert(QStringLiteral("jti"), QString::fromLatin1(RandomBytes(12).toHex()));
    const QByteArray payload = QJsonDocument(claims).toJson(QJsonDocument::Compact).toBase64();
    const QByteArray signature =
        QMessageAuthenticationCode::hash(header + '.' + payload, m_secret, QCryptographicHash::Sha256).toBase64();
    return QString::fromLatin1(header + '.' + payload + '.' + signature);
}

ServerState::Tokens ServerState::IssueTokens(const QString& memberId, int ttlSeconds)
{
    const qint64 expires = QDateTime::currentSecsSinceEpoch() + (ttlSeconds < 0 ? m_tokenTtl : ttlSeconds);
    Tokens tokens{NewAccessToken(memberId, expires), QString::fromLatin1(RandomBytes(24).toBase64(
                                                         QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals))};
    std::lock_guard<std::mutex> lock(m_mutex);
    Statement access(m_db, "INSERT INTO access_tokens(token, member_id, expires) VALUES(?1, ?2, ?3)");
    access.Text(1, tokens.access).Text(2, memberId).Int(3, expires).Done();
    Statement refresh(m_db, "INSERT INTO refresh_tokens(token, member_id) VALUES(?1, ?2)");
    refresh.Text(1, tokens.refresh).Text(2, memberId).Done();
    return tokens;
}

bool ServerState::RefreshAccess(const QString& refreshToken, QString& access)
{
    QString memberId;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        Statement find(m_db, "SELECT member_id FROM refresh_tokens WHERE token = ?1");
        if (!find.Text(1, refreshToken).Row())
            return false;
        memberId = find.ColumnText(0);
    }
    const qint64 expires = QDateTime::currentSecsSinceEpoch() + m_tokenTtl;
    access = NewAccessToken(memberId, expires);
    std::lock_guard<std::mutex> lock(m_mutex);
    Statement insert(m_db, "INSERT INTO access_tokens(token, member_id, expires) VALUES(?1, ?2, ?3)");
    return insert.Text(1, access).Text(2, memberId).Int(3, expires).Done();
}

ServerState::TokenState ServerState::CheckAccess(const QString& access, QString& memberId)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    Statement find(m_db, "SELECT member_id, expires FROM access_tokens WHERE token = ?1");
    if (!find.Text(1, access).Row())
        return TokenState::Unknown;
    memberId = find.ColumnText(0);
    return find.ColumnInt(1) <= QDateTime::currentSecsSinceEpoch() ? TokenState::Expired : TokenState::Valid;
}
