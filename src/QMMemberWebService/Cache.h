#pragma once

#include <QString>

#include <string>
#include <utility>
#include <vector>

#include "qmmemberwebservice_export.h"

// The enciphered cache files of the service, by file name in the cache folder.
// CQMMemberWebService's cache members forward here; tools and tests call it directly.
namespace QMCache {

using ProductIDList = std::vector<std::pair<std::wstring, int>>;

QMMEMBERWEBSERVICE_EXPORT bool Create(const QString& content, const QString& fileName);
QMMEMBERWEBSERVICE_EXPORT QString Content(const QString& fileName);
QMMEMBERWEBSERVICE_EXPORT bool Exists(const QString& fileName);
QMMEMBERWEBSERVICE_EXPORT bool Expired(const QString& fileName);
QMMEMBERWEBSERVICE_EXPORT bool Clear(const QString& fileName);
QMMEMBERWEBSERVICE_EXPORT bool ClearFolder(const QString& folderName);

/// The body of a cache file as the reader turns it into text: deciphered when
/// it is uppercase hex, else returned as it stands.
QMMEMBERWEBSERVICE_EXPORT QString Decipher(const QString& fileText);

/// "P1:3;P2:12" in both directions; malformed parts are skipped.
QMMEMBERWEBSERVICE_EXPORT QString ListToString(const ProductIDList& list);
QMMEMBERWEBSERVICE_EXPORT ProductIDList StringToList(const QString& text);
QMMEMBERWEBSERVICE_EXPORT bool InstalledListModified(const ProductIDList& installed);

/// True after the host set an empty folder path: the product cache is then off, while
/// the folder path itself still reads as the default.
QMMEMBERWEBSERVICE_EXPORT bool FolderTurnedOff();

} // namespace QMCache
