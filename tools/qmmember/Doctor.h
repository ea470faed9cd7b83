#pragma once

#include "Cli.h"

namespace Cli {

/// qmmember doctor: hosts, name resolution, TCP connect, TLS chain and trust, clock offset,
/// proxy, store, cache and a timed request, each ok, warn or fail with one line of advice.
int Doctor(Context& c);

} // namespace Cli
