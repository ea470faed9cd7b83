#include "LZString.h"

#include <cstdint>
#include <cstring>
#include <vector>

namespace LZString {

const QString keyStrBase64 = QStringLiteral("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=");
const QString keyStrUriSafe = QStringLiteral("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+-$");

namespace {

// A reply that would decode to more than this (512 MiB) is refused as corrupt.
constexpr uint64_t kMaxOutput = uint64_t(1) << 28;

// Dictionary entries are spans of the output already written: every phrase
// the decoder learns is a run of text it has just produced.
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
    FastReader(const QChar* data, int length, int)
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

// The decoder runs twice over the same bits: the first pass learns only
// lengths, so that the output is allocated once at its exact size (no growth,
// no zero-filling); the second writes the text. Both passes share the state
// machine below, which follows the format's description step by step.
enum class Outcome { Text, Empty, Null };

// First pass: the length of every dictionary entry and of the whole text.
class Measure
{
public:
    explicit Measure(size_t expectedCodes) { m_lengths.reserve(expectedCodes); }

    void Start(uint32_t firstLength, char16_t)
    {
        m_lengths.assign(3, 0);
        m_lengths.push_back(firstLength);
        m_w = firstLength;
        m_size = firstLength;
    }
    bool Literal(char16_t)
    {
        m_lengths.push_back(1);
        m_entry = 1;
        m_size += 1;
        return m_size <= kMaxOutput;
    }
    bool Reference(uint32_t code)
    {
        m_entry = m_lengths[code];
        m_size += m_entry;
        return m_entry != 0 && m_size <= kMaxOutput;
    }
    bool SelfReference()
    {
        m_entry = m_w ? m_w + 1 : 0;
        m_size += m_entry;
        return m_size <= kMaxOutput;
    }
    void Learn()
    {
        m_lengths.push_back(m_w + (m_entry ? 1u : 0u));
        m_w = m_entry;
    }
    uint64_t Size() const { return m_size; }

private:
    std::vector<uint32_t> m_lengths;
    uint32_t m_w = 0;
    uint32_t m_entry = 0;
    uint64_t m_size = 0;
};

// Second pass: writes into the exactly sized output. Dictionary entries are
// spans of the text already written.
class Write
{
public:
    Write(char16_t* out, size_t expectedCodes)
        : m_out(out)
    {
        m_spans.reserve(expectedCodes);
    }

    void Start(uint32_t firstLength, char16_t first)
    {
        m_spans.assign(3, Span{0, 0});
        m_spans.push_back(Span{0, firstLength});
        if (firstLength)
            m_out[0] = first;
        m_w = Span{0, firstLength};
        m_at = firstLength;
    }
    bool Literal(char16_t c)
    {
        m_out[m_at] = c;
        m_entry = Span{m_at, 1};
        m_spans.push_back(m_entry);
        m_at += 1;
        return true;
    }
    bool Reference(uint32_t code)
    {
        const Span source = m_spans[code];
        std::memcpy(m_out + m_at, m_out + source.offset, size_t(source.length) * sizeof(char16_t));
        m_entry = Span{m_at, source.length};
        m_at += source.length;
        return true;
    }
    bool SelfReference()
    {
        m_entry = Span{m_at, 0};
        if (m_w.length) {
            std::memcpy(m_out + m_at, m_out + m_w.offset, size_t(m_w.length) * sizeof(char16_t));
            m_out[m_at + m_w.length] = m_out[m_w.offset];
            m_entry.length = m_w.length + 1;
        }
        m_at += m_entry.length;
        return true;
    }
    void Learn()
    {
        // w and the first character of the entry lie side by side in the output.
        if (m_w.length)
            m_spans.push_back(Span{m_w.offset, m_w.length + (m_entry.length ? 1u : 0u)});
        else
            m_spans.push_back(Span{m_entry.offset, m_entry.length ? 1u : 0u});
        m_w = m_entry;
    }

private:
    char16_t* m_out;
    std::vector<Span> m_spans;
    Span m_w{0, 0};
    Span m_entry{0, 0};
    uint32_t m_at = 0;
};

template <typename Reader, typename Pass>
Outcome Run(Reader& reader, Pass& pass, uint64_t length)
{
    int32_t dictSize = 4;
    int32_t enlargeIn = 4;
    int numBits = 3;
    auto grow = [&] {
        if (--enlargeIn == 0) {
            enlargeIn = int32_t(1) << numBits;
            ++numBits;
        }
    };

    switch (reader.Read(2)) {
    case 0:
        pass.Start(1, static_cast<char16_t>(reader.Read(8)));
        break;
    case 1:
        pass.Start(1, static_cast<char16_t>(reader.Read(16)));
        break;
    case 2:
        return Outcome::Empty;
    default:
        pass.Start(0, 0); // 3: an empty first phrase, tolerated
        break;
    }

    for (;;) {
        if (reader.Index() > length)
            return Outcome::Empty; // ended before its end marker: nothing decoded counts
        const uint32_t code = reader.Read(numBits);
        if (code < 2) {
            if (!pass.Literal(static_cast<char16_t>(reader.Read(code == 0 ? 8 : 16))))
                return Outcome::Null;
            ++dictSize;
            grow();
        } else if (code == 2) {
            return Outcome::Text;
        } else {
            if (enlargeIn == 0) {
                enlargeIn = int32_t(1) << numBits;
                ++numBits;
            }
            if (code < static_cast<uint32_t>(dictSize)) {
                if (!pass.Reference(code))
                    return Outcome::Null;
            } else if (code == static_cast<uint32_t>(dictSize)) {
                if (!pass.SelfReference())
                    return Outcome::Null;
            } else {
                return Outcome::Null;
            }
        }
        ++dictSize;
        pass.Learn();
        grow();
        if (numBits > 31)
            return Outcome::Null; // no real stream grows codes this wide
    }
}

template <typename Reader>
QString Decode(const QChar* data, int length, int resetValue)
{
    const size_t expectedCodes = static_cast<size_t>(qMin(length, 1 << 24)) + 8;
    Measure measure(expectedCodes);
    Reader measuring(data, length, resetValue);
    const Outcome outcome = Run(measuring, measure, static_cast<uint64_t>(length));
    if (outcome == Outcome::Null)
        return QString();
    if (outcome == Outcome::Empty)
        return EmptyText();

    QString text(static_cast<int>(measure.Size()), Qt::Uninitialized);
    Write write(reinterpret_cast<char16_t*>(text.data()), expectedCodes);
    Reader writing(data, length, resetValue);
    Run(writing, write, static_cast<uint64_t>(length));
    return text;
}

} // namespace

QString _decompress(int length, int resetValue, const QChar* data)
{
    if (length <= 0 || !data || resetValue <= 0)
        return EmptyText();
    if (resetValue == 16384)
        return Decode<FastReader>(data, length, resetValue);
    return Decode<ClassicReader>(data, length, resetValue);
}

QString decompressFromUTF16(const QString& compressed)
{
    if (compressed.isEmpty())
        return EmptyText();
    return _decompress(compressed.length(), 16384, compressed.constData());
}

} // namespace LZString
