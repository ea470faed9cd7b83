#include "RegistryStore.h"

#include <QDir>
#include <QLoggingCategory>
#include <QStandardPaths>

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <mutex>
#include <string>

Q_LOGGING_CATEGORY(lcStore, "qm.registry", QtWarningMsg)

namespace QMRegistryTool::Store {

namespace Detail {
extern std::atomic<quint64> generation;
}

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
        m_read = Prepare("SELECT kind, value FROM reg WHERE key = ?1 AND name = ?2");
        m_write = Prepare("INSERT OR REPLACE INTO reg(key, name, kind, value) VALUES(?1, ?2, ?3, ?4)");
        m_remove = Prepare("DELETE FROM reg WHERE key = ?1 AND name = ?2");
    }
    ~Database()
    {
        for (sqlite3_stmt* statement : {m_read, m_write, m_remove})
            sqlite3_finalize(statement);
        if (m_db)
            sqlite3_close(m_db);
    }
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    bool IsOpen() const { return m_db != nullptr; }

    QVariant Read(const QByteArray& key, const QByteArray& name)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        Statement st(m_read);
        if (!st.Bind(key, name) || sqlite3_step(st.m_stmt) != SQLITE_ROW)
            return {};
        if (sqlite3_column_int(st.m_stmt, 0) == 1)
            return QVariant(sqlite3_column_int(st.m_stmt, 1));
        const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(st.m_stmt, 1));
        return QVariant(QString::fromUtf8(text ? text : ""));
    }

    bool Write(const QByteArray& key, const QByteArray& name, const QVariant& value)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        Statement st(m_write);
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
        std::lock_guard<std::mutex> lock(m_mutex);
        Statement st(m_remove);
        return st.Bind(key, name) && Done(st) && sqlite3_changes(m_db) > 0;
    }

private:
    // Statements are prepared once; each use binds, steps and resets.
    struct Statement {
        explicit Statement(sqlite3_stmt* statement)
            : m_stmt(statement)
        {
        }
        ~Statement()
        {
            if (m_stmt) {
                sqlite3_reset(m_stmt);
                sqlite3_clear_bindings(m_stmt);
            }
        }
        bool Bind(const QByteArray& key, const QByteArray& name)
        {
            return m_stmt && sqlite3_bind_text(m_stmt, 1, key.constData(), key.size(), SQLITE_TRANSIENT) == SQLITE_OK
                   && sqlite3_bind_text(m_stmt, 2, name.constData(), name.size(), SQLITE_TRANSIENT) == SQLITE_OK;
        }
        sqlite3_stmt* m_stmt;
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

    sqlite3_stmt* Prepare(const char* sql)
    {
        sqlite3_stmt* statement = nullptr;
        sqlite3_prepare_v3(m_db, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr);
        return statement;
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
    sqlite3_stmt* m_read = nullptr;
    sqlite3_stmt* m_write = nullptr;
    sqlite3_stmt* m_remove = nullptr;
    std::mutex m_mutex; // a prepared statement serves one caller at a time
};

// One connection per store file, kept for the life of the process. The folder
// is resolved again only when QM_REGISTRY_DIR changes.
Database* Open(bool currentUser)
{
    struct Opened {
        std::mutex mutex;
        std::map<QString, std::unique_ptr<Database>> files;
        QByteArray environment{"\0unset"};
        Database* hives[2] = {nullptr, nullptr};
    };
    static Opened opened;

    const QByteArray environment = qgetenv("QM_REGISTRY_DIR");
    std::lock_guard<std::mutex> lock(opened.mutex);
    if (environment != opened.environment) {
        opened.environment = environment;
        opened.hives[0] = opened.hives[1] = nullptr;
    }
    Database*& hive = opened.hives[currentUser ? 1 : 0];
    if (hive)
        return hive;
    const QString folder = Folder();
    const QString file = folder + QLatin1String(currentUser ? "/HKEY_CURRENT_USER.db" : "/HKEY_LOCAL_MACHINE.db");
    auto found = opened.files.find(file);
    if (found == opened.files.end()) {
        if (!QDir().mkpath(folder))
            return nullptr;
        ::chmod(QFile::encodeName(folder).constData(), 0700);
        auto db = std::make_unique<Database>(file);
        if (!db->IsOpen())
            return nullptr;
        found = opened.files.emplace(file, std::move(db)).first;
    }
    hive = found->second.get();
    return hive;
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
    ++Detail::generation;
    Database* db = Open(currentUser);
    return db && db->Write(FoldKey(keyPath), FoldName(name), value);
}

bool Remove(bool currentUser, const QString& keyPath, const QString& name)
{
    ++Detail::generation;
    Database* db = Open(currentUser);
    return db && db->Remove(FoldKey(keyPath), FoldName(name));
}

} // namespace QMRegistryTool::Store
