// Any bytes as an XML reply through ProcessXmlReturnValue: 2 with a status, or -1.
#include "QMMemberWebService.h"

#include <QDomDocument>

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::wstring reply =
        QString::fromUtf8(reinterpret_cast<const char*>(data), static_cast<int>(size)).toStdWString();
    QDomDocument document;
    int status = -12345;
    const int result = CQMMemberWebService::ProcessXmlReturnValue(reply, document, status);
    if (result != CQMMemberWebService::WS_OK && (result != CQMMemberWebService::WS_UNEXPECT_FAIL || status != -12345))
        __builtin_trap();
    return 0;
}
