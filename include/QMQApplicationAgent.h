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

    /// Copy assignment; the agent has no data, so the object stays as it is.
    CQMQApplicationAgent& operator=(const CQMQApplicationAgent&) { return *this; }
    /// Move assignment; the agent has no data, so the object stays as it is.
    CQMQApplicationAgent& operator=(CQMQApplicationAgent&&) { return *this; }
};
