#include "LZStringEncoder.h"

#include <unordered_map>
#include <unordered_set>

namespace LZStringEncoder {

namespace {

// Writes codes least significant bit first, 15 bits to a character, each
// character offset by 32.
class BitWriter
{
public:
    void Write(int value, int bits)
    {
        for (int i = 0; i < bits; ++i) {
            m_value = (m_value << 1) | (value & 1);
            if (m_position == 14) {
                m_out.append(QChar(static_cast<ushort>(m_value + 32)));
                m_position = 0;
                m_value = 0;
            } else {
                ++m_position;
            }
            value >>= 1;
        }
    }

    QString Finish()
    {
        for (;;) {
            m_value <<= 1;
            if (m_position == 14) {
                m_out.append(QChar(static_cast<ushort>(m_value + 32)));
                break;
            }
            ++m_position;
        }
        return m_out + QLatin1Char(' ');
    }

private:
    QString m_out;
    int m_value = 0;
    int m_position = 0;
};

} // namespace

QString compressToUTF16(const QString& text)
{
    std::unordered_map<std::u16string, int> dictionary;
    std::unordered_set<std::u16string> pendingLiterals;
    BitWriter out;
    int dictSize = 3;
    int numBits = 2;
    int enlargeIn = 2;
    std::u16string w;

    auto grow = [&] {
        if (--enlargeIn == 0) {
            enlargeIn = 1 << numBits;
            ++numBits;
        }
    };
    auto emitPhrase = [&](const std::u16string& phrase) {
        auto literal = pendingLiterals.find(phrase);
        if (literal != pendingLiterals.end()) {
            const char16_t c = phrase[0];
            if (c < 256) {
                out.Write(0, numBits);
                out.Write(c, 8);
            } else {
                out.Write(1, numBits);
                out.Write(c, 16);
            }
            grow();
            pendingLiterals.erase(literal);
        } else {
            out.Write(dictionary[phrase], numBits);
        }
        grow();
    };

    const auto* data = reinterpret_cast<const char16_t*>(text.constData());
    for (int i = 0; i < text.size(); ++i) {
        const std::u16string c(1, data[i]);
        if (dictionary.emplace(c, dictSize).second) {
            ++dictSize;
            pendingLiterals.insert(c);
        }
        std::u16string wc = w + c;
        if (dictionary.count(wc)) {
            w = std::move(wc);
            continue;
        }
        emitPhrase(w);
        dictionary.emplace(std::move(wc), dictSize++);
        w = c;
    }
    if (!w.empty())
        emitPhrase(w);
    out.Write(2, numBits);
    return out.Finish();
}

} // namespace LZStringEncoder
