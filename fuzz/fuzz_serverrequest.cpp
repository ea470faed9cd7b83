// Any bytes as what a client sends the server: the sign-in form, a Basic credential,
// a JSON body, a GUID, and the request log's redaction of headers, bodies and targets.
#include "RequestParsing.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    const RequestParsing::SignInForm form = RequestParsing::ParseSignInForm(bytes);
    RequestParsing::IsWellFormedGuid(form.guid);
    RequestParsing::ParseObject(bytes);
    RequestParsing::LoggedBody(bytes, "application/x-www-form-urlencoded");
    RequestParsing::LoggedBody(bytes, "application/json");
    RequestParsing::LoggedTarget("/signin?" + bytes);
    RequestParsing::LoggedHeader("refresh_token", bytes);
    RequestParsing::LoggedHeader("Authorization", bytes);
    // The same bytes as the fields of a Basic credential: a password field is never logged.
    const std::string basic = "Basic " + QByteArray::fromStdString(bytes).toBase64().toStdString();
    const QList<QByteArray> fields = RequestParsing::ParseBasicCredential(basic);
    const QString logged = RequestParsing::LoggedHeader("Authorization", basic);
    if (fields.size() == 6 && logged.section(QLatin1Char(':'), 2, 2) != QLatin1String("[redacted]"))
        __builtin_trap();
    return 0;
}
