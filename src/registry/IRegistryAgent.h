#pragma once

#include <functional>
#include <string>

#include "qmmemberwebservice_export.h"

namespace QMRegistryTool {

/// Access to the current user's and the machine's registry hives.
/// \a currentUser true selects HKEY_CURRENT_USER, false HKEY_LOCAL_MACHINE.
class QMMEMBERWEBSERVICE_EXPORT IRegistryAgent
{
public:
    virtual ~IRegistryAgent() = default;
    virtual bool ReadString(bool currentUser, const std::wstring& keyPath, const std::wstring& name,
                            std::wstring& value) = 0;
    virtual bool WriteString(bool currentUser, const std::wstring& keyPath, const std::wstring& name,
                             const std::wstring& value) = 0;
    virtual bool ReadNumber(bool currentUser, const std::wstring& keyPath, const std::wstring& name, int& value) = 0;
    virtual bool DeleteValue(bool currentUser, const std::wstring& keyPath, const std::wstring& name) = 0;
    virtual bool WriteNumber(bool currentUser, const std::wstring& keyPath, const std::wstring& name, int value) = 0;
    /// Runs a group of reads and writes of one hive so that other processes see all
    /// of the writes or none; returns what \a writes returned. An agent without
    /// transactions runs them in order.
    virtual bool Transaction(bool currentUser, const std::function<bool()>& writes)
    {
        (void)currentUser;
        return writes();
    }
};

} // namespace QMRegistryTool
