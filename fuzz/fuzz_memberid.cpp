// Any text as an access token: the member id read out of it, and out of a token whose
// middle part is these bytes in base64. A member id comes only from a three-part token.
#include "QMMemberWebService/Replies.h"

#include <QByteArray>

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char*>(data), static_cast<int>(size));
    const QString token = QString::fromUtf8(bytes);
    if (!QMReplies::MemberIdFromToken(token).empty() && token.count(QLatin1Char('.')) != 2)
        __builtin_trap();
    QMReplies::MemberIdFromToken(QStringLiteral("h.") + QString::fromLatin1(bytes.toBase64()) + QStringLiteral(".s"));
    return 0;
}
