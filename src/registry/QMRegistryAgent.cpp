#include "QMRegistryAgent.h"

#include "RegistryStore.h"

#include <QCryptographicHash>
#include <QSysInfo>
#include <QUuid>

namespace QMRegistryTool {

namespace {

const QString kCompanyKey = QStringLiteral("SOFTWARE\\Quillmarsh");
const QString kSecondaryKeyName = QStringLiteral("QMMachineKey");

QString Q(const std::wstring& text)
{
    return QString::fromStdWString(text);
}

// The 32-bit view of a key, where 32-bit installers write on 64-bit Windows.
QString Wow6432Path(const QString& keyPath)
{
    QString path = keyPath.toUpper();
    path.replace(QStringLiteral("SOFTWARE\\"), QStringLiteral("SOFTWARE\\WOW6432Node\\"));
    return path;
}

QVariant ReadWithFallback(bool currentUser, const std::wstring& keyPath, const std::wstring& name)
{
    QVariant value = Store::Read(currentUser, Q(keyPath), Q(name));
    if (!value.isValid())
        value = Store::Read(currentUser, Wow6432Path(Q(keyPath)), Q(name));
    return value;
}

QString MachineGuidFromSystem()
{
    QString id = QString::fromLatin1(QSysInfo::machineUniqueId()).trimmed().toUpper();
    id.remove(QLatin1Char('{')).remove(QLatin1Char('}'));
    // /etc/machine-id is 32 bare hex digits; give it the GUID shape Windows uses.
    if (id.size() == 32 && !id.contains(QLatin1Char('-')))
        id = id.left(8) + '-' + id.mid(8, 4) + '-' + id.mid(12, 4) + '-' + id.mid(16, 4) + '-' + id.mid(20);
    return id;
}

} // namespace

CQMRegistryAgent::CQMRegistryAgent()
{
    const QString guid = MachineGuidFromSystem();
    if (!guid.isEmpty()) {
        m_strMachineGuid = guid.toStdWString();
        m_strPrimaryKey = m_strMachineGuid;
        // The identifier is derived, so the system's own GUID never leaves the machine as the id.
        const QByteArray digest =
            QCryptographicHash::hash("Quillmarsh machine:" + guid.toUtf8(), QCryptographicHash::Sha256);
        m_strMachineID = QString::fromLatin1(digest.left(16).toHex().toUpper()).toStdWString();
    }

    QVariant secondary = Store::Read(true, kCompanyKey, kSecondaryKeyName);
    QString key = secondary.toString();
    if (QUuid(key).isNull()) {
        key = QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper();
        Store::Write(true, kCompanyKey, kSecondaryKeyName, key);
    }
    m_strSecondaryKey = key.toStdWString();
}

CQMRegistryAgent::~CQMRegistryAgent() = default;

bool CQMRegistryAgent::ReadString(bool currentUser, const std::wstring& keyPath, const std::wstring& name,
                                  std::wstring& value)
{
    const QVariant found = ReadWithFallback(currentUser, keyPath, name);
    if (!found.isValid())
        return false;
    value = found.toString().toStdWString();
    return true;
}

bool CQMRegistryAgent::WriteString(bool currentUser, const std::wstring& keyPath, const std::wstring& name,
                                   const std::wstring& value)
{
    return Store::Write(currentUser, Q(keyPath), Q(name), QVariant(Q(value)));
}

bool CQMRegistryAgent::ReadNumber(bool currentUser, const std::wstring& keyPath, const std::wstring& name, int& value)
{
    const QVariant found = ReadWithFallback(currentUser, keyPath, name);
    if (!found.isValid())
        return false;
    bool ok = false;
    const int number = found.toInt(&ok);
    if (!ok)
        return false;
    value = number;
    return true;
}

bool CQMRegistryAgent::DeleteValue(bool currentUser, const std::wstring& keyPath, const std::wstring& name)
{
    return Store::Remove(currentUser, Q(keyPath), Q(name));
}

bool CQMRegistryAgent::WriteNumber(bool currentUser, const std::wstring& keyPath, const std::wstring& name, int value)
{
    return Store::Write(currentUser, Q(keyPath), Q(name), QVariant(value));
}

bool CQMRegistryAgent::Transaction(bool currentUser, const std::function<bool()>& writes)
{
    return Store::Transaction(currentUser, writes);
}

} // namespace QMRegistryTool
