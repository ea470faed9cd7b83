#pragma once

#include "IRegistryAgent.h"

namespace QMRegistryTool {

/// The library's registry agent. On Windows it is the registry itself; elsewhere
/// a per-user store with the same semantics (see RegistryStore.h).
///
/// Reads fall back once to the 32-bit view ("SOFTWARE\WOW6432Node\...").
/// Building an agent also establishes this machine's identity.
class QMMEMBERWEBSERVICE_EXPORT CQMRegistryAgent : public IRegistryAgent
{
public:
    CQMRegistryAgent();
    ~CQMRegistryAgent() override;

    bool ReadString(bool currentUser, const std::wstring& keyPath, const std::wstring& name,
                    std::wstring& value) override;
    bool WriteString(bool currentUser, const std::wstring& keyPath, const std::wstring& name,
                     const std::wstring& value) override;
    bool ReadNumber(bool currentUser, const std::wstring& keyPath, const std::wstring& name, int& value) override;
    bool DeleteValue(bool currentUser, const std::wstring& keyPath, const std::wstring& name) override;
    bool WriteNumber(bool currentUser, const std::wstring& keyPath, const std::wstring& name, int value) override;
    bool Transaction(bool currentUser, const std::function<bool()>& writes) override;

    /// The machine GUID of the operating system, empty when it has none.
    std::wstring GetMachineGuid() const { return m_strMachineGuid; }
    /// Identifier sent to the services; empty when the machine GUID is unknown.
    std::wstring GetMachineID() const { return m_strMachineID; }
    std::wstring GetPrimaryMachineKey() const { return m_strPrimaryKey; }
    /// A GUID made once per user and kept under the company key.
    std::wstring GetSecondaryMachineKey() const { return m_strSecondaryKey; }

private:
    std::wstring m_strMachineGuid;
    std::wstring m_strMachineID;
    std::wstring m_strPrimaryKey;
    std::wstring m_strSecondaryKey;
};

} // namespace QMRegistryTool
