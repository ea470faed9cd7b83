// The installed-product list's text form: parse, print, parse again gives the same list.
#include "QMMemberWebService/Cache.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QString text = QString::fromUtf8(reinterpret_cast<const char*>(data), static_cast<int>(size));
    const QMCache::ProductIDList list = QMCache::StringToList(text);
    for (const auto& entry : list) {
        // Entries hold no separators, or printing them back would not parse the same.
        const QString id = QString::fromStdWString(entry.first);
        if (id.isEmpty() || id.contains(QLatin1Char(';')) || id.contains(QLatin1Char(':')))
            __builtin_trap();
    }
    if (QMCache::StringToList(QMCache::ListToString(list)) != list)
        __builtin_trap();
    return 0;
}
