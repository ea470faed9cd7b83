#include "LZString.h"

#include <atomic>
#include <cstdint>
#include <cstring>
#include <vector>

namespace LZString {

const QString keyStrBase64 = QStringLiteral("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=");
const QString keyStrUriSafe = QStringLiteral("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+-$");

namespace {

// The default matches the transport's default reply limit (64 MiB).
std::atomic<qint64> g_outputLimit{qint64(64) << 20};

// No stream can address more output than this: offsets carry a flag in the top bit.
constexpr qint64 kHardLimit = qint64(1) << 30;

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

    bool Exhausted() const { return m_index > uint64_t(m_length); }

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

// Bit order reversed within a byte, for the 15-bit groups below.
struct Reverse8 {
    constexpr Reverse8()
        : table()
    {
        for (int v = 0; v < 256; ++v) {
            int out = 0;
            for (int i = 0; i < 8; ++i)
                out |= ((v >> i) & 1) << (7 - i);
            table[v] = static_cast<uint8_t>(out);
        }
    }
    uint8_t table[256];
};
constexpr Reverse8 kReverse8;

// The UTF-16 form's reader works through a 64-bit buffer. Each character
// carries 15 bits, most significant first, while numbers are assembled least
// significant bit first; reversing each 15-bit group on load makes both
// orders agree, so a read is a mask and a shift.
class FastReader
{
public:
    FastReader(const QChar* data, int length, int)
        : m_data(reinterpret_cast<const char16_t*>(data))
        , m_length(static_cast<uint64_t>(length))
        , m_limitBits(static_cast<uint64_t>(length) * 15)
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

    // The description's "index > length": every bit of the input has been read.
    bool Exhausted() const { return m_consumed >= m_limitBits; }

private:
    void Refill()
    {
        while (m_available <= 64 - 15) {
            // Past the end the terminating zero reads as -32, as in the description.
            const uint32_t value = (m_next < m_length ? uint32_t(m_data[m_next]) - 32u : uint32_t(-32)) & 0x7FFFu;
            ++m_next;
            const uint32_t reversed = (uint32_t(kReverse8.table[value & 0xFF]) << 7) | (kReverse8.table[value >> 8] >> 1);
            m_buffer |= uint64_t(reversed) << m_available;
            m_available += 15;
        }
    }

    const char16_t* m_data;
    uint64_t m_length;
    uint64_t m_limitBits;
    uint64_t m_buffer = 0;
    int m_available = 0;
    uint64_t m_next = 0;
    uint64_t m_consumed = 0;
};

// One table of 4 bytes per dictionary entry serves both passes, kept per
// thread so that a decode does not fault in fresh pages; up to 8 MiB is kept.
constexpr size_t kKeptEntries = size_t(2) << 20;

struct Table {
    std::vector<uint32_t> entries;
    uint32_t* Ensure(size_t count)
    {
        if (entries.size() < count)
            entries.resize(count < 4096 ? 4096 : count * 2);
        return entries.data();
    }
    ~Table() = default;
};

thread_local Table t_table;

struct TableRelease {
    ~TableRelease()
    {
        if (t_table.entries.size() > kKeptEntries)
            std::vector<uint32_t>().swap(t_table.entries);
    }
};

enum class End { Text, Empty, Null };

// Decoding reads the stream twice. The first pass checks it and learns the
// length of every dictionary entry and of the text, so the output is made once
// at its size and a text beyond the limit is refused before any of it is
// built. The second pass writes the text; there an entry is only its start in
// the output. An entry learnt at a step is the previous phrase and the first
// character of the current one, which lie side by side in the output: it ends
// one character after where the next learnt entry starts. Literal entries
// carry kLiteral.
constexpr uint32_t kLiteral = 0x80000000u;
constexpr size_t kSlack = 8; // characters a copy may write past its phrase

struct Header {
    bool hasFirst = false; // false: header 3, an empty first phrase
    char16_t first = 0;
};

template <typename Reader>
End ReadHeader(Reader& reader, Header& header)
{
    switch (reader.Read(2)) {
    case 0:
        header.hasFirst = true;
        header.first = static_cast<char16_t>(reader.Read(8));
        return End::Text;
    case 1:
        header.hasFirst = true;
        header.first = static_cast<char16_t>(reader.Read(16));
        return End::Text;
    case 2:
        return End::Empty;
    default:
        return End::Text; // 3: tolerated
    }
}

template <typename Reader>
End Measure(Reader reader, qint64 limit, uint64_t& size)
{
    Header header;
    if (ReadHeader(reader, header) == End::Empty)
        return End::Empty;
    uint32_t* lengths = t_table.Ensure(4096);
    size_t capacity = t_table.entries.size();
    lengths[3] = header.hasFirst ? 1 : 0;
    uint32_t w = lengths[3];
    uint64_t total = w;
    uint32_t dictSize = 4;
    int32_t enlargeIn = 4;
    int numBits = 3;
    for (;;) {
        if (reader.Exhausted())
            return End::Empty; // ended before its end marker: nothing decoded counts
        if (dictSize + 2 >= capacity) {
            lengths = t_table.Ensure(size_t(dictSize) + 2);
            capacity = t_table.entries.size();
        }
        uint32_t code = reader.Read(numBits);
        uint32_t entry;
        if (code < 2) {
            reader.Read(code == 0 ? 8 : 16);
            lengths[dictSize] = 1;
            code = dictSize++;
            if (--enlargeIn == 0) {
                enlargeIn = int32_t(1) << numBits;
                ++numBits;
            }
            entry = 1;
        } else if (code == 2) {
            size = total;
            return End::Text;
        } else if (code < dictSize) {
            entry = lengths[code];
            if (entry == 0)
                return End::Null;
        } else if (code == dictSize) {
            entry = w ? w + 1 : 0; // a phrase that refers to itself
        } else {
            return End::Null; // beyond the next free code
        }
        total += entry;
        if (total > uint64_t(limit))
            return End::Null; // stops before the oversized text is built
        lengths[dictSize++] = w + (entry ? 1u : 0u);
        w = entry;
        if (--enlargeIn == 0) {
            enlargeIn = int32_t(1) << numBits;
            ++numBits;
        }
        if (numBits > 31)
            return End::Null; // no real stream grows codes this wide
    }
}

// Copies a phrase 8 characters at a time into the slack after it. The source
// ends at or before the destination, so what a chunk reads was written before
// this copy began.
inline void CopyPhrase(char16_t* target, const char16_t* source, uint32_t length)
{
    char16_t chunk[8];
    for (uint32_t done = 0; done < length; done += 8) {
        std::memcpy(chunk, source + done, sizeof chunk);
        std::memcpy(target + done, chunk, sizeof chunk);
    }
}

template <typename Reader>
void Write(Reader reader, char16_t* out, uint32_t* starts)
{
    Header header;
    ReadHeader(reader, header);
    uint32_t at = 0;
    if (header.hasFirst)
        out[at++] = header.first;
    starts[3] = kLiteral;
    uint32_t previous = 0; // where the previous phrase starts
    uint32_t dictSize = 4;
    int32_t enlargeIn = 4;
    int numBits = 3;
    starts[4] = 0;
    for (;;) {
        uint32_t code = reader.Read(numBits);
        uint32_t length;
        if (code < 2) {
            out[at] = static_cast<char16_t>(reader.Read(code == 0 ? 8 : 16));
            starts[dictSize++] = at | kLiteral;
            if (--enlargeIn == 0) {
                enlargeIn = int32_t(1) << numBits;
                ++numBits;
            }
            length = 1;
        } else if (code == 2) {
            return;
        } else {
            uint32_t from;
            if (code < dictSize) {
                const uint32_t start = starts[code];
                if (start & kLiteral) {
                    from = start & ~kLiteral;
                    length = 1;
                } else {
                    const uint32_t next = starts[code + 1];
                    length = ((next & kLiteral) ? starts[code + 2] : next) + 1 - start;
                    from = start;
                }
            } else {
                from = previous; // w and its own first character
                length = at - previous;
            }
            CopyPhrase(out + at, out + from, length);
            if (code >= dictSize && length) {
                out[at + length] = out[previous];
                ++length;
            }
        }
        starts[dictSize] = previous;
        starts[dictSize + 1] = at; // provisional: where the next learnt entry starts
        ++dictSize;
        previous = at;
        at += length;
        if (--enlargeIn == 0) {
            enlargeIn = int32_t(1) << numBits;
            ++numBits;
        }
    }
}

template <typename Reader>
QString Decode(const QChar* data, int length, int resetValue, qint64 limit)
{
    TableRelease release;
    const Reader reader(data, length, resetValue);
    uint64_t size = 0;
    const End end = Measure(reader, limit, size);
    if (end == End::Null)
        return QString();
    if (end == End::Empty)
        return EmptyText();
    QString text(static_cast<int>(size + kSlack), Qt::Uninitialized);
    Write(reader, reinterpret_cast<char16_t*>(text.data()), t_table.entries.data());
    text.resize(static_cast<int>(size)); // shrinking keeps the buffer
    return text;
}

qint64 Bounded(qint64 limit)
{
    return limit > 0 && limit < kHardLimit ? limit : kHardLimit;
}

} // namespace

void SetOutputLimit(qint64 characters)
{
    g_outputLimit = characters > 0 ? characters : qint64(64) << 20;
}

qint64 OutputLimit()
{
    return g_outputLimit.load();
}

QString _decompress(int length, int resetValue, const QChar* data)
{
    return _decompress(length, resetValue, data, OutputLimit());
}

QString _decompress(int length, int resetValue, const QChar* data, qint64 maxLength)
{
    if (length <= 0 || !data || resetValue <= 0)
        return EmptyText();
    if (resetValue == 16384)
        return Decode<FastReader>(data, length, resetValue, Bounded(maxLength));
    return Decode<ClassicReader>(data, length, resetValue, Bounded(maxLength));
}

QString decompressFromUTF16(const QString& compressed)
{
    return decompressFromUTF16(compressed, OutputLimit());
}

QString decompressFromUTF16(const QString& compressed, qint64 maxLength)
{
    if (compressed.isEmpty())
        return EmptyText();
    return _decompress(compressed.length(), 16384, compressed.constData(), maxLength);
}

} // namespace LZString
