#pragma once

#include <QString>
#include <QVariant>

#include <functional>
#include <memory>

#include "qmmemberwebservice_export.h"

// The backing store of the registry agent. On Windows it is the registry
// (QSettings native format); elsewhere one SQLite file per hive in a per-user
// folder, with case-insensitive key paths and value names, mode 0600, and
// SQLite's locking so that several processes can share it. A file that is not a
// sound database is moved aside (named with a time stamp) and a new one started;
// in a folder that is not writable the store is read-only.
namespace QMRegistryTool::Store {

/// A value is either a QString or an int; an invalid QVariant means absent.
QMMEMBERWEBSERVICE_EXPORT QVariant Read(bool currentUser, const QString& keyPath, const QString& name);
QMMEMBERWEBSERVICE_EXPORT bool Write(bool currentUser, const QString& keyPath, const QString& name,
                                     const QVariant& value);
QMMEMBERWEBSERVICE_EXPORT bool Remove(bool currentUser, const QString& keyPath, const QString& name);

/// Runs \a writes (calls of Write, Remove and Read on the same hive) as one
/// transaction: another process sees all of them or none, and a process killed
/// midway leaves none. Returns what \a writes returned, false when the commit
/// fails. Nested calls join the outer transaction. On Windows the registry has
/// no transaction: the writes run in their order.
QMMEMBERWEBSERVICE_EXPORT bool Transaction(bool currentUser, const std::function<bool()>& writes);

/// An exclusive lock shared by every process of the user, held for the object's
/// life (a file lock in the store folder; a named mutex on Windows). Waits up to
/// \a waitMs; Locked() tells whether it was taken.
class QMMEMBERWEBSERVICE_EXPORT ProcessLock
{
public:
    ProcessLock(const QString& name, int waitMs);
    ~ProcessLock();
    ProcessLock(const ProcessLock&) = delete;
    ProcessLock& operator=(const ProcessLock&) = delete;
    bool Locked() const;

private:
    struct Held;
    std::unique_ptr<Held> m_held;
};

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
