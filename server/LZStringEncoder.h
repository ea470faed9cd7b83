#pragma once

#include <QString>

// The server's own encoder of lz-string's UTF-16 text form, for replies whose
// "result" member is sent compressed.
namespace LZStringEncoder {

QString compressToUTF16(const QString& text);

} // namespace LZStringEncoder
