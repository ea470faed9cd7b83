#include "RegistryStore.h"

#include <QDir>
#include <QLoggingCategory>
#include <QStandardPaths>

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <mutex>
#include <string>

Q_LOGGING_CATEGORY(lcStore, "qm.registry")

namespace QMRegistryTool::Store {

namespace {

// Registry hives are case-insensitive for key paths and value names.
QByteArray FoldKey(const QString& keyPath)
{
    return NormalizeKeyPath(keyPath).toCaseFolded().toUtf8();
}

QByteArray FoldName(const QString& name)
{
    return name.toCaseFolded().toUtf8();
}

class Database
{
public:
    explicit Database(const QString& file)
    {
        const QByteArray path = QFile::encodeName(file);
        // Create it 0600 before SQLite does; its journal files copy the mode.
        const int fd = ::open(path.constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (fd >= 0) {
            ::fchmod(fd, 0600);
            ::close(fd);
        }
        if (sqlite3_open_v2(path.constData(), &m_db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                            nullptr)
            != SQLITE_OK) {
            qCWarning(lcStore) << "QMRegistryTool::Store cannot open" << file << sqlite3_errmsg(m_db);
            sqlite3_close(m_db);
            m_db = nullptr;
            return;
        }
        sqlite3_busy_timeout(m_db, 10000);
        Exec("PRAGMA journal_mode=WAL");
        Exec("PRAGMA synchronous=NORMAL");
        Exec("CREATE TABLE IF NOT EXISTS reg(key TEXT NOT NULL, name TEXT NOT NULL, "
             "kind INTEGER NOT NULL, value, PRIMARY KEY(key, name)) WITHOUT ROWID");
    }
    ~Database()
    {
        if (m_db)
            sqlite3_close(m_db);
    }
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    bool IsOpen() const { return m_db != nullptr; }

    QVariant Read(const QByteArray& key, const QByteArray& name)
    {
        Statement st(m_db, "SELECT kind, value FROM reg WHERE key = ?1 AND name = ?2");
        if (!st.Bind(key, name) || sqlite3_step(st.m_stmt) != SQLITE_ROW)
            return {};
        if (sqlite3_column_int(st.m_stmt, 0) == 1)
            return QVariant(sqlite3_column_int(st.m_stmt, 1));
        const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(st.m_stmt, 1));
        return QVariant(QString::fromUtf8(text ? text : ""));
    }

    bool Write(const QByteArray& key, const QByteArray& name, const QVariant& value)
    {
        Statement st(m_db, "INSERT OR REPLACE INTO reg(key, name, kind, value) VALUES(?1, ?2, ?3, ?4)");
        if (!st.Bind(key, name))
            return false;
        if (value.type() == QVariant::Int) {
            sqlite3_bind_int(st.m_stmt, 3, 1);
            sqlite3_bind_int(st.m_stmt, 4, value.toInt());
        } else {
            const QByteArray text = value.toString().toUtf8();
            sqlite3_bind_int(st.m_stmt, 3, 0);
            sqlite3_bind_text(st.m_stmt, 4, text.constData(), text.size(), SQLITE_TRANSIENT);
        }
        return Done(st);
    }

    bool Remove(const QByteArray& key, const QByteArray& name)
    {
        Statement st(m_db, "DELETE FROM reg WHERE key = ?1 AND name = ?2");
        return st.Bind(key, name) && Done(st) && sqlite3_changes(m_db) > 0;
    }

private:
    struct Statement {
        Statement(sqlite3* db, const char* sql) { sqlite3_prepare_v2(db, sql, -1, &m_stmt, nullptr); }
        ~Statement() { sqlite3_finalize(m_stmt); }
        bool Bind(const QByteArray& key, const QByteArray& name)
        {
            return m_stmt && sqlite3_bind_text(m_stmt, 1, key.constData(), key.size(), SQLITE_TRANSIENT) == SQLITE_OK
                   && sqlite3_bind_text(m_stmt, 2, name.constData(), name.size(), SQLITE_TRANSIENT) == SQLITE_OK;
        }
        sqlite3_stmt* m_stmt = nullptr;
    };

    bool Done(Statement& st)
    {
        const int rc = sqlite3_step(st.m_stmt);
        if (rc != SQLITE_DONE) {
            qCWarning(lcStore) << "QMRegistryTool::Store write failed:" << sqlite3_errmsg(m_db);
            return false;
        }
        return true;
    }

    void Exec(const char* sql)
    {
        char* error = nullptr;
        if (sqlite3_exec(m_db, sql, nullptr, nullptr, &error) != SQLITE_OK) {
            qCWarning(lcStore) << "QMRegistryTool::Store" << sql << error;
            sqlite3_free(error);
        }
    }

    sqlite3* m_db = nullptr;
};

// One connection per store file, kept for the life of the process.
Database* Open(bool currentUser)
{
    static std::mutex mutex;
    static std::map<QString, std::unique_ptr<Database>> open;

    const QString folder = Folder();
    const QString file = folder + QLatin1String(currentUser ? "/HKEY_CURRENT_USER.db" : "/HKEY_LOCAL_MACHINE.db");
    std::lock_guard<std::mutex> lock(mutex);
    auto found = open.find(file);
    if (found != open.end())
        return found->second.get();
    if (!QDir().mkpath(folder))
        return nullptr;
    ::chmod(QFile::encodeName(folder).constData(), 0700);
    auto db = std::make_unique<Database>(file);
    if (!db->IsOpen())
        return nullptr;
    return open.emplace(file, std::move(db)).first->second.get();
}

} // namespace

QString Folder()
{
    const QByteArray overridden = qgetenv("QM_REGISTRY_DIR");
    if (!overridden.isEmpty())
        return QDir::cleanPath(QFile::decodeName(overridden));
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) + QLatin1String("/Quillmarsh/registry");
}

QVariant Read(bool currentUser, const QString& keyPath, const QString& name)
{
    Database* db = Open(currentUser);
    return db ? db->Read(FoldKey(keyPath), FoldName(name)) : QVariant();
}

bool Write(bool currentUser, const QString& keyPath, const QString& name, const QVariant& value)
{
    Database* db = Open(currentUser);
    return db && db->Write(FoldKey(keyPath), FoldName(name), value);
}

bool Remove(bool currentUser, const QString& keyPath, const QString& name)
{
    Database* db = Open(currentUser);
    return db && db->Remove(FoldKey(keyPath), FoldName(name));
}

} // namespace QMRegistryTool::Store
