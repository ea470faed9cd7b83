#pragma once

#include <QString>

#include <string>

#include "qmmemberwebservice_export.h"

// What the member account reads out of the token and authorization-code replies and
// out of an access token: plain functions of the text, shared by the service and the fuzzers.
namespace QMReplies {

/// A reply of "/MemberAPI/Token".
struct TokenReply {
    bool parsed = false; // a non-empty JSON document
    bool hasError = false; // "error" present and not null
    int error = 0;
    bool hasAccess = false; // "access_token" is a string
    std::wstring access;
    bool hasRefresh = false; // "refresh_token" is a string
    std::wstring refresh;
};
QMMEMBERWEBSERVICE_EXPORT TokenReply ParseTokenReply(const std::wstring& reply);

/// A reply of "/MemberAPI/AuthorizationCode": the envelope's "apiStatus", and
/// "Status" and "Code" of "result"."data" ("result" may be LZString text).
struct CodeReply {
    bool parsed = false; // a non-empty JSON document
    int apiStatus = 0;
    int status = 0;
    std::wstring code;
};
QMMEMBERWEBSERVICE_EXPORT CodeReply ParseAuthorizationCodeReply(const std::wstring& reply);

/// The "memberid" string of the token's middle part (lenient standard base64 of a
/// JSON object); empty unless the token has exactly three parts and the claim is a string.
QMMEMBERWEBSERVICE_EXPORT std::wstring MemberIdFromToken(const QString& token);

} // namespace QMReplies
