// A cache file's body, through the reader's decipher path.
#include "QMMemberWebService/Cache.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QString text = QString::fromUtf8(reinterpret_cast<const char*>(data), static_cast<int>(size));
    QMCache::Decipher(text);
    return 0;
}
