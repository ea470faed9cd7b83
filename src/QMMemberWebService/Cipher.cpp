#include "Cipher.h"

#include <array>
#include <cstdint>

namespace QMCipher {

QByteArray Rc4(const QByteArray& data, const QByteArray& key)
{
    QByteArray out(data.size(), Qt::Uninitialized);
    if (key.isEmpty())
        return data;
    std::array<uint8_t, 256> s;
    for (int i = 0; i < 256; ++i)
        s[i] = static_cast<uint8_t>(i);
    const auto* k = reinterpret_cast<const uint8_t*>(key.constData());
    const int keyLength = key.size();
    uint8_t j = 0;
    for (int i = 0; i < 256; ++i) {
        j = static_cast<uint8_t>(j + k[i % keyLength] + s[i]);
        std::swap(s[i], s[j]);
    }
    const auto* in = reinterpret_cast<const uint8_t*>(data.constData());
    auto* o = reinterpret_cast<uint8_t*>(out.data());
    uint8_t a = 0;
    uint8_t b = 0;
    for (int n = 0; n < data.size(); ++n) {
        a = static_cast<uint8_t>(a + 1);
        b = static_cast<uint8_t>(b + s[a]);
        std::swap(s[a], s[b]);
        o[n] = in[n] ^ s[static_cast<uint8_t>(s[a] + s[b])];
    }
    return out;
}

QByteArray ToUpperHex(const QByteArray& bytes)
{
    return bytes.toHex().toUpper();
}

bool FromUpperHex(const QByteArray& hex, QByteArray& bytes)
{
    if (hex.size() % 2 != 0)
        return false;
    QByteArray out(hex.size() / 2, Qt::Uninitialized);
    // A digit below "A" counts from "0", any other from "A" + 10; so ":" to "?"
    // read as 10 to 15, and every value of 16 or more (or below 0) fails.
    auto digit = [](char c, int& value) {
        const auto byte = static_cast<unsigned char>(c);
        const unsigned int v = byte < 'A' ? byte - unsigned('0') : byte - unsigned('A') + 10u;
        if (v >= 16)
            return false;
        value = static_cast<int>(v);
        return true;
    };
    for (int i = 0; i < out.size(); ++i) {
        int high = 0;
        int low = 0;
        if (!digit(hex[2 * i], high) || !digit(hex[2 * i + 1], low))
            return false;
        out[i] = static_cast<char>(high << 4 | low);
    }
    bytes = out;
    return true;
}

QByteArray CacheKey()
{
    // Pieces are mixed so that no run of the key appears in the binary.
    static const char mixed[] = {'q' ^ 0x15, 'M' ^ 0x2A, '7' ^ 0x33, 'l' ^ 0x0C, 'C' ^ 0x41, 'r' ^ 0x5E, 'x' ^ 0x27};
    static const char masks[] = {0x15, 0x2A, 0x33, 0x0C, 0x41, 0x5E, 0x27};
    QByteArray key(7, Qt::Uninitialized);
    for (int i = 0; i < 7; ++i)
        key[i] = static_cast<char>(mixed[i] ^ masks[i]);
    return key;
}

QByteArray RequestInfoKey()
{
    static const char mixed[] = {'Q' ^ 0x5A, 'm' ^ 0x13, 'R' ^ 0x66, '1' ^ 0x2C, 'n' ^ 0x71, 'f' ^ 0x08,
                                 'o' ^ 0x3D, '#' ^ 0x49, 'k' ^ 0x52};
    static const char masks[] = {0x5A, 0x13, 0x66, 0x2C, 0x71, 0x08, 0x3D, 0x49, 0x52};
    QByteArray key(sizeof masks, Qt::Uninitialized);
    for (int i = 0; i < key.size(); ++i)
        key[i] = static_cast<char>(mixed[i] ^ masks[i]);
    return key;
}

QString Encrypt(const QString& text, const QByteArray& key)
{
    const QByteArray bytes = text.toUtf8();
    if (bytes.isEmpty() || key.isEmpty())
        return QString();
    return QString::fromLatin1(ToUpperHex(Rc4(bytes, key)));
}

bool Decrypt(const QByteArray& token, const QByteArray& key, QString& text)
{
    QByteArray bytes;
    if (token.isEmpty() || key.isEmpty() || !FromUpperHex(token, bytes))
        return false;
    QByteArray plain = Rc4(bytes, key);
    const int zero = plain.indexOf('\0');
    if (zero >= 0)
        plain.truncate(zero);
    text = QString::fromUtf8(plain);
    return true;
}

} // namespace QMCipher
