#pragma once

#include <string>

#include "qmmemberwebservice_export.h"

/// Builds the "Basic" credential strings of the token grants.
class QMMEMBERWEBSERVICE_EXPORT CQMMemberWebServiceParameterCook
{
public:
    explicit CQMMemberWebServiceParameterCook(bool inHouseTest);
    virtual ~CQMMemberWebServiceParameterCook();

    /// base64(UTF-8 of "launcher:" b64(e-mail) ":" b64(password) ":" machine id ":" key ":" key);
    /// false when the e-mail, the password or the machine id is empty.
    bool CookPasswordCredential(const std::wstring& email, const std::wstring& password, const std::wstring& machineID,
                                const std::wstring& primaryKey, const std::wstring& secondaryKey,
                                std::wstring& credential) const;
    /// base64(UTF-8 of "launcher:" code ":" machine id ":" key ":" key); false when the code
    /// or the machine id is empty.
    bool CookAuthorizationCodeCredential(const std::wstring& code, const std::wstring& machineID,
                                         const std::wstring& primaryKey, const std::wstring& secondaryKey,
                                         std::wstring& credential) const;

    bool IsInHouseTest() const { return m_bInHouseTest; }

private:
    bool m_bInHouseTest;
};
