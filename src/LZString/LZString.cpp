#include "LZString.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <memory>

#if defined(__SSE2__) || defined(_M_X64)
#include <emmintrin.h>
#define QM_LZ_SSE2 1
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

// The UTF-16 form carries 15 bits a character, most significant first, while
// numbers are assembled least significant bit first. Packing reverses each
// 15-bit group once, four characters at a time, into one little-endian bit
// string; a read is then a load, a shift and a mask.
constexpr size_t kPackPadding = 24; // bytes past the last group: reads run at most 47 bits beyond the input

inline uint64_t PackFour(uint64_t w)
{
    // Each 16-bit lane: (character - 32) & 0x7FFF, bit-reversed.
    w = ((w | 0x8000800080008000ull) - 0x0020002000200020ull) & 0x7FFF7FFF7FFF7FFFull;
    w = ((w >> 1) & 0x5555555555555555ull) | ((w & 0x5555555555555555ull) << 1);
    w = ((w >> 2) & 0x3333333333333333ull) | ((w & 0x3333333333333333ull) << 2);
    w = ((w >> 4) & 0x0F0F0F0F0F0F0F0Full) | ((w & 0x0F0F0F0F0F0F0F0Full) << 4);
    w = ((w >> 8) & 0x00FF00FF00FF00FFull) | ((w & 0x00FF00FF00FF00FFull) << 8);
    // Bit 0 of a reversed lane is the dropped 16th bit.
    return ((w >> 1) & 0x7FFF) | (((w >> 17) & 0x7FFF) << 15) | (((w >> 33) & 0x7FFF) << 30)
        | (((w >> 49) & 0x7FFF) << 45);
}

// Words needed to pack \a length characters.
inline size_t PackedWords(size_t length)
{
    return (length * 15 + 63) / 64 + (60 * 4 + 63) / 64 + (kPackPadding + 7) / 8 + 1;
}

// Past the end every character reads as the terminating zero would: 0 - 32.
void Pack(const char16_t* data, size_t length, uint64_t* out)
{
    uint64_t pending = 0;
    int bits = 0;
    auto put = [&](uint64_t group) { // 60 bits
        pending |= group << bits;
        if (bits + 60 >= 64) {
            *out++ = pending;
            pending = group >> (64 - bits); // bits >= 4 here
            bits -= 4;
        } else {
            bits += 60;
        }
    };
    size_t i = 0;
#ifdef QM_LZ_SSE2
    // The same as PackFour, eight characters at a time.
    const __m128i high = _mm_set1_epi16(short(0x8000));
    const __m128i offset = _mm_set1_epi16(32);
    const __m128i low15 = _mm_set1_epi16(0x7FFF);
    const __m128i m1 = _mm_set1_epi16(0x5555);
    const __m128i m2 = _mm_set1_epi16(0x3333);
    const __m128i m4 = _mm_set1_epi16(0x0F0F);
    const __m128i low16 = _mm_set1_epi32(0xFFFF);
    const __m128i low32 = _mm_set1_epi64x(0xFFFFFFFF);
    for (; i + 8 <= length; i += 8) {
        __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + i));
        x = _mm_and_si128(_mm_sub_epi16(_mm_or_si128(x, high), offset), low15);
        x = _mm_or_si128(_mm_and_si128(_mm_srli_epi16(x, 1), m1), _mm_slli_epi16(_mm_and_si128(x, m1), 1));
        x = _mm_or_si128(_mm_and_si128(_mm_srli_epi16(x, 2), m2), _mm_slli_epi16(_mm_and_si128(x, m2), 2));
        x = _mm_or_si128(_mm_and_si128(_mm_srli_epi16(x, 4), m4), _mm_slli_epi16(_mm_and_si128(x, m4), 4));
        x = _mm_or_si128(_mm_srli_epi16(x, 8), _mm_slli_epi16(x, 8));
        x = _mm_srli_epi16(x, 1);
        // Lanes joined in pairs: 30 bits in each 32, then 60 in each 64.
        x = _mm_or_si128(_mm_and_si128(x, low16), _mm_slli_epi32(_mm_srli_epi32(x, 16), 15));
        x = _mm_or_si128(_mm_and_si128(x, low32), _mm_slli_epi64(_mm_srli_epi64(x, 32), 30));
        uint64_t groups[2];
        _mm_storeu_si128(reinterpret_cast<__m128i*>(groups), x);
        put(groups[0]);
        put(groups[1]);
    }
#endif
    for (; i + 4 <= length; i += 4) {
        uint64_t w;
        std::memcpy(&w, data + i, sizeof w);
        put(PackFour(w));
    }
    char16_t tail[4] = {0, 0, 0, 0};
    for (size_t k = 0; i + k < length; ++k)
        tail[k] = data[i + k];
    uint64_t w;
    std::memcpy(&w, tail, sizeof w);
    put(PackFour(w));
    // Four more groups of terminating zeros cover the furthest read past the end.
    for (int k = 0; k < 4; ++k)
        put(PackFour(0));
    *out++ = pending;
    *out = 0;
}

class PackedReader
{
public:
    PackedReader(const uint64_t* packed, size_t length)
        : m_bytes(reinterpret_cast<const unsigned char*>(packed))
        , m_limitBits(uint64_t(length) * 15)
    {
    }

    inline uint32_t Read(int count)
    {
        uint64_t word;
        std::memcpy(&word, m_bytes + (m_position >> 3), sizeof word);
        m_position += count;
        return static_cast<uint32_t>((word >> ((m_position - count) & 7)) & ((uint64_t(1) << count) - 1));
    }

    // The description's "index > length": every bit of the input has been read.
    bool Exhausted() const { return m_position >= m_limitBits; }

private:
    const unsigned char* m_bytes;
    uint64_t m_limitBits;
    uint64_t m_position = 0;
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
// pages. A buffer is kept while a call touches at most what \a kept says
// (enough for a 10 MB reply); pages beyond what calls touch are never made
// resident.
struct Scratch {
    explicit Scratch(size_t keptWords)
        : kept(keptWords)
    {
    }
    size_t kept;
    std::unique_ptr<uint64_t[]> words;
    size_t size = 0;
    size_t used = 0; // words the last call touched

    // Room for \a count words; the first \a keep survive a move.
    uint64_t* Ensure(size_t count, size_t keep)
    {
        if (size < count) {
            std::unique_ptr<uint64_t[]> fresh(new uint64_t[count]);
            if (keep)
                std::memcpy(fresh.get(), words.get(), keep * sizeof(uint64_t));
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

thread_local Scratch t_packed(size_t(1) << 19);
thread_local Scratch t_steps(size_t(1) << 20);
thread_local Scratch t_table(size_t(2) << 20);

struct ScratchRelease {
    ~ScratchRelease()
    {
        t_packed.Trim();
        t_steps.Trim();
        t_table.Trim();
    }
};

enum class End { Text, Empty, Null };

// A dictionary entry, a run of the output already written; and a step of the
// plan for the output: a run to copy, or with kLiteral set in its length a
// literal character in its offset, or with kSelf set a phrase that repeats the
// previous one and its first character.
struct Span {
    uint32_t offset;
    uint32_t length;
};
static_assert(sizeof(Span) == sizeof(uint64_t), "a span is one word");
constexpr uint32_t kLiteral = 0x80000000u;
constexpr uint32_t kSelf = 0x40000000u; // lengths stay below: the output is at most 2^30
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

// At most how many codes \a bits bits can hold: as many as when every code is
// a reference, the narrowest kind (a literal adds two entries and 8 or 16 bits).
size_t MaxCodes(uint64_t bits)
{
    uint64_t codes = 0;
    for (int width = 3; width < 32; ++width) {
        // Codes of this width: until the dictionary's size reaches 2^width.
        const uint64_t run = width == 3 ? 4 : uint64_t(1) << (width - 1);
        if (bits < run * width)
            return size_t(codes + bits / width + 1);
        bits -= run * width;
        codes += run;
    }
    return size_t(codes + 1);
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

// The previous phrase again, and its first character after it.
inline void CopySelf(char16_t* out, uint32_t at, uint32_t previous, uint32_t length)
{
    if (length) {
        CopyPhrase(out + at, out + previous, length - 1);
        out[at + length - 1] = out[previous];
    }
}

// Small streams in one pass, straight into the text, which grows as needed
// (never past the limit): their dictionary stays in the cache.
constexpr int kOnePassUpTo = 4096; // input characters

template <typename Reader>
QString DecodeSmall(Reader start, Span* table, uint64_t guess, qint64 limit)
{
    Header header;
    if (ReadHeader(start, header) == End::Empty)
        return EmptyText();
    Reader reader = start; // a copy the compiler can keep in registers
    uint32_t room = uint32_t(std::min<uint64_t>(guess, uint64_t(limit))); // phrases may end here
    QString text(int(room + kSlack), Qt::Uninitialized);
    char16_t* out = reinterpret_cast<char16_t*>(text.data());
    uint32_t at = 0;
    if (header.hasFirst)
        out[at++] = header.first;
    uint32_t w = at; // the previous phrase's length
    uint32_t previous = 0; // where it starts
    table[3] = Span{0, w};
    uint32_t dictSize = 4;
    uint32_t wider = 8; // the code width grows by a bit when the dictionary's size reaches this
    int numBits = 3;
    // Beyond the room: an empty entry, the limit, or growing the text.
    auto full = [&](uint32_t length) {
        if (length == 0 || uint64_t(at) + length > uint64_t(limit))
            return false;
        room = uint32_t(std::min<uint64_t>(std::max<uint64_t>(uint64_t(room) * 2, uint64_t(at) + length),
                                           uint64_t(limit)));
        text.resize(int(room + kSlack));
        out = reinterpret_cast<char16_t*>(text.data());
        return true;
    };
    for (;;) {
        if (reader.Exhausted())
            return EmptyText(); // ended before its end marker: nothing decoded counts
        const uint32_t code = reader.Read(numBits);
        uint32_t length;
        if (code - 3 < dictSize - 3) { // an entry
            const Span entry = table[code];
            length = entry.length;
            if (length - 1 >= room - at && !full(length))
                return QString(); // an empty entry, or the text outgrows the limit
            CopyPhrase(out + at, out + entry.offset, length);
            table[dictSize++] = Span{previous, w + 1};
        } else if (code < 2) {
            const uint32_t c = reader.Read(code == 0 ? 8 : 16);
            table[dictSize++] = Span{at, 1};
            if (dictSize == wider) {
                wider <<= 1;
                ++numBits;
            }
            length = 1;
            if (at == room && !full(length))
                return QString();
            out[at] = static_cast<char16_t>(c);
            table[dictSize++] = Span{previous, w + 1};
        } else if (code == 2) {
            break;
        } else if (code == dictSize) { // the previous phrase and its own first character
            length = w ? w + 1 : 0;
            if (length > room - at && !full(length))
                return QString();
            CopySelf(out, at, previous, length);
            table[dictSize++] = Span{previous, length};
        } else {
            return QString(); // beyond the next free code
        }
        if (dictSize == wider) {
            wider <<= 1;
            if (++numBits > 31)
                return QString(); // no real stream grows codes this wide
        }
        previous = at;
        at += length;
        w = length;
    }
    text.resize(int(at)); // shrinking keeps the buffer
    return text;
}

// Larger streams in two passes. The first reads the codes, learns every
// entry's start and length and plans the output as a list of copies, so the
// text is made once at its size and a text beyond the limit is refused before
// any of it is built. It reads a block of codes ahead of looking them up, so
// that their entries are fetched before they are needed. The second carries
// out the copies; knowing them, it fetches the text they read ahead.
constexpr int kBlock = 64; // codes
constexpr size_t kAhead = 32; // copies
constexpr size_t kFetchFrom = 16384; // input characters

struct Plan {
    size_t steps = 0;
    uint32_t entries = 4;
    uint32_t size = 0; // of the text
};

template <bool kFetch, typename Reader>
End MakePlan(Reader reader, uint32_t first, Span* table, Span* steps, uint32_t limit, Plan& plan)
{
    uint32_t at = first;
    uint32_t w = first; // the previous phrase's length
    uint32_t previous = 0; // where it starts
    table[3] = Span{0, w};
    uint32_t dictSize = 4;
    uint32_t readSize = 4; // the dictionary's size as reading sees it
    uint32_t wider = 8; // the code width grows by a bit when the dictionary's size reaches this
    int numBits = 3;
    size_t count = 0;
    uint32_t codes[kBlock];
    End end = End::Text;
    bool ended = false;
    auto finish = [&](End result) {
        plan.steps = count;
        plan.entries = dictSize;
        plan.size = at;
        return result;
    };
    while (!ended) {
        int read = 0;
        for (; read < kBlock; ++read) {
            if (reader.Exhausted()) {
                end = End::Empty; // ended before its end marker: nothing decoded counts
                ended = true;
                break;
            }
            uint32_t code = reader.Read(numBits);
            if (code - 3 < readSize - 3) {
                if (kFetch)
                    Prefetch(table + code);
            } else if (code < 2) {
                code = kLiteral | reader.Read(code == 0 ? 8 : 16);
                if (++readSize == wider) {
                    wider <<= 1;
                    ++numBits;
                }
            } else if (code == 2) {
                ended = true;
                break;
            } else if (code != readSize) {
                end = End::Null; // beyond the next free code
                ended = true;
                break;
            }
            codes[read] = code;
            if (++readSize == wider) {
                wider <<= 1;
                if (++numBits > 31) { // no real stream grows codes this wide
                    end = End::Null;
                    ended = true;
                    ++read;
                    break;
                }
            }
        }
        for (int i = 0; i < read; ++i) {
            const uint32_t code = codes[i];
            uint32_t length;
            if (code - 3 < dictSize - 3) { // an entry
                const Span entry = table[code];
                length = entry.length;
                if (length - 1 >= limit - at)
                    return finish(End::Null); // an empty entry, or the text outgrows the limit
                steps[count++] = entry;
                table[dictSize++] = Span{previous, w + 1};
            } else if (code & kLiteral) {
                table[dictSize++] = Span{at, 1};
                length = 1;
                if (at == limit)
                    return finish(End::Null);
                steps[count++] = Span{code & 0xFFFF, kLiteral};
                table[dictSize++] = Span{previous, w + 1};
            } else { // the previous phrase and its own first character
                length = w ? w + 1 : 0;
                if (length > limit - at)
                    return finish(End::Null);
                steps[count++] = Span{previous, length | kSelf};
                table[dictSize++] = Span{previous, length};
            }
            previous = at;
            at += length;
            w = length;
        }
    }
    return finish(end);
}

// Writes the text by the plan.
template <bool kFetch>
void Write(const Span* steps, size_t count, char16_t* out, uint32_t at)
{
    for (size_t i = 0; i < count; ++i) {
        if (kFetch)
            Prefetch(out + steps[i + kAhead].offset);
        const Span s = steps[i];
        if (s.length < kSelf) {
            CopyPhrase(out + at, out + s.offset, s.length);
            at += s.length;
        } else if (s.length & kLiteral) {
            out[at++] = static_cast<char16_t>(s.offset);
        } else {
            const uint32_t phrase = s.length & ~kSelf;
            CopySelf(out, at, s.offset, phrase);
            at += phrase;
        }
    }
}

template <typename Reader>
QString DecodeLarge(Reader& reader, size_t length, size_t maxCodes, qint64 limit)
{
    Header header;
    if (ReadHeader(reader, header) == End::Empty)
        return EmptyText();
    Span* steps = reinterpret_cast<Span*>(t_steps.Ensure(maxCodes + kAhead, 0));
    // At most two entries a code, after the 4 fixed ones.
    Span* table = reinterpret_cast<Span*>(t_table.Ensure(2 * maxCodes + 8, 0));
    Plan plan;
    // Smaller streams stay in the cache: fetching ahead would only cost there.
    const bool fetch = length > kFetchFrom;
    const uint32_t first = header.hasFirst ? 1 : 0;
    const End end = fetch ? MakePlan<true>(reader, first, table, steps, uint32_t(limit), plan)
                          : MakePlan<false>(reader, first, table, steps, uint32_t(limit), plan);
    t_steps.used = plan.steps + kAhead;
    t_table.used = plan.entries;
    if (end != End::Text)
        return end == End::Null ? QString() : EmptyText();
    QString text(static_cast<int>(plan.size + kSlack), Qt::Uninitialized);
    char16_t* out = reinterpret_cast<char16_t*>(text.data());
    if (header.hasFirst)
        out[0] = header.first;
    // The steps end in kAhead blank ones, so fetching ahead needs no bound; a
    // literal's character fetched as an offset is a harmless hint.
    for (size_t i = 0; i < kAhead; ++i)
        steps[plan.steps + i] = Span{0, 0};
    if (fetch)
        Write<true>(steps, plan.steps, out, first);
    else
        Write<false>(steps, plan.steps, out, first);
    text.resize(static_cast<int>(plan.size)); // shrinking keeps the buffer
    return text;
}

// \a bitsPerCharacter: what the reset value gives, 15 for the UTF-16 form.
template <typename Reader>
QString Decode(Reader reader, size_t length, int bitsPerCharacter, qint64 limit)
{
    ScratchRelease release;
    // Every code starts before the input's last bit.
    const size_t maxCodes = MaxCodes(uint64_t(length) * bitsPerCharacter + 64);
    if (length <= size_t(kOnePassUpTo)) {
        // At most two entries a code, after the 4 fixed ones.
        Span* table = reinterpret_cast<Span*>(t_table.Ensure(2 * maxCodes + 8, 0));
        return DecodeSmall(reader, table, uint64_t(length) * 4 + 64, limit);
    }
    return DecodeLarge(reader, length, maxCodes, limit);
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
    if (resetValue == 16384) {
        uint64_t* packed = t_packed.Ensure(PackedWords(size_t(length)), 0);
        t_packed.used = PackedWords(size_t(length));
        Pack(reinterpret_cast<const char16_t*>(data), size_t(length), packed);
        return Decode(PackedReader(packed, size_t(length)), size_t(length), 15, Bounded(maxLength));
    }
    int bitsPerCharacter = 0; // the reset value's highest bit and those below
    while ((qint64(1) << bitsPerCharacter) <= resetValue)
        ++bitsPerCharacter;
    return Decode(ClassicReader(data, length, resetValue), size_t(length), bitsPerCharacter, Bounded(maxLength));
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
