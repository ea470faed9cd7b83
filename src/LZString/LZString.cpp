#include "LZString.h"

#include <cstdint>
#include <cstring>
#include <vector>

#if defined(_MSC_VER) && (defined(_M_X64) || defined(_M_IX86))
#include <xmmintrin.h>
#endif

namespace LZString {

const QString keyStrBase64 = QStringLiteral("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=");
const QString keyStrUriSafe = QStringLiteral("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+-$");

namespace {

// Asks for memory that will be read soon; a hint only.
inline void Prefetch(const void* address)
{
#if defined(__GNUC__) || defined(__clang__)
    __builtin_prefetch(address);
#elif defined(_M_X64) || defined(_M_IX86)
    _mm_prefetch(static_cast<const char*>(address), _MM_HINT_T0);
#else
    (void)address;
#endif
}

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

// Decoding runs in three passes. The first reads the bits into a list of
// codes: the dictionary's size and the code width evolve independently of the
// text, so the whole stream can be read before any look-up. The second learns
// only lengths, so that the output is allocated once at its exact size. The
// third writes the text. The last two look entries up at random; with the
// codes known in advance they fetch memory a few codes ahead of its use.
enum class Outcome { Text, Empty, Null };

// A literal carries this flag and its character; anything else is a code >= 3.
constexpr uint32_t kLiteral = 0x80000000u;
constexpr size_t kAhead = 16;

struct Codes {
    std::vector<uint32_t> list;
    bool hasFirst = false; // false: header 3, an empty first phrase
    char16_t first = 0;
    Outcome end = Outcome::Empty;
};

template <typename Reader>
Codes ReadCodes(Reader& reader, uint64_t length, size_t expected)
{
    Codes codes;
    switch (reader.Read(2)) {
    case 0:
        codes.hasFirst = true;
        codes.first = static_cast<char16_t>(reader.Read(8));
        break;
    case 1:
        codes.hasFirst = true;
        codes.first = static_cast<char16_t>(reader.Read(16));
        break;
    case 2:
        codes.end = Outcome::Empty;
        return codes;
    default:
        break; // 3: tolerated
    }
    codes.list.reserve(expected);
    uint32_t dictSize = 4;
    int32_t enlargeIn = 4;
    int numBits = 3;
    auto grow = [&] {
        if (--enlargeIn == 0) {
            enlargeIn = int32_t(1) << numBits;
            ++numBits;
        }
    };
    for (;;) {
        if (reader.Index() > length) {
            codes.end = Outcome::Empty; // ended before its end marker: nothing decoded counts
            return codes;
        }
        const uint32_t code = reader.Read(numBits);
        if (code < 2) {
            codes.list.push_back(kLiteral | reader.Read(code == 0 ? 8 : 16));
            ++dictSize;
            grow();
        } else if (code == 2) {
            codes.end = Outcome::Text;
            return codes;
        } else if (code > dictSize) {
            codes.end = Outcome::Null; // beyond the next free code
            return codes;
        } else {
            codes.list.push_back(code);
        }
        ++dictSize;
        grow();
        if (numBits > 31) {
            codes.end = Outcome::Null; // no real stream grows codes this wide
            return codes;
        }
    }
}

// The length of every dictionary entry and of the whole text; Null for a
// reference to an empty entry or a text beyond the size limit.
Outcome MeasureText(const Codes& codes, uint64_t& size)
{
    const std::vector<uint32_t>& list = codes.list;
    std::vector<uint32_t> lengths;
    lengths.reserve(list.size() * 2 + 4);
    lengths.assign(3, 0);
    uint32_t w = codes.hasFirst ? 1 : 0;
    lengths.push_back(w);
    uint64_t total = w;
    for (size_t i = 0; i < list.size(); ++i) {
        if (i + kAhead < list.size() && !(list[i + kAhead] & kLiteral) && list[i + kAhead] < lengths.size())
            Prefetch(&lengths[list[i + kAhead]]);
        const uint32_t code = list[i];
        uint32_t entry;
        if (code & kLiteral) {
            lengths.push_back(1);
            entry = 1;
        } else if (code < lengths.size()) {
            entry = lengths[code];
            if (entry == 0)
                return Outcome::Null;
        } else {
            entry = w ? w + 1 : 0; // a phrase that refers to itself
        }
        total += entry;
        if (total > kMaxOutput)
            return Outcome::Null;
        lengths.push_back(w + (entry ? 1u : 0u));
        w = entry;
    }
    size = total;
    return codes.end;
}

void WriteText(const Codes& codes, char16_t* out)
{
    const std::vector<uint32_t>& list = codes.list;
    std::vector<Span> spans;
    spans.reserve(list.size() * 2 + 4);
    spans.assign(3, Span{0, 0});
    Span w{0, codes.hasFirst ? 1u : 0u};
    if (codes.hasFirst)
        out[0] = codes.first;
    spans.push_back(w);
    uint32_t at = w.length;
    for (size_t i = 0; i < list.size(); ++i) {
        // Two steps ahead: the entry, then the text it points to.
        if (i + kAhead < list.size() && !(list[i + kAhead] & kLiteral) && list[i + kAhead] < spans.size())
            Prefetch(&spans[list[i + kAhead]]);
        if (i + kAhead / 2 < list.size() && !(list[i + kAhead / 2] & kLiteral)
            && list[i + kAhead / 2] < spans.size())
            Prefetch(out + spans[list[i + kAhead / 2]].offset);
        const uint32_t code = list[i];
        Span entry{at, 0};
        if (code & kLiteral) {
            out[at] = static_cast<char16_t>(code);
            entry.length = 1;
            spans.push_back(entry);
        } else if (code < spans.size()) {
            const Span source = spans[code];
            std::memcpy(out + at, out + source.offset, size_t(source.length) * sizeof(char16_t));
            entry.length = source.length;
        } else if (w.length) {
            // A phrase that refers to itself: w and its own first character.
            std::memcpy(out + at, out + w.offset, size_t(w.length) * sizeof(char16_t));
            out[at + w.length] = out[w.offset];
            entry.length = w.length + 1;
        }
        at += entry.length;
        // w and the first character of the entry lie side by side in the output.
        spans.push_back(w.length ? Span{w.offset, w.length + (entry.length ? 1u : 0u)}
                                 : Span{entry.offset, entry.length ? 1u : 0u});
        w = entry;
    }
}

template <typename Reader>
QString Decode(const QChar* data, int length, int resetValue)
{
    Reader reader(data, length, resetValue);
    const Codes codes = ReadCodes(reader, static_cast<uint64_t>(length), static_cast<size_t>(length) + 8);
    uint64_t size = 0;
    const Outcome outcome = MeasureText(codes, size);
    if (outcome == Outcome::Null)
        return QString();
    if (outcome == Outcome::Empty)
        return EmptyText();
    QString text(static_cast<int>(size), Qt::Uninitialized);
    WriteText(codes, reinterpret_cast<char16_t*>(text.data()));
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
