#include "LZString.h"

#include <atomic>
#include <cstdint>
#include <cstring>
#include <memory>

#if defined(_MSC_VER) && (defined(_M_X64) || defined(_M_IX86))
#include <xmmintrin.h>
#endif

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
        return value;
    }

    // The description's "index > length": every bit of the input has been read.
    bool Exhausted() const { return m_next * 15 - uint64_t(m_available) >= m_limitBits; }

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
};

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

// Scratch memory kept per thread, so that a decode does not fault in fresh
// pages. A buffer is kept while a call touches at most 8 MiB of it (the
// dictionary 16 MiB: enough for a 10 MB reply); pages beyond what calls
// touch are never made resident.
struct Scratch {
    explicit Scratch(size_t keptWords)
        : kept(keptWords)
    {
    }
    size_t kept;
    std::unique_ptr<uint32_t[]> words;
    size_t size = 0;
    size_t used = 0; // words the last call touched

    // Room for \a count words; the first \a keep survive a move.
    uint32_t* Ensure(size_t count, size_t keep)
    {
        if (size < count) {
            std::unique_ptr<uint32_t[]> fresh(new uint32_t[count]);
            if (keep)
                std::memcpy(fresh.get(), words.get(), keep * sizeof(uint32_t));
            words = std::move(fresh);
            size = count;
        }
        return words.get();
    }
    void Trim()
    {
        if (used > kept) {
            words.reset();
            size = 0;
        }
        used = 0;
    }
};

thread_local Scratch t_codes(size_t(2) << 20);
thread_local Scratch t_table(size_t(4) << 20);

struct ScratchRelease {
    ~ScratchRelease()
    {
        t_codes.Trim();
        t_table.Trim();
    }
};

enum class End { Text, Empty, Null };

// Decoding runs in three passes. The first reads the bits into a list of
// codes: the dictionary's size and the code width evolve independently of
// the text, so the whole stream is read before any look-up. The second learns
// the length of every dictionary entry and of the text, so the output is made
// once at its size and a text beyond the limit is refused before any of it is
// built. The third writes the text; there an entry is only its start in the
// output. An entry learnt at a step is the previous phrase and the first
// character of the current one, which lie side by side in the output: it ends
// one character after where the next learnt entry starts. The last two passes
// look entries up at random; knowing the codes, they fetch memory ahead.
constexpr uint32_t kLiteral = 0x80000000u; // a literal: the flag and its character; else a code >= 3
constexpr size_t kSlack = 8; // characters a copy may write past its phrase
constexpr size_t kAhead = 16;
constexpr size_t kFetchFrom = 16384; // codes

// A dictionary entry: a run of the output already written.
struct Span {
    uint32_t offset;
    uint32_t length;
};

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
End ReadCodes(Reader reader, size_t length, Header& header, size_t& count)
{
    count = 0;
    if (ReadHeader(reader, header) == End::Empty)
        return End::Empty;
    // Once codes are 15 bits or wider there are fewer of them than input characters.
    uint32_t* codes = t_codes.Ensure(length + 64, 0);
    size_t capacity = t_codes.size;
    // The code width grows by a bit whenever the dictionary's size reaches a power of two.
    uint32_t dictSize = 4;
    int numBits = 3;
    for (;;) {
        if (reader.Exhausted())
            return End::Empty; // ended before its end marker: nothing decoded counts
        if (count == capacity) {
            codes = t_codes.Ensure(count * 2, count);
            capacity = t_codes.size;
        }
        const uint32_t code = reader.Read(numBits);
        if (code < 2) {
            codes[count++] = kLiteral | reader.Read(code == 0 ? 8 : 16);
            if (++dictSize == uint32_t(1) << numBits)
                ++numBits;
        } else if (code == 2) {
            return End::Text;
        } else if (code > dictSize) {
            return End::Null; // beyond the next free code
        } else {
            codes[count++] = code;
        }
        if (++dictSize == uint32_t(1) << numBits)
            ++numBits;
        if (numBits > 31)
            return End::Null; // no real stream grows codes this wide
    }
}

// Null when a code names an empty entry or the text outgrows \a limit.
template <bool kFetch>
End Measure(const Header& header, const uint32_t* codes, size_t count, Span* entries, qint64 limit,
            uint64_t& size, size_t& used)
{
    entries[3].length = header.hasFirst ? 1 : 0;
    uint32_t w = entries[3].length;
    uint64_t total = w;
    uint32_t dictSize = 4;
    for (size_t i = 0; i < count; ++i) {
        if (kFetch && i + kAhead < count && !(codes[i + kAhead] & kLiteral))
            Prefetch(entries + codes[i + kAhead]);
        const uint32_t code = codes[i];
        uint32_t entry;
        if (code & kLiteral) {
            entries[dictSize++].length = 1;
            entry = 1;
        } else if (code < dictSize) {
            entry = entries[code].length;
            if (entry == 0) {
                used = dictSize;
                return End::Null;
            }
        } else {
            entry = w ? w + 1 : 0; // a phrase that refers to itself
        }
        total += entry;
        if (total > uint64_t(limit)) {
            used = dictSize;
            return End::Null; // stops before the oversized text is built
        }
        entries[dictSize++].length = w + (entry ? 1u : 0u);
        w = entry;
    }
    used = dictSize;
    size = total;
    return End::Text;
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

// Every entry's length is known from the measuring pass; this one adds where
// each starts in the output.
template <bool kFetch>
void Write(const Header& header, const uint32_t* codes, size_t count, char16_t* out, Span* entries)
{
    uint32_t at = 0;
    if (header.hasFirst)
        out[at++] = header.first;
    entries[3].offset = 0;
    uint32_t previous = 0; // where the previous phrase starts
    uint32_t dictSize = 4;
    for (size_t i = 0; i < count; ++i) {
        // Two steps ahead: the entry, then the text it points to.
        if (kFetch && i + kAhead < count && !(codes[i + kAhead] & kLiteral))
            Prefetch(entries + codes[i + kAhead]);
        if (kFetch && i + kAhead / 2 < count) {
            const uint32_t soon = codes[i + kAhead / 2];
            if (!(soon & kLiteral) && soon < dictSize)
                Prefetch(out + entries[soon].offset);
        }
        const uint32_t code = codes[i];
        uint32_t length;
        if (code & kLiteral) {
            out[at] = static_cast<char16_t>(code);
            entries[dictSize++].offset = at;
            length = 1;
        } else if (code < dictSize) {
            const Span entry = entries[code];
            CopyPhrase(out + at, out + entry.offset, entry.length);
            length = entry.length;
        } else {
            length = at - previous; // w and its own first character
            CopyPhrase(out + at, out + previous, length);
            if (length) {
                out[at + length] = out[previous];
                ++length;
            }
        }
        // The previous phrase and the first character of this one.
        entries[dictSize++].offset = previous;
        previous = at;
        at += length;
    }
}

template <typename Reader>
QString Decode(const QChar* data, int length, int resetValue, qint64 limit)
{
    ScratchRelease release;
    Header header;
    size_t count = 0;
    const End end = ReadCodes(Reader(data, length, resetValue), size_t(length), header, count);
    const uint32_t* codes = t_codes.words.get();
    t_codes.used = count;
    // At most two entries a code, after the 4 fixed ones.
    static_assert(sizeof(Span) == 2 * sizeof(uint32_t), "a span is two words");
    Span* table = reinterpret_cast<Span*>(t_table.Ensure(2 * (2 * count + 8), 0));
    uint64_t size = 0;
    size_t entries = 4;
    // Small streams stay in the cache: fetching ahead would only cost there.
    const bool fetch = count > kFetchFrom;
    const End measured = fetch ? Measure<true>(header, codes, count, table, limit, size, entries)
                               : Measure<false>(header, codes, count, table, limit, size, entries);
    t_table.used = 2 * entries;
    // A stream that breaks off still fails as Null where a code before the break does.
    if (measured == End::Null)
        return QString();
    if (end != End::Text)
        return end == End::Null ? QString() : EmptyText();
    QString text(static_cast<int>(size + kSlack), Qt::Uninitialized);
    char16_t* out = reinterpret_cast<char16_t*>(text.data());
    if (fetch)
        Write<true>(header, codes, count, out, table);
    else
        Write<false>(header, codes, count, out, table);
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
