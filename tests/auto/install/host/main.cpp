#include <QMMemberWebService.h>
#include <QMQApplicationAgent.h>
#include <QMRegistryAgent.h>

#include <QDomDocument> // Qt Xml comes with the package: ProcessXmlReturnValue needs it

#include <cstdio>

int main()
{
    static QMRegistryTool::CQMRegistryAgent agent;
    CQMMemberWebService::SetRegistryInterface(&agent);
    CQMMemberWebService service(L"SOFTWARE\\Quillmarsh\\Tiny", false, 10000, 0);
    QDomDocument document;
    int status = 0;
    const bool xml = CQMMemberWebService::ProcessXmlReturnValue(
                         L"<ProductService><Status>3</Status></ProductService>", document, status)
                         == CQMMemberWebService::WS_OK
                     && status == 3;
    const bool ok = xml && service.GetErrorCodeString(-12) == L"Parse Content Fail"
                    && service.GetHttpRequestUserAgent() == L"UnknowAgent" && CQMQApplicationAgent::IsStartingUp();
    std::printf("%s\n", ok ? "1 passed, 0 failed" : "0 passed, 1 failed");
    return ok ? 0 : 1;
}
