#include "HostConfig.h"

#include <QString>

namespace QMHostConfig {

namespace {

struct Hosts {
    const wchar_t* web;
    const wchar_t* api;
};

Hosts Defaults(int target)
{
    switch (target) {
    case Development:
        return {L"dev-member.quillmarsh.com", L"dev-memberapi.quillmarsh.com"};
    case SecondDevelopment:
        return {L"dev2-member.quillmarsh.com", L"dev2-memberapi.quillmarsh.com"};
    case Staging:
        return {L"stage-member.quillmarsh.com", L"stage-memberapi.quillmarsh.com"};
    default:
        return {L"member.quillmarsh.com", L"memberapi.quillmarsh.com"};
    }
}

std::wstring Override(const char* variable, const wchar_t* fallback)
{
    const QString value = qEnvironmentVariable(variable).trimmed();
    return value.isEmpty() ? std::wstring(fallback) : value.toStdWString();
}

} // namespace

std::wstring WebHost(int target)
{
    return Override("QM_WEB_HOST", Defaults(target).web);
}

std::wstring ApiHost(int target)
{
    return Override("QM_API_HOST", Defaults(target).api);
}

} // namespace QMHostConfig
