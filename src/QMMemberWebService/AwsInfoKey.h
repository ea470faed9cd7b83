#pragma once

#include <string>

namespace QMService {

// The 18-character key under which the upload service enciphers "aws_info". It is put
// together on each call from masked pieces, so that it never stands whole in a binary;
// the caller wipes its copy after use.
inline std::string AwsInfoKey()
{
    static const unsigned char masks[] = {0x3A, 0x51, 0x0E, 0x77, 0x29, 0x64, 0x1B, 0x45, 0x6C,
                                          0x12, 0x5D, 0x33, 0x48, 0x0F, 0x7E, 0x26, 0x59, 0x31};
    static const unsigned char mixed[] = {
        'Q' ^ 0x3A, 'm' ^ 0x51, '$' ^ 0x0E, 'U' ^ 0x77, 'p' ^ 0x29, '1' ^ 0x64, 'o' ^ 0x1B, 'a' ^ 0x45, 'd' ^ 0x6C,
        '-' ^ 0x12, 'A' ^ 0x5D, 'w' ^ 0x33, '5' ^ 0x48, '#' ^ 0x0F, 'I' ^ 0x7E, 'n' ^ 0x26, 'f' ^ 0x59, '0' ^ 0x31};
    std::string key(sizeof masks, '\0');
    for (size_t i = 0; i < key.size(); ++i)
        key[i] = static_cast<char>(mixed[i] ^ masks[i]);
    return key;
}

} // namespace QMService
