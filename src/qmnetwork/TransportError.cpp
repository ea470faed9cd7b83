#include "TransportError.h"

#include "CurlEngine.h"
#include "HttpRequest.h"
#include "QMMemberWebService.h"

#include <QString>

namespace {

// Per thread, so that a host reads the cause of its own failed call, not another thread's.
struct LastError {
    unsigned int number = 0;
    std::string text;
};
thread_local LastError t_lastError;

} // namespace

void QMNet::RecordThreadError(const Outcome& outcome)
{
    t_lastError.number = outcome.netError;
    if (outcome.netError == 0)
        t_lastError.text.clear();
    else if (outcome.completed)
        t_lastError.text = "HTTP " + std::to_string(outcome.httpStatus);
    else
        t_lastError.text = outcome.errorText.empty() ? "transport error " + std::to_string(outcome.netError)
                                                     : outcome.errorText;
}

unsigned int CHttpRequest::LastThreadError()
{
    return t_lastError.number;
}

std::string CHttpRequest::LastThreadErrorText()
{
    return t_lastError.text;
}

unsigned int CQMMemberWebService::GetLastTransportError()
{
    return CHttpRequest::LastThreadError();
}

std::wstring CQMMemberWebService::GetLastTransportErrorText()
{
    return QString::fromStdString(CHttpRequest::LastThreadErrorText()).toStdWString();
}
