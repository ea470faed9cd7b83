#pragma once

#include <QByteArray>
#include <QString>

#include "qmmemberwebservice_export.h"

// The string cipher shared by the cache files, URL-scheme tokens and keyed
// replies: RC4 over UTF-8, written as uppercase hexadecimal.
namespace QMCipher {

/// RC4 of \a data under \a key (key scheduling and generation as usual).
QMMEMBERWEBSERVICE_EXPORT QByteArray Rc4(const QByteArray& data, const QByteArray& key);

/// Uppercase hex, two digits a byte, high nibble first.
QMMEMBERWEBSERVICE_EXPORT QByteArray ToUpperHex(const QByteArray& bytes);

/// Even length; a digit below "A" counts from "0" (so ":" to "?" are 10 to 15),
/// any other from "A" + 10; a digit worth 16 or more fails.
QMMEMBERWEBSERVICE_EXPORT bool FromUpperHex(const QByteArray& hex, QByteArray& bytes);

/// The 7-character key of the cache and URL-scheme codec, assembled on each
/// call so that it never stands whole in the binary or in a long-lived buffer.
QMMEMBERWEBSERVICE_EXPORT QByteArray CacheKey();

/// The key of the member-request text (GetQMMemberRequestInfo), assembled the same way.
/// Every program that reads that text uses this key.
QMMEMBERWEBSERVICE_EXPORT QByteArray RequestInfoKey();

/// Enciphers \a text under \a key; empty when either is empty.
QMMEMBERWEBSERVICE_EXPORT QString Encrypt(const QString& text, const QByteArray& key);

/// Deciphers a token made by Encrypt; false for empty, odd-length or non-hex input.
/// The result is cut at the first zero byte.
QMMEMBERWEBSERVICE_EXPORT bool Decrypt(const QByteArray& token, const QByteArray& key, QString& text);

} // namespace QMCipher
