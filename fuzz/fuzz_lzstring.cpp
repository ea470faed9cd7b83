// Any bytes, read as UTF-16 code units, through the decoder, checked against a
// plain decoder written straight from the format's description: a dictionary of
// strings and a reader that takes one bit at a time. An odd last byte picks a
// reset value other than the UTF-16 form's and a limit near the text's length.
#include "LZString/LZString.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace {

constexpr qint64 kHardLimit = qint64(1) << 30;

// Null for a corrupt stream or a text over the limit, empty for one that ends
// before its end marker.
QString Reference(const QChar* data, int length, int resetValue, qint64 limit)
{
    if (length <= 0 || resetValue <= 0)
        return QString(QLatin1String(""));
    if (limit <= 0 || limit > kHardLimit)
        limit = kHardLimit;
    const auto character = [&](int i) { return (i < length ? int(data[i].unicode()) : 0) - 32; };
    int value = character(0);
    int position = resetValue;
    int index = 1;
    const auto read = [&](int count) {
        uint32_t number = 0;
        for (int bit = 0; bit < count; ++bit) {
            const int set = value & position;
            position >>= 1;
            if (position == 0) {
                position = resetValue;
                value = character(index++);
            }
            if (set > 0)
                number |= 1u << bit;
        }
        return number;
    };
    std::vector<QString> dictionary(4);
    QString w;
    switch (read(2)) {
    case 0:
        w = QChar(ushort(read(8)));
        break;
    case 1:
        w = QChar(ushort(read(16)));
        break;
    case 2:
        return QString(QLatin1String(""));
    default:
        break; // 3: an empty first phrase
    }
    dictionary[3] = w;
    QString result = w;
    int numBits = 3;
    const auto grown = [&] {
        if (dictionary.size() == size_t(1) << numBits)
            ++numBits;
    };
    for (;;) {
        if (index > length)
            return QString(QLatin1String(""));
        uint32_t code = read(numBits);
        if (code == 2)
            return result.isNull() ? QString(QLatin1String("")) : result;
        if (code < 2) {
            dictionary.push_back(QString(QChar(ushort(read(code == 0 ? 8 : 16)))));
            code = uint32_t(dictionary.size() - 1);
            grown();
        }
        QString entry;
        if (code < dictionary.size()) {
            entry = dictionary[code];
            if (entry.isEmpty())
                return QString();
        } else if (code == dictionary.size()) {
            entry = w.isEmpty() ? QString() : w + w.at(0);
        } else {
            return QString();
        }
        if (result.size() + entry.size() > limit)
            return QString();
        result += entry;
        dictionary.push_back(entry.isEmpty() ? w : w + entry.at(0));
        w = entry;
        grown();
        if (numBits > 31)
            return QString();
    }
}

bool Same(const QString& a, const QString& b)
{
    return a.isNull() == b.isNull() && a == b;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QString input(reinterpret_cast<const QChar*>(data), static_cast<int>(size / 2));
    const QString output = LZString::decompressFromUTF16(input);
    // Empty input gives an empty, non-null text.
    if (input.isEmpty() && (output.isNull() || !output.isEmpty()))
        __builtin_trap();
    // A limit of 4 Mi characters keeps the plain decoder quick on streams that decode to huge texts.
    const QString expected = Reference(input.constData(), input.size(), 16384, qint64(1) << 22);
    if (!Same(LZString::decompressFromUTF16(input, qint64(1) << 22), expected))
        __builtin_trap();
    if (size % 2) {
        const uint8_t pick = data[size - 1];
        // At, just under and far under the text's length.
        const qint64 limit = pick % 3 == 0 ? expected.size() : pick % 3 == 1 ? expected.size() - 1 : pick % 7 + 1;
        if (!Same(LZString::decompressFromUTF16(input, limit),
                  Reference(input.constData(), input.size(), 16384, limit)))
            __builtin_trap();
        // Reset values of every width, and some just off a power of two.
        const int resetValue = pick < 128 ? 1 << (pick % 31) : (1 << (pick % 16)) + (pick % 2 ? 1 : -1);
        if (!Same(LZString::_decompress(input.size(), resetValue, input.constData(), 1 << 20),
                  Reference(input.constData(), input.size(), resetValue, 1 << 20)))
            __builtin_trap();
    }
    return 0;
}
