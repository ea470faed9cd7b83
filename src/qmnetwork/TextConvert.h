#pragma once

#include <QByteArray>
#include <QString>

#include <string>

// Conversions between the interface's wide strings and UTF-8. Headers, paths
// and most replies are ASCII, which is copied directly; anything else goes
// through QString.
namespace QMText {

// Large replies (megabytes of catalogue JSON) pass through here: the ASCII check runs first,
// then one copy straight into the result, without zero-filling it before.
inline bool IsAscii(const wchar_t* text, size_t length)
{
    for (size_t i = 0; i < length; ++i)
        if (static_cast<unsigned int>(text[i]) >= 0x80)
            return false;
    return true;
}

inline bool IsAscii(const char* bytes, size_t length)
{
    for (size_t i = 0; i < length; ++i)
        if (static_cast<unsigned char>(bytes[i]) >= 0x80)
            return false;
    return true;
}

inline std::string ToUtf8(const wchar_t* text, size_t length)
{
    if (!IsAscii(text, length))
        return QString::fromWCharArray(text, static_cast<int>(length)).toStdString();
    // ASCII only: each character narrows to its byte.
    return std::string(text, text + length);
}

inline std::string ToUtf8(const std::wstring& text)
{
    return ToUtf8(text.data(), text.size());
}

/// The same as a QByteArray, for Qt's JSON parser.
inline QByteArray ToUtf8Bytes(const std::wstring& text)
{
    if (!IsAscii(text.data(), text.size()))
        return QString::fromWCharArray(text.data(), static_cast<int>(text.size())).toUtf8();
    QByteArray out(static_cast<int>(text.size()), Qt::Uninitialized);
    char* data = out.data();
    for (size_t i = 0; i < text.size(); ++i)
        data[i] = static_cast<char>(text[i]);
    return out;
}

inline std::wstring FromUtf8(const char* bytes, size_t length)
{
    if (!IsAscii(bytes, length))
        return QString::fromUtf8(bytes, static_cast<int>(length)).toStdWString();
    // The iterator form widens each byte as it copies.
    return std::wstring(bytes, bytes + length);
}

inline std::wstring FromUtf8(const QByteArray& bytes)
{
    return FromUtf8(bytes.constData(), static_cast<size_t>(bytes.size()));
}

} // namespace QMText
