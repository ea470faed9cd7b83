#pragma once

// What differs between Qt 5 and Qt 6 in the few places this code meets it.

#include <QTextStream>
#include <QtGlobal>

namespace QMCompat {

// Streams of Qt 6 have encodings instead of codecs.
inline void SetUtf8(QTextStream& stream)
{
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
    stream.setEncoding(QStringConverter::Utf8);
#else
    stream.setCodec("UTF-8");
#endif
}

} // namespace QMCompat
