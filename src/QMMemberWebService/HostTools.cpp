// Calls for hosts and tools that look at the cache, the store and compressed replies, so that
// they need no private header.
#include "QMMemberWebService.h"

#include "Cache.h"
#include "LZString/LZString.h"
#include "registry/RegistryStore.h"

namespace {

// Only names inside the cache folder: a folder part could reach any file of the user.
bool IsPlainName(const QString& name)
{
    return !name.isEmpty() && name != QLatin1String(".") && name != QLatin1String("..")
           && !name.contains(QLatin1Char('/')) && !name.contains(QLatin1Char('\\')) && !name.contains(QChar(0));
}

} // namespace

QString CQMMemberWebService::GetStoreFolderPath()
{
    return QMRegistryTool::Store::Folder();
}

bool CQMMemberWebService::ReadCacheFile(const QString& fileName, QString& text, bool& expired)
{
    if (!IsPlainName(fileName) || !QMCache::Exists(fileName))
        return false;
    text = QMCache::Content(fileName);
    expired = QMCache::Expired(fileName);
    return true;
}

bool CQMMemberWebService::DeleteCacheFile(const QString& fileName)
{
    return IsPlainName(fileName) && QMCache::Clear(fileName);
}

QString CQMMemberWebService::DecompressReplyText(const QString& compressed)
{
    return LZString::decompressFromUTF16(compressed);
}
