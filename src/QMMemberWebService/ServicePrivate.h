#pragma once

#include <QLoggingCategory>
#include <QString>

#include <string>

Q_DECLARE_LOGGING_CATEGORY(lcService)

namespace QMService {

// The company key of the current user: tokens, machine key, "UsingLocalTime".
inline const wchar_t* const kCompanyKey = L"SOFTWARE\\Quillmarsh";
// The same key as the service reads it through native settings.
inline const char* const kNativeCompanyKey = "HKEY_CURRENT_USER\\Software\\Quillmarsh";

inline QString Q(const std::wstring& text)
{
    return QString::fromStdWString(text);
}

} // namespace QMService
