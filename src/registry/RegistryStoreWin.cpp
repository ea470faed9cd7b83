#include "RegistryStore.h"

#include <QSettings>

#include <atomic>

namespace QMRegistryTool::Store {

namespace Detail {
extern std::atomic<quint64> generation;
}

namespace {
QString SettingsPath(bool currentUser, const QString& keyPath)
{
    QString path = QLatin1String(currentUser ? "HKEY_CURRENT_USER" : "HKEY_LOCAL_MACHINE") + QLatin1Char('\\')
                   + keyPath;
    return path.replace(QLatin1Char('\\'), QLatin1Char('/'));
}
} // namespace

QVariant Read(bool currentUser, const QString& keyPath, const QString& name)
{
    QSettings settings(SettingsPath(currentUser, keyPath), QSettings::NativeFormat);
    return settings.value(name);
}

bool Write(bool currentUser, const QString& keyPath, const QString& name, const QVariant& value)
{
    ++Detail::generation;
    QSettings settings(SettingsPath(currentUser, keyPath), QSettings::NativeFormat);
    settings.setValue(name, value);
    settings.sync();
    return settings.status() == QSettings::NoError;
}

bool Remove(bool currentUser, const QString& keyPath, const QString& name)
{
    ++Detail::generation;
    QSettings settings(SettingsPath(currentUser, keyPath), QSettings::NativeFormat);
    if (!settings.contains(name))
        return false;
    settings.remove(name);
    settings.sync();
    return settings.status() == QSettings::NoError;
}

QString Folder()
{
    return {};
}

} // namespace QMRegistryTool::Store
