// Any bytes as an API reply: ParseJsonResult, then ExtractApiResult as a synchronous
// request sees it. A result is a known code, and result text comes only with success
// (or with a busy server's 14).
#include "FuzzService.h"

#include <QJsonDocument>

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzService& service = FuzzService::Instance();
    const std::wstring reply =
        QString::fromUtf8(reinterpret_cast<const char*>(data), static_cast<int>(size)).toStdWString();
    int apiStatus = 0;
    int status = 0;
    QJsonDocument document;
    service.ParseJsonResult(reply, apiStatus, status, document);
    std::wstring text;
    const int result = service.ExtractApiResult(L"/fuzz", std::string(), 1000, false, true, reply, text,
                                                QStringLiteral("fuzz"));
    const bool known = result == -12 || result == -1 || (result >= 1 && result <= 15);
    if (!known || (!text.empty() && result != CQMMemberWebService::WS_OK && result != CQMMemberWebService::WS_SERVER_BUSY))
        __builtin_trap();
    return 0;
}
