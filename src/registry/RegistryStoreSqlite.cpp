#include "RegistryStore.h"

#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QLoggingCategory>
#include <QStandardPaths>
#include <QThread>
#include <QUrl>

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <functional>
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

// An exclusive flock on a file of the store folder, held for the object's life.
// A folder where the file cannot be made still locks through a read-only open.
class FileLock
{
public:
    FileLock(const QString& file, int waitMs)
    {
        const QByteArray path = QFile::encodeName(file);
        m_fd = ::open(path.constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (m_fd < 0)
            m_fd = ::open(path.constData(), O_RDONLY | O_CLOEXEC);
        if (m_fd < 0)
            return;
        QElapsedTimer waited;
        waited.start();
        while (::flock(m_fd, LOCK_EX | LOCK_NB) != 0) {
            if (errno != EWOULDBLOCK && errno != EINTR) {
                break;
            }
            if (waited.elapsed() >= waitMs) {
                qCWarning(lcStore) << "QMRegistryTool::Store gave up waiting for" << file;
                break;
            }
            QThread::msleep(5);
        }
        m_locked = ::flock(m_fd, LOCK_EX | LOCK_NB) == 0;
    }
    ~FileLock()
    {
        if (m_fd >= 0)
            ::close(m_fd); // releases the lock
    }
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;
    bool Locked() const { return m_locked; }

private:
    int m_fd = -1;
    bool m_locked = false;
};

class Database
{
public:
    explicit Database(const QString& file)
        : m_file(file)
    {
        const QString folder = QFileInfo(file).absolutePath();
        // Without a writable folder SQLite cannot make the write-ahead log's files:
        // the tokens stay readable, writes fail.
        if (QFileInfo::exists(file) && ::access(QFile::encodeName(folder).constData(), W_OK) != 0) {
            OpenReadOnly();
            return;
        }
        const bool opened = OpenWritable();
        if (opened && Healthy())
            return;
        if (!opened && !m_corrupt)
            return; // cannot open for another reason: the file is left alone
        // Two processes may find the same corrupt file: one moves it aside, under a lock.
        FileLock lock(folder + QLatin1String("/.recover.lock"), 10000);
        Close();
        if (OpenWritable() && Healthy())
            return;
        Close();
        const QString aside =
            file + QLatin1String(".corrupt-") + QDateTime::currentDateTime().toString(QStringLiteral("yyyyMMdd-hhmmss"));
        const bool moved = QFile::rename(file, aside);
        QFile::remove(file + QLatin1String("-wal"));
        QFile::remove(file + QLatin1String("-shm"));
        qCWarning(lcStore).noquote() << "QMRegistryTool::Store" << file << "is corrupt;"
                                     << (moved ? QStringLiteral("moved aside to %1").arg(aside)
                                               : QStringLiteral("could not move it to %1").arg(aside))
                                     << "and a new store was started";
        if (!moved)
            QFile::remove(file);
        if (!OpenWritable() || !Healthy())
            Close();
    }
    ~Database() { Close(); }
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    bool IsOpen() const { return m_db != nullptr; }

    QVariant Read(const QByteArray& key, const QByteArray& name)
    {
        std::lock_guard<std::recursive_mutex> lock(m_mutex);
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
        std::lock_guard<std::recursive_mutex> lock(m_mutex);
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
        std::lock_guard<std::recursive_mutex> lock(m_mutex);
        Statement st(m_remove);
        return st.Bind(key, name) && Done(st) && sqlite3_changes(m_db) > 0;
    }

    // The writes of \a work commit together; other threads of this process wait,
    // other processes wait on SQLite's write lock. A nested call joins the outer one.
    bool Transaction(const std::function<bool()>& work)
    {
        std::lock_guard<std::recursive_mutex> lock(m_mutex);
        if (m_depth > 0) {
            ++m_depth;
            const bool result = work();
            --m_depth;
            return result;
        }
        if (!Exec("BEGIN IMMEDIATE"))
            return false;
        m_depth = 1;
        const bool result = work();
        m_depth = 0;
        if (!Exec("COMMIT")) {
            Exec("ROLLBACK");
            return false;
        }
        return result;
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

    bool Exec(const char* sql)
    {
        char* error = nullptr;
        const int rc = sqlite3_exec(m_db, sql, nullptr, nullptr, &error);
        if (rc != SQLITE_OK) {
            const int code = sqlite3_errcode(m_db);
            m_corrupt = m_corrupt || code == SQLITE_NOTADB || code == SQLITE_CORRUPT;
            qCWarning(lcStore) << "QMRegistryTool::Store" << sql << (error ? error : sqlite3_errstr(rc));
            sqlite3_free(error);
            return false;
        }
        return true;
    }

    bool OpenWritable()
    {
        const QByteArray path = QFile::encodeName(m_file);
        // Create it 0600 before SQLite does; its journal files copy the mode.
        const int fd = ::open(path.constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (fd >= 0) {
            ::fchmod(fd, 0600);
            ::close(fd);
        }
        if (sqlite3_open_v2(path.constData(), &m_db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                            nullptr)
            != SQLITE_OK) {
            qCWarning(lcStore) << "QMRegistryTool::Store cannot open" << m_file << sqlite3_errmsg(m_db);
            Close();
            return false;
        }
        sqlite3_busy_timeout(m_db, 10000);
        // A file that is no database fails already here; the check below finds damaged pages.
        return Exec("PRAGMA journal_mode=WAL") && Exec("PRAGMA synchronous=NORMAL")
               && Exec("CREATE TABLE IF NOT EXISTS reg(key TEXT NOT NULL, name TEXT NOT NULL, "
                       "kind INTEGER NOT NULL, value, PRIMARY KEY(key, name)) WITHOUT ROWID")
               && PrepareAll();
    }

    void OpenReadOnly()
    {
        const QByteArray path = QFile::encodeName(m_file);
        // Existing -wal and -shm files serve a read-only open; without them the file is read as it is.
        const QByteArray immutable = "file:" + QUrl::fromLocalFile(m_file).path(QUrl::FullyEncoded).toUtf8()
                                     + "?immutable=1";
        for (const QByteArray& name : {path, immutable}) {
            const int flags = SQLITE_OPEN_READONLY | SQLITE_OPEN_FULLMUTEX | (name == path ? 0 : SQLITE_OPEN_URI);
            if (sqlite3_open_v2(name.constData(), &m_db, flags, nullptr) == SQLITE_OK) {
                sqlite3_busy_timeout(m_db, 10000);
                if (PrepareAll() && Healthy())
                    return;
            }
            Close();
        }
        qCWarning(lcStore) << "QMRegistryTool::Store cannot read" << m_file;
    }

    bool PrepareAll()
    {
        m_read = Prepare("SELECT kind, value FROM reg WHERE key = ?1 AND name = ?2");
        m_write = Prepare("INSERT OR REPLACE INTO reg(key, name, kind, value) VALUES(?1, ?2, ?3, ?4)");
        m_remove = Prepare("DELETE FROM reg WHERE key = ?1 AND name = ?2");
        return m_read && m_write && m_remove;
    }

    // A truncated file or one of random bytes fails here even when the header reads.
    bool Healthy()
    {
        if (!m_db)
            return false;
        sqlite3_stmt* check = nullptr;
        bool ok = sqlite3_prepare_v2(m_db, "PRAGMA quick_check", -1, &check, nullptr) == SQLITE_OK
                  && sqlite3_step(check) == SQLITE_ROW
                  && qstrcmp(reinterpret_cast<const char*>(sqlite3_column_text(check, 0)), "ok") == 0;
        sqlite3_finalize(check);
        return ok;
    }

    void Close()
    {
        m_corrupt = false;
        for (sqlite3_stmt** statement : {&m_read, &m_write, &m_remove}) {
            sqlite3_finalize(*statement);
            *statement = nullptr;
        }
        if (m_db)
            sqlite3_close(m_db);
        m_db = nullptr;
    }

    QString m_file;
    sqlite3* m_db = nullptr;
    sqlite3_stmt* m_read = nullptr;
    sqlite3_stmt* m_write = nullptr;
    sqlite3_stmt* m_remove = nullptr;
    std::recursive_mutex m_mutex; // a prepared statement serves one caller at a time; a transaction holds it
    int m_depth = 0;
    bool m_corrupt = false; // an open or a statement found no sound database
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
        // Private to the user; a folder made read-only on purpose stays so.
        struct stat info {};
        if (::stat(QFile::encodeName(folder).constData(), &info) == 0)
            ::chmod(QFile::encodeName(folder).constData(), info.st_mode & 0700);
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

bool Transaction(bool currentUser, const std::function<bool()>& writes)
{
    Database* db = Open(currentUser);
    return db ? db->Transaction(writes) : writes();
}

struct ProcessLock::Held {
    explicit Held(const QString& file, int waitMs)
        : lock(file, waitMs)
    {
    }
    FileLock lock;
};

ProcessLock::ProcessLock(const QString& name, int waitMs)
{
    const QString folder = Folder();
    QDir().mkpath(folder);
    m_held = std::make_unique<Held>(folder + QLatin1String("/.") + name + QLatin1String(".lock"), waitMs);
}

ProcessLock::~ProcessLock() = default;

bool ProcessLock::Locked() const
{
    return m_held && m_held->lock.Locked();
}

} // namespace QMRegistryTool::Store
