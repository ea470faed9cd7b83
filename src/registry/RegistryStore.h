#pragma once

#include <QString>
#include <QVariant>

#include "qmmemberwebservice_export.h"

// The backing store of the registry agent. On Windows it is the registry
// (QSettings native format); elsewhere one SQLite file per hive in a per-user
// folder, with case-insensitive key paths and value names, mode 0600, and
// SQLite's locking so that several processes can share it.
namespace QMRegistryTool::Store {

/// A value is either a QString or an int; an invalid QVariant means absent.
QMMEMBERWEBSERVICE_EXPORT QVariant Read(bool currentUser, const QString& keyPath, const QString& name);
QMMEMBERWEBSERVICE_EXPORT bool Write(bool currentUser, const QString& keyPath, const QString& name,
                                     const QVariant& value);
QMMEMBERWEBSERVICE_EXPORT bool Remove(bool currentUser, const QString& keyPath, const QString& name);

/// Counts this process's writes and deletes, so that a reader can tell that a
/// value it keeps may have changed.
QMMEMBERWEBSERVICE_EXPORT quint64 WriteGeneration();

/// Where the store lives: QM_REGISTRY_DIR when set, else the user's
/// configuration folder. Empty on Windows.
QMMEMBERWEBSERVICE_EXPORT QString Folder();

/// Reads a value by its full registry path, for example
/// "HKEY_CURRENT_USER\Software\Quillmarsh", the way Qt's native settings do.
QMMEMBERWEBSERVICE_EXPORT QVariant ReadNative(const QString& fullKeyPath, const QString& name);

/// "SOFTWARE\Quillmarsh", "software/quillmarsh/" and "Software\\Quillmarsh"
/// name the same key.
QMMEMBERWEBSERVICE_EXPORT QString NormalizeKeyPath(const QString& keyPath);

} // namespace QMRegistryTool::Store
