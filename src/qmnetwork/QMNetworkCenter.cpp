#include "QMNetworkCenter.h"

#include "CurlEngine.h"
#include "HttpRequest.h"
#include "../LZString/LZString.h"
#include "../registry/RegistryStore.h"

#include <QString>

#include <mutex>

namespace {

const QString kProxyKey = QStringLiteral("SOFTWARE\\Quillmarsh\\Network");
const QString kAccountName = QStringLiteral("ProxyAccount");
const QString kPasswordName = QStringLiteral("ProxyPassword");

struct ProxyState {
    std::mutex mutex;
    bool loaded = false;
    std::wstring account;
    std::wstring password;
    std::wstring probeHost;
};

ProxyState& State()
{
    static ProxyState state;
    return state;
}

} // namespace

bool CQMNetworkCenter::GetProxyData(std::wstring& account, std::wstring& password, bool currentUser)
{
    ProxyState& state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    // Every request asks; the store is read once per process.
    if (!state.loaded) {
        state.account = QMRegistryTool::Store::Read(currentUser, kProxyKey, kAccountName).toString().toStdWString();
        state.password = QMRegistryTool::Store::Read(currentUser, kProxyKey, kPasswordName).toString().toStdWString();
        state.loaded = true;
    }
    account = state.account;
    password = state.password;
    return !account.empty();
}

void CQMNetworkCenter::SaveProxyData(std::wstring account, std::wstring password, bool save)
{
    ProxyState& state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    const bool changed = !state.loaded || account != state.account || password != state.password;
    state.account = std::move(account);
    state.password = std::move(password);
    state.loaded = true;
    // Called after every completed exchange: write only what changed.
    if (save && changed) {
        using QMRegistryTool::Store::Remove;
        using QMRegistryTool::Store::Write;
        if (state.account.empty()) {
            Remove(true, kProxyKey, kAccountName);
            Remove(true, kProxyKey, kPasswordName);
        } else {
            Write(true, kProxyKey, kAccountName, QString::fromStdWString(state.account));
            Write(true, kProxyKey, kPasswordName, QString::fromStdWString(state.password));
        }
    }
}

bool CQMNetworkCenter::IsInternetConnectionActive(int timeoutMs, bool useProxy, bool)
{
    const std::wstring host = GetProbeHost();
    if (host.empty())
        return false;
    CHttpRequest probe(nullptr, true);
    std::wstring reply;
    std::wstring headers;
    return probe.HeadSync(host.c_str(), L"/", reply, headers, static_cast<unsigned int>(timeoutMs > 0 ? timeoutMs : 0),
                          useProxy, nullptr, nullptr, false);
}

bool CQMNetworkCenter::GetUsingExternalProxyDialog()
{
    return false;
}

void CQMNetworkCenter::SetExtraCAFile(const std::wstring& path)
{
    QMNet::Engine::Instance().SetExtraCAFile(QString::fromStdWString(path).toLocal8Bit().toStdString());
}

std::wstring CQMNetworkCenter::GetExtraCAFile()
{
    return QString::fromLocal8Bit(QMNet::Engine::Instance().ExtraCAFile().c_str()).toStdWString();
}

void CQMNetworkCenter::SetMaxReplyBytes(long long bytes)
{
    QMNet::Engine::Instance().SetMaxReplyBytes(bytes);
    LZString::SetOutputLimit(QMNet::Engine::Instance().MaxReplyBytes());
}

long long CQMNetworkCenter::GetMaxReplyBytes()
{
    return QMNet::Engine::Instance().MaxReplyBytes();
}

void CQMNetworkCenter::SetProbeHost(const std::wstring& host)
{
    ProxyState& state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    state.probeHost = host;
}

std::wstring CQMNetworkCenter::GetProbeHost()
{
    ProxyState& state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    return state.probeHost;
}
