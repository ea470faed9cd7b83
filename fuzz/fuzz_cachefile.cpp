// Any bytes as the cache files on disk, through the whole read path: existence and
// age, the reader (decipher or raw text), the installed-product comparison, and the
// reply parse that the profile read runs on the cached text.
#include "FuzzService.h"
#include "QMMemberWebService/Cache.h"

#include <QFile>
#include <QJsonDocument>

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzService& service = FuzzService::Instance();
    const QString folder = CQMMemberWebService::GetCacheFolderPath();
    for (const char* name : {"MemberInfo.json", "InstalledProductList"}) {
        QFile file(folder + QLatin1String(name));
        if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
            return 0;
        file.write(reinterpret_cast<const char*>(data), static_cast<qint64>(size));
    }
    if (!QMCache::Exists(QStringLiteral("MemberInfo.json")) || QMCache::Expired(QStringLiteral("MemberInfo.json")))
        __builtin_trap();
    const QString text = QMCache::Content(QStringLiteral("MemberInfo.json"));
    QMCache::InstalledListModified({{L"P1", 3}, {L"P2", 12}});
    int apiStatus = 0;
    int status = 0;
    QJsonDocument document;
    service.ParseJsonResult(text.toStdWString(), apiStatus, status, document);
    return 0;
}
