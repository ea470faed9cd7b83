#pragma once

#include <QString>

#include <string>

// Conversions between the interface's wide strings and UTF-8. Headers, paths
// and most replies are ASCII, which is copied directly; anything else goes
// through QString.
namespace QMText {

inline std::string ToUtf8(const wchar_t* text, size_t length)
{
    std::string out(length, '\0');
    for (size_t i = 0; i < length; ++i) {
        if (static_cast<unsigned int>(text[i]) >= 0x80)
            return QString::fromWCharArray(text, static_cast<int>(length)).toStdString();
        out[i] = static_cast<char>(text[i]);
    }
    return out;
}

inline std::string ToUtf8(const std::wstring& text)
{
    return ToUtf8(text.data(), text.size());
}

inline std::wstring FromUtf8(const char* bytes, size_t length)
{
    std::wstring out(length, L'\0');
    for (size_t i = 0; i < length; ++i) {
        if (static_cast<unsigned char>(bytes[i]) >= 0x80)
            return QString::fromUtf8(bytes, static_cast<int>(length)).toStdWString();
        out[i] = static_cast<wchar_t>(bytes[i]);
    }
    return out;
}

inline std::wstring FromUtf8(const QByteArray& bytes)
{
    return FromUtf8(bytes.constData(), static_cast<size_t>(bytes.size()));
}

} // namespace QMText
