#pragma once

#include <QString>

#include "qmmemberwebservice_export.h"

/// Decoder of the lz-string format's UTF-16 text form, in which some
/// replies carry their "result" member.
namespace LZString {

/// Decodes \a compressed. Empty input and streams that end before their end
/// marker give an empty, non-null string; a corrupt back-reference gives a
/// null string. Never reads outside \a compressed.
QMMEMBERWEBSERVICE_EXPORT QString decompressFromUTF16(const QString& compressed);
/// As above, but a text longer than \a maxLength characters gives a null
/// string; the decoder stops before it builds such a text.
QMMEMBERWEBSERVICE_EXPORT QString decompressFromUTF16(const QString& compressed, qint64 maxLength);

/// The decoder proper: \a length characters of \a data, each worth its code
/// minus 32, with \a resetValue 16384 for 15 payload bits a character.
QMMEMBERWEBSERVICE_EXPORT QString _decompress(int length, int resetValue, const QChar* data);
QMMEMBERWEBSERVICE_EXPORT QString _decompress(int length, int resetValue, const QChar* data, qint64 maxLength);

/// The longest text the one-argument decoders give (default 64 Mi characters,
/// as many as the transport's default reply limit allows); 0 or below restores
/// the default. CQMNetworkCenter::SetMaxReplyBytes sets it too.
QMMEMBERWEBSERVICE_EXPORT void SetOutputLimit(qint64 characters);
QMMEMBERWEBSERVICE_EXPORT qint64 OutputLimit();

QMMEMBERWEBSERVICE_EXPORT extern const QString keyStrBase64;
QMMEMBERWEBSERVICE_EXPORT extern const QString keyStrUriSafe;

} // namespace LZString
