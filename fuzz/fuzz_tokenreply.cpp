// Any bytes as the token reply and as the authorization-code reply ("result" may be
// LZString text). What is read out is consistent with what was found.
#include "QMMemberWebService/Replies.h"

#include <QString>

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::wstring reply =
        QString::fromUtf8(reinterpret_cast<const char*>(data), static_cast<int>(size)).toStdWString();
    const QMReplies::TokenReply token = QMReplies::ParseTokenReply(reply);
    if (!token.parsed && (token.hasError || token.hasAccess || token.hasRefresh))
        __builtin_trap();
    if ((!token.hasAccess && !token.access.empty()) || (!token.hasRefresh && !token.refresh.empty()))
        __builtin_trap();
    const QMReplies::CodeReply code = QMReplies::ParseAuthorizationCodeReply(reply);
    if (!code.parsed && (code.apiStatus != 0 || code.status != 0 || !code.code.empty()))
        __builtin_trap();
    return 0;
}
