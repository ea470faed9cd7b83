#pragma once

#include <QJsonObject>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <memory>

// How many times slower an instrumented build runs: short time limits of tests scale with it.
#if defined(__SANITIZE_THREAD__)
constexpr int kSanitizerSlowdown = 10;
#elif defined(__SANITIZE_ADDRESS__)
constexpr int kSanitizerSlowdown = 5;
#else
constexpr int kSanitizerSlowdown = 1;
#endif

// A child process that dies with the test, even when the test aborts: the child
// asks the kernel for SIGKILL when its parent goes.
class ServerProcess : public QProcess
{
public:
    ServerProcess();

#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
protected:
    void setupChildProcess() override;
#endif
};

// Starts qmmember-server on an ephemeral loopback port with its own state
// folder, waits for its ready line, and stops it on destruction.
class ServerFixture
{
public:
    ServerFixture() = default;
    ~ServerFixture();

    /// Starts the server; extra arguments follow --state and --admin.
    bool Start(const QStringList& extraArguments = {});
    void Stop();

    int Port() const { return m_port; }
    qint64 Pid() const { return m_process.processId(); }
    QString Host() const { return QStringLiteral("127.0.0.1:%1").arg(m_port); }
    QString CaFile() const { return m_caFile; }

    /// Points the library at this server: QM_API_HOST, QM_WEB_HOST, QM_CA_FILE.
    void Export() const;

    /// Calls an admin endpoint; GET when \a body is empty.
    QJsonObject Admin(const QString& path, const QJsonObject& body = QJsonObject()) const;
    void Reset() const { Admin(QStringLiteral("/admin/reset"), QJsonObject{{QStringLiteral("all"), true}}); }
    void Fault(const QJsonObject& fault) const { Admin(QStringLiteral("/admin/fault"), fault); }
    long Connections() const;
    /// The requests the server saw on \a path, oldest first.
    QList<QJsonObject> Requests(const QString& path) const;

    static QString ServerBinary();
    /// A token as the server's request log shows it: "[redacted " + a short fingerprint + "]".
    static QString Redacted(const QString& token);

private:
    std::unique_ptr<QTemporaryDir> m_state;
    ServerProcess m_process;
    int m_port = 0;
    QString m_caFile;
};

// A per-test store folder: QM_REGISTRY_DIR points into a fresh temporary directory.
class StoreFolder
{
public:
    StoreFolder();
    QString Path() const { return m_dir.path(); }

private:
    QTemporaryDir m_dir;
};
