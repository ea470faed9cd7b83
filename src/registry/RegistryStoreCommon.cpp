#include "RegistryStore.h"

#include <atomic>

namespace QMRegistryTool::Store {

namespace Detail {
std::atomic<quint64> generation{0};
}

quint64 WriteGeneration()
{
    return Detail::generation.load();
}

QString NormalizeKeyPath(const QString& keyPath)
{
    QString path = keyPath;
    path.replace(QLatin1Char('/'), QLatin1Char('\\'));
    const QStringList parts = path.split(QLatin1Char('\\'), Qt::SkipEmptyParts);
    return parts.join(QLatin1Char('\\'));
}

QVariant ReadNative(const QString& fullKeyPath, const QString& name)
{
    const QString path = NormalizeKeyPath(fullKeyPath);
    const int cut = path.indexOf(QLatin1Char('\\'));
    const QString hive = (cut < 0 ? path : path.left(cut)).toUpper();
    const QString key = cut < 0 ? QString() : path.mid(cut + 1);
    if (hive == QLatin1String("HKEY_CURRENT_USER") || hive == QLatin1String("HKCU"))
        return Read(true, key, name);
    if (hive == QLatin1String("HKEY_LOCAL_MACHINE") || hive == QLatin1String("HKLM"))
        return Read(false, key, name);
    return {};
}

} // namespace QMRegistryTool::Store
