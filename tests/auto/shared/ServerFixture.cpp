#include "ServerFixture.h"

#include "qmnetwork/HttpRequest.h"

#include <QJsonArray>
#include <QJsonDocument>

ServerFixture::~ServerFixture()
{
    Stop();
}

QString ServerFixture::ServerBinary()
{
    return QStringLiteral(QM_SERVER_BINARY);
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

QJsonObject ServerFixture::Admin(const QString& path, const QJsonObject& body) const
{
    // Admin calls trust this server's CA whatever the test has set.
    const QByteArray saved = qgetenv("QM_CA_FILE");
    qputenv("QM_CA_FILE", m_caFile.toLocal8Bit());
    CHttpRequest request(nullptr, true);
    std::wstring reply;
    std::wstring headers;
    const std::wstring host = Host().toStdWString();
    const std::wstring target = path.toStdWString();
    if (body.isEmpty()) {
        request.GetSync(host.c_str(), target.c_str(), reply, headers, nullptr, 10000, false, nullptr, nullptr);
    } else {
        const QByteArray json = QJsonDocument(body).toJson(QJsonDocument::Compact);
        request.PostSync(host.c_str(), target.c_str(), json.constData(), reply, headers, 10000, false,
                         L"application/json", nullptr, false);
    }
    qputenv("QM_CA_FILE", saved);
    return QJsonDocument::fromJson(QString::fromStdWString(reply).toUtf8()).object();
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
