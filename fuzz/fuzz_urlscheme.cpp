// Tokens through DecryptUrlScheme; whatever decrypts must encrypt back to an equal token.
#include "QMMemberWebService.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QString token = QString::fromUtf8(reinterpret_cast<const char*>(data), static_cast<int>(size));
    const QString text = CQMMemberWebService::DecryptUrlScheme(token);
    if (!text.isEmpty() && !text.contains(QChar(0xFFFD)) && CQMMemberWebService::EncryptUrlScheme(text).size() > token.size())
        __builtin_trap();
    return 0;
}
