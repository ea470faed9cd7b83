#pragma once

#include <string>

namespace QMNet {

struct Outcome;

// Keeps the last exchange's error per thread, for CHttpRequest::LastThreadError() and
// CQMMemberWebService::GetLastTransportError().
void RecordThreadError(const Outcome& outcome);

} // namespace QMNet
