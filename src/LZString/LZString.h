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

/// The decoder proper: \a length characters of \a data, each worth its code
/// minus 32, with \a resetValue 16384 for 15 payload bits a character.
QMMEMBERWEBSERVICE_EXPORT QString _decompress(int length, int resetValue, const QChar* data);

QMMEMBERWEBSERVICE_EXPORT extern const QString keyStrBase64;
QMMEMBERWEBSERVICE_EXPORT extern const QString keyStrUriSafe;

} // namespace LZString
