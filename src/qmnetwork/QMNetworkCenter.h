#pragma once

#include <string>

#include "qmmemberwebservice_export.h"

/// Process-wide network settings: the proxy account, the extra trusted CA and
/// the connection probe, the reply size limit. A time limit of 0 or below
/// given to any exchange means the default of 30 seconds, never no limit.
class QMMEMBERWEBSERVICE_EXPORT CQMNetworkCenter
{
public:
    /// The proxy account and password; read from the per-user store the first
    /// time. Returns true when an account is known.
    static bool GetProxyData(std::wstring& account, std::wstring& password, bool currentUser);
    /// Keeps the proxy account for this process and, with \a save, in the store.
    static void SaveProxyData(std::wstring account, std::wstring password, bool save);
    /// True when the probe host answers within \a timeoutMs (any HTTP status counts).
    static bool IsInternetConnectionActive(int timeoutMs, bool useProxy, bool reserved);
    /// This build has no proxy dialog of its own.
    static bool GetUsingExternalProxyDialog();

    /// A PEM file of CAs trusted in addition to the system's (default: $QM_CA_FILE).
    /// Any change of the trusted set closes the kept connections and forgets the
    /// TLS sessions, so the next exchange is verified under the new set.
    static void SetExtraCAFile(const std::wstring& path);
    static std::wstring GetExtraCAFile();
    /// The largest reply body (and header block) an exchange accepts, in bytes;
    /// default 64 MiB, 0 or below restores it. A larger reply fails as a
    /// malformed one (InvalidServerResponse) and its memory is released. A
    /// compressed reply member may not decode to more characters than this.
    static void SetMaxReplyBytes(long long bytes);
    static long long GetMaxReplyBytes();
    /// The host that IsInternetConnectionActive probes; the service sets its API host.
    static void SetProbeHost(const std::wstring& host);
    static std::wstring GetProbeHost();
};
