#include "ServerFixture.h"

#include <curl/curl.h>

#include <QCryptographicHash>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>

#ifdef Q_OS_LINUX
#include <sys/prctl.h>
#include <csignal>
#include <unistd.h>
#endif

namespace {

#ifdef Q_OS_LINUX
const pid_t g_testProcess = ::getpid();

// Runs in the child between fork and exec; only async-signal-safe calls.
void DieWithParent()
{
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != g_testProcess)
        ::_exit(127); // the test was gone before the request took hold
}
#endif

} // namespace

ServerProcess::ServerProcess()
{
#if defined(Q_OS_LINUX) && QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
    setChildProcessModifier(&DieWithParent);
#endif
}

#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
void ServerProcess::setupChildProcess()
{
#ifdef Q_OS_LINUX
    DieWithParent();
#endif
}
#endif

ServerFixture::~ServerFixture()
{
    Stop();
}

QString ServerFixture::ServerBinary()
{
    return QStringLiteral(QM_SERVER_BINARY);
}

QString ServerFixture::Redacted(const QString& token)
{
    return QStringLiteral("[redacted %1]")
        .arg(QString::fromLatin1(QCryptographicHash::hash(token.toUtf8(), QCryptographicHash::Sha256).toHex().left(12)));
}

bool ServerFixture::Start(const QStringList& extraArguments)
{
    m_state = std::make_unique<QTemporaryDir>();
    QStringList arguments{QStringLiteral("--state"), m_state->path(), QStringLiteral("--admin")};
    arguments << extraArguments;
    m_process.setProcessChannelMode(QProcess::SeparateChannels);
    m_process.start(ServerBinary(), arguments);
    if (!m_process.waitForStarted(10000))
        return false;
    QByteArray line;
    while (!line.contains('\n')) {
        if (!m_process.waitForReadyRead(20000))
            return false;
        line += m_process.readAllStandardOutput();
    }
    const QJsonObject ready = QJsonDocument::fromJson(line.left(line.indexOf('\n'))).object();
    m_port = ready.value(QStringLiteral("port")).toInt();
    m_caFile = ready.value(QStringLiteral("ca")).toString();
    return m_port > 0 && !m_caFile.isEmpty();
}

void ServerFixture::Stop()
{
    if (m_process.state() == QProcess::NotRunning)
        return;
    m_process.terminate();
    if (!m_process.waitForFinished(10000)) {
        m_process.kill();
        m_process.waitForFinished(5000);
    }
}

void ServerFixture::Export() const
{
    qputenv("QM_API_HOST", Host().toUtf8());
    qputenv("QM_WEB_HOST", Host().toUtf8());
    qputenv("QM_CA_FILE", m_caFile.toLocal8Bit());
}

namespace {
size_t Collect(char* data, size_t size, size_t count, void* reply)
{
    static_cast<QByteArray*>(reply)->append(data, static_cast<int>(size * count));
    return size * count;
}
} // namespace

QJsonObject ServerFixture::Admin(const QString& path, const QJsonObject& body) const
{
    // A handle of its own that trusts this server's CA: admin calls neither go through the
    // library under test nor touch the environment it reads, from whatever thread they come.
    CURL* curl = curl_easy_init();
    if (!curl)
        return QJsonObject();
    const QByteArray url = QStringLiteral("https://%1%2").arg(Host(), path).toUtf8();
    const QByteArray ca = QFile::encodeName(m_caFile);
    const QByteArray json = QJsonDocument(body).toJson(QJsonDocument::Compact);
    QByteArray reply;
    curl_slist* headers = curl_slist_append(nullptr, "Content-Type: application/json");
    curl_easy_setopt(curl, CURLOPT_URL, url.constData());
    curl_easy_setopt(curl, CURLOPT_CAINFO, ca.constData());
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, 10000L);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &Collect);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &reply);
    if (!body.isEmpty()) {
        curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, json.constData());
        curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(json.size()));
    }
    curl_easy_perform(curl);
    curl_slist_free_all(headers);
    curl_easy_cleanup(curl);
    return QJsonDocument::fromJson(reply).object();
}

long ServerFixture::Connections() const
{
    return static_cast<long>(Admin(QStringLiteral("/admin/stats")).value(QStringLiteral("connections")).toDouble());
}

QList<QJsonObject> ServerFixture::Requests(const QString& path) const
{
    QList<QJsonObject> list;
    const QJsonArray all = Admin(QStringLiteral("/admin/requests?path=") + path).value(QStringLiteral("requests")).toArray();
    for (const QJsonValue& entry : all)
        list.append(entry.toObject());
    return list;
}

StoreFolder::StoreFolder()
{
    qputenv("QM_REGISTRY_DIR", m_dir.path().toLocal8Bit());
}
