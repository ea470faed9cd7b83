#include "Cache.h"

#include "Cipher.h"
#include "../compat/QtCompat.h"
#include "QMMemberWebService.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMutex>
#include <QSaveFile>
#include <QStandardPaths>
#include <QTextStream>

#include <atomic>

namespace {

QMutex& FolderMutex()
{
    static QMutex mutex;
    return mutex;
}

// Set by SetCacheFolderPath(""): the product cache stays off until a folder is set.
std::atomic<bool> s_folderTurnedOff{false};

QString PathOf(const QString& fileName)
{
    return CQMMemberWebService::GetCacheFolderPath() + fileName;
}

} // namespace

namespace QMCache {

bool Create(const QString& content, const QString& fileName)
{
    const QString folder = CQMMemberWebService::GetCacheFolderPath();
    QDir(folder).mkpath(QStringLiteral("."));
    // Written beside and renamed over the old file: a reader never sees half
    // a file, and a crash mid-write keeps the old one.
    QSaveFile file(folder + fileName);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    file.write(QMCipher::ToUpperHex(QMCipher::Rc4(content.toUtf8(), QMCipher::CacheKey())));
    file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner);
    return file.commit();
}

QString Decipher(const QString& fileText)
{
    QByteArray bytes;
    if (!QMCipher::FromUpperHex(fileText.toUtf8(), bytes))
        return fileText; // a plain-text cache file is read as it stands
    QByteArray plain = QMCipher::Rc4(bytes, QMCipher::CacheKey());
    const int zero = plain.indexOf('\0');
    if (zero >= 0)
        plain.truncate(zero);
    return QString::fromUtf8(plain);
}

QString Content(const QString& fileName)
{
    QFile file(PathOf(fileName));
    if (!file.exists() || !file.open(QIODevice::ReadOnly))
        return QString();
    QTextStream stream(&file);
    QMCompat::SetUtf8(stream);
    return Decipher(stream.readAll());
}

bool Exists(const QString& fileName)
{
    const QString folder = CQMMemberWebService::GetCacheFolderPath();
    return !folder.isEmpty() && !fileName.isEmpty() && QFileInfo::exists(folder + fileName);
}

bool Expired(const QString& fileName)
{
    // Calendar days: written yesterday is expired, however few hours ago.
    return QFileInfo(PathOf(fileName)).lastModified().daysTo(QDateTime::currentDateTime()) >= 1;
}

bool Clear(const QString& fileName)
{
    const QString folder = CQMMemberWebService::GetCacheFolderPath();
    if (folder.isEmpty() || !QFileInfo::exists(folder + fileName))
        return true;
    return QFile::remove(folder + fileName);
}

bool ClearFolder(const QString& folderName)
{
    const QString folder = CQMMemberWebService::GetCacheFolderPath();
    QDir directory(folder + folderName);
    if (folder.isEmpty() || !directory.exists())
        return true;
    return directory.removeRecursively();
}

QString ListToString(const ProductIDList& list)
{
    QString text;
    for (size_t i = 0; i < list.size(); ++i) {
        if (i > 0)
            text += QLatin1Char(';');
        text += QString::fromStdWString(list[i].first) + QLatin1Char(':') + QString::number(list[i].second, 10);
    }
    return text;
}

ProductIDList StringToList(const QString& text)
{
    ProductIDList list;
    const QStringList parts = text.split(QLatin1Char(';'), Qt::SkipEmptyParts);
    for (const QString& part : parts) {
        const QStringList pieces = part.split(QLatin1Char(':'), Qt::SkipEmptyParts);
        if (pieces.size() != 2)
            continue;
        list.emplace_back(pieces.at(0).toStdWString(), pieces.at(1).toInt(nullptr, 10));
    }
    return list;
}

bool InstalledListModified(const ProductIDList& installed)
{
    const QString text = Content(QStringLiteral("InstalledProductList"));
    if (text.isEmpty())
        return true;
    const ProductIDList cached = StringToList(text);
    if (cached.empty() || cached.size() != installed.size())
        return true;
    // Every match counts, duplicates included.
    size_t matches = 0;
    for (const auto& product : installed) {
        for (const auto& entry : cached) {
            if (entry.first == product.first && entry.second == product.second)
                ++matches;
        }
    }
    return matches != installed.size();
}

bool FolderTurnedOff()
{
    return s_folderTurnedOff;
}

} // namespace QMCache

// --- the service's members ----------------------------------------------------------

QString CQMMemberWebService::GetCacheFolderPath()
{
    QMutexLocker lock(&FolderMutex());
    if (ms_kCacheFolderPath.isEmpty()) {
        ms_kCacheFolderPath = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation)
                              + QLatin1String("/Quillmarsh/QMLCache/");
    }
    return ms_kCacheFolderPath;
}

void CQMMemberWebService::SetCacheFolderPath(QString path)
{
    QMutexLocker lock(&FolderMutex());
    s_folderTurnedOff = path.isEmpty();
    ms_kCacheFolderPath = std::move(path);
}

bool CQMMemberWebService::CreateCacheFile(QString content, QString fileName)
{
    return QMCache::Create(content, fileName);
}

QString CQMMemberWebService::GetCacheContent(QString fileName)
{
    return QMCache::Content(fileName);
}

bool CQMMemberWebService::IsCacheFileExist(QString fileName)
{
    return QMCache::Exists(fileName);
}

bool CQMMemberWebService::IsCacheFileExpire(QString fileName)
{
    return QMCache::Expired(fileName);
}

bool CQMMemberWebService::ClearCacheFile(QString fileName)
{
    return QMCache::Clear(fileName);
}

bool CQMMemberWebService::ClearCacheFolder(QString folderName)
{
    return QMCache::ClearFolder(folderName);
}

QString CQMMemberWebService::ConvertProudctIDListToString(ProductIDList list)
{
    return QMCache::ListToString(list);
}

CQMMemberWebService::ProductIDList CQMMemberWebService::ConvertStringToProudctIDList(QString text)
{
    return QMCache::StringToList(text);
}

bool CQMMemberWebService::IsCacheInstalledProductModified(ProductIDList& installed)
{
    return QMCache::InstalledListModified(installed);
}

QString CQMMemberWebService::EncryptUrlScheme(const QString& text)
{
    return QMCipher::Encrypt(QString::fromStdWString(text.toStdWString()), QMCipher::CacheKey());
}

QString CQMMemberWebService::DecryptUrlScheme(const QString& token)
{
    QString text;
    QMCipher::Decrypt(token.toUtf8(), QMCipher::CacheKey(), text);
    return text;
}
