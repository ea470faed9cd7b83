#include "RegistryStore.h"

#include <QSettings>

#include <windows.h>

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

bool Transaction(bool currentUser, const std::function<bool()>& writes)
{
    (void)currentUser;
    return writes(); // the registry has no transaction: the caller's order holds
}

struct ProcessLock::Held {
    HANDLE mutex = nullptr;
    bool locked = false;
};

ProcessLock::ProcessLock(const QString& name, int waitMs)
    : m_held(std::make_unique<Held>())
{
    const std::wstring mutexName = L"Local\\Quillmarsh." + name.toStdWString();
    m_held->mutex = ::CreateMutexW(nullptr, FALSE, mutexName.c_str());
    if (m_held->mutex) {
        const DWORD waited = ::WaitForSingleObject(m_held->mutex, static_cast<DWORD>(waitMs));
        m_held->locked = waited == WAIT_OBJECT_0 || waited == WAIT_ABANDONED;
    }
}

ProcessLock::~ProcessLock()
{
    if (m_held->locked)
        ::ReleaseMutex(m_held->mutex);
    if (m_held->mutex)
        ::CloseHandle(m_held->mutex);
}

bool ProcessLock::Locked() const
{
    return m_held->locked;
}

} // namespace QMRegistryTool::Store
