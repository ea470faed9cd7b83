#pragma once

#include <string>

#include "qmmemberwebservice_export.h"

/// The signed-in member's profile, as read from the member service.
struct QMMEMBERWEBSERVICE_EXPORT _CMemberLoginInfo
{
    std::wstring strMemberID;
    std::wstring strEmail;
    std::wstring strNickName;
    std::wstring strFirstName;
    std::wstring strLastName;
    std::wstring strAvatarUrl;
    std::wstring strRegistrationDate;
    int nMemberType = 0;
    int nClass = 0;
    int nCartQty = 0;
    int nWishListQty = 0;
};
