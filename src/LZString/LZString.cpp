#include "LZString.h"

#include <cstdint>
#include <cstring>
#include <vector>

namespace LZString {

const QString keyStrBase64 = QStringLiteral("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=");
const QString keyStrUriSafe = QStringLiteral("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+-$");

namespace {

// Dictionary entries are spans of the output already written: every phrase
// the decoder learns is a run of text it has just produced.
// A reply that would decode to more than this is refused as corrupt.
constexpr uint64_t kMaxOutput = uint64_t(1) << 28;

struct Span {
    uint32_t offset;
    uint32_t length;
};

QString EmptyText()
{
    return QString(QLatin1String(""));
}

// The reader of the format's description, for reset values other than the
// UTF-16 form's: bit by bit, reloading a character when the mask runs out.
class ClassicReader
{
public:
    ClassicReader(const QChar* data, int length, int resetValue)
        : m_data(reinterpret_cast<const char16_t*>(data))
        , m_length(length)
        , m_resetValue(resetValue)
        , m_value(Char(0))
        , m_position(resetValue)
    {
    }

    uint32_t Read(int count)
    {
        uint32_t number = 0;
        for (int bit = 0; bit < count; ++bit) {
            const int32_t set = m_value & m_position;
            m_position >>= 1;
            if (m_position == 0) {
                m_position = m_resetValue;
                m_value = Char(m_index++);
            }
            if (set > 0)
                number |= 1u << bit;
        }
        return number;
    }

    uint64_t Index() const { return m_index; }

private:
    // Past the end every character reads as the terminating zero would.
    int32_t Char(uint64_t i) const { return (i < uint64_t(m_length) ? int32_t(m_data[i]) : 0) - 32; }

    const char16_t* m_data;
    int m_length;
    int32_t m_resetValue;
    int32_t m_value;
    int32_t m_position;
    uint64_t m_index = 1;
};

// The UTF-16 form's reader works through a 64-bit buffer. Each character
// carries 15 bits, most significant first, while numbers are assembled least
// significant bit first; reversing each 15-bit group on load makes both
// orders agree, so a read is a mask and a shift.
// A 15-bit reversal table serves the common reset value.
struct Reverse15 {
    Reverse15()
    {
        for (uint32_t v = 0; v < 32768; ++v) {
            uint32_t out = 0;
            for (int i = 0; i < 15; ++i)
                out |= ((v >> (14 - i)) & 1u) << i;
            table[v] = static_cast<uint16_t>(out);
        }
    }
    uint16_t table[32768];
};

class FastReader
{
public:
    FastReader(const QChar* data, int length)
        : m_data(reinterpret_cast<const char16_t*>(data))
        , m_length(static_cast<uint64_t>(length))
    {
    }

    inline uint32_t Read(int count)
    {
        if (m_available < count)
            Refill();
        const uint32_t value = static_cast<uint32_t>(m_buffer & ((uint64_t(1) << count) - 1));
        m_buffer >>= count;
        m_available -= count;
        m_consumed += static_cast<uint64_t>(count);
        return value;
    }

    uint64_t Index() const { return 1 + m_consumed / 15; }

private:
    void Refill()
    {
        static const Reverse15 reverse;
        while (m_available <= 64 - 15) {
            const uint32_t value = m_next < m_length ? uint32_t(m_data[m_next]) - 32u : uint32_t(-32);
            ++m_next;
            m_buffer |= uint64_t(reverse.table[value & 0x7FFF]) << m_available;
            m_available += 15;
        }
    }

    const char16_t* m_data;
    uint64_t m_length;
    uint64_t m_buffer = 0;
    int m_available = 0;
    uint64_t m_next = 0;
    uint64_t m_consumed = 0;
};

class Output
{
public:
    explicit Output(int length)
    {
        const qsizetype want = qMax<qsizetype>(16, qMin<qsizetype>(qsizetype(length) * 5, 1 << 28));
        m_text.reserve(static_cast<int>(want));
        m_data = reinterpret_cast<char16_t*>(m_text.data());
        m_capacity = static_cast<uint64_t>(m_text.capacity());
    }

    // Makes room for \a extra more characters; false when the text would exceed QString's limit.
    inline bool Ensure(uint64_t extra)
    {
        if (m_size + extra <= m_capacity)
            return true;
        return Grow(extra);
    }

    char16_t* Data() { return m_data; }
    uint64_t Size() const { return m_size; }
    void Advance(uint64_t count) { m_size += count; }

    QString Take()
    {
        m_text.resize(static_cast<int>(m_size));
        return std::move(m_text);
    }

private:
    bool Grow(uint64_t extra)
    {
        const uint64_t limit = kMaxOutput;
        if (m_size + extra > limit)
            return false;
        uint64_t capacity = qMax<uint64_t>(m_capacity * 2, m_size + extra);
        capacity = qMin<uint64_t>(capacity, limit);
        m_text.resize(static_cast<int>(m_size)); // keep what is written when reallocating
        m_text.reserve(static_cast<int>(capacity));
        m_data = reinterpret_cast<char16_t*>(m_text.data());
        m_capacity = static_cast<uint64_t>(m_text.capacity());
        return true;
    }

    QString m_text;
    char16_t* m_data = nullptr;
    uint64_t m_capacity = 0;
    uint64_t m_size = 0;
};

template <typename Reader>
QString Decode(Reader& reader, int length)
{
    std::vector<Span> dictionary;
    dictionary.reserve(static_cast<size_t>(qMin(length, 1 << 24)) + 8);
    dictionary.resize(3, Span{0, 0}); // codes 0, 1 and 2 are never looked up
    int32_t dictSize = 4;
    int32_t enlargeIn = 4;
    int numBits = 3;
    Output out(length);
    const uint64_t end = static_cast<uint64_t>(length);

    // The first phrase.
    switch (reader.Read(2)) {
    case 0:
        out.Data()[0] = static_cast<char16_t>(reader.Read(8));
        out.Advance(1);
        break;
    case 1:
        out.Data()[0] = static_cast<char16_t>(reader.Read(16));
        out.Advance(1);
        break;
    case 2:
        return EmptyText();
    default:
        break; // 3: an empty first phrase, tolerated
    }
    dictionary.push_back(Span{0, static_cast<uint32_t>(out.Size())});
    Span w{0, static_cast<uint32_t>(out.Size())};

    for (;;) {
        if (reader.Index() > end)
            return EmptyText();
        uint32_t code = reader.Read(numBits);
        const uint64_t at = out.Size();
        Span entry{static_cast<uint32_t>(at), 0};
        if (code < 2) {
            const char16_t literal = static_cast<char16_t>(reader.Read(code == 0 ? 8 : 16));
            if (!out.Ensure(1))
                return QString();
            // The literal's entry is the span where it is written now.
            out.Data()[at] = literal;
            entry.length = 1;
            dictionary.push_back(entry);
            ++dictSize;
            if (--enlargeIn == 0) {
                enlargeIn = int32_t(1) << numBits;
                ++numBits;
            }
        } else if (code == 2) {
            return out.Take();
        } else {
            if (enlargeIn == 0) {
                enlargeIn = int32_t(1) << numBits;
                ++numBits;
            }
            if (code < static_cast<uint32_t>(dictSize)) {
                const Span source = dictionary[code];
                if (source.length == 0 || !out.Ensure(source.length))
                    return QString();
                std::memcpy(out.Data() + at, out.Data() + source.offset, size_t(source.length) * sizeof(char16_t));
                entry.length = source.length;
            } else if (code == static_cast<uint32_t>(dictSize)) {
                // A phrase that refers to itself: w and its own first character.
                if (w.length > 0) {
                    if (!out.Ensure(uint64_t(w.length) + 1))
                        return QString();
                    char16_t* data = out.Data();
                    std::memcpy(data + at, data + w.offset, size_t(w.length) * sizeof(char16_t));
                    data[at + w.length] = data[w.offset];
                    entry.length = w.length + 1;
                }
            } else {
                return QString();
            }
        }
        Q_ASSERT(dictSize == static_cast<int32_t>(dictionary.size()));
        out.Advance(entry.length);

        ++dictSize;
        // w and the first character of the entry lie side by side in the output.
        dictionary.push_back(Span{w.offset, w.length + (entry.length > 0 ? 1u : 0u)});
        if (w.length == 0)
            dictionary.back().offset = entry.offset;
        w = entry;

        if (--enlargeIn == 0) {
            enlargeIn = int32_t(1) << numBits;
            ++numBits;
        }
        if (numBits > 31)
            return QString(); // no real stream grows codes this wide
    }
}

} // namespace

QString _decompress(int length, int resetValue, const QChar* data)
{
    if (length <= 0 || !data)
        return EmptyText();
    if (resetValue == 16384) {
        FastReader reader(data, length);
        return Decode(reader, length);
    }
    if (resetValue <= 0)
        return EmptyText();
    ClassicReader reader(data, length, resetValue);
    return Decode(reader, length);
}

QString decompressFromUTF16(const QString& compressed)
{
    if (compressed.isEmpty())
        return EmptyText();
    return _decompress(compressed.length(), 16384, compressed.constData());
}

} // namespace LZString
