// Any bytes, read as UTF-16 code units, through the decoder.
#include "LZString/LZString.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QString input(reinterpret_cast<const QChar*>(data), static_cast<int>(size / 2));
    const QString output = LZString::decompressFromUTF16(input);
    // Empty input gives an empty, non-null text.
    if (input.isEmpty() && (output.isNull() || !output.isEmpty()))
        __builtin_trap();
    return 0;
}
