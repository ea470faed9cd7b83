#pragma once

#include "qmmemberwebservice_export.h"

/// Runs a Qt event loop for hosts that have no Qt application object.
///
/// \code
/// if (CQMQApplicationAgent::IsStartingUp())
///     std::thread([] { CQMQApplicationAgent::Start(); }).detach();
/// \endcode
/// Service objects that do asynchronous work must then live in that thread.
class QMMEMBERWEBSERVICE_EXPORT CQMQApplicationAgent
{
public:
    /// Creates a QCoreApplication and runs its event loop; returns when it quits.
    static void Start();
    /// True while no application object exists.
    static bool IsStartingUp();

    CQMQApplicationAgent& operator=(const CQMQApplicationAgent&) { return *this; }
    CQMQApplicationAgent& operator=(CQMQApplicationAgent&&) { return *this; }
};
