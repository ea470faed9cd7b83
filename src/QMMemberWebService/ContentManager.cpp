// Content manager: catalogue, metadata, versions, hash notices and cart.
#include "QMMemberWebService.h"

#include <memory>
#include <utility>

// --- the calling pattern ------------------------------------------------------------

CQMMemberWebService::EWSResult CQMMemberWebService::ContentSyncRequest(
    std::wstring path, std::string body, int timeoutMs, bool needLogin,
    const std::function<void(const std::wstring&)>& onFinish)
{
    const QString id = GenerateApiRequestID();
    // Owned by the call and both handlers: whichever runs first disconnects the other.
    auto connections = std::make_shared<std::pair<QMetaObject::Connection, QMetaObject::Connection>>();
    auto disconnectBoth = [connections]() {
        QObject::disconnect(connections->first);
        QObject::disconnect(connections->second);
    };
    // Direct: the request is synchronous and may run outside this object's thread.
    connections->first = connect(
        this, QOverload<QString, EWSResult>::of(&CQMMemberWebService::ErrorNotice), this,
        [id, disconnectBoth](QString kGuid, EWSResult) {
            if (kGuid == id)
                disconnectBoth();
        },
        Qt::DirectConnection);
    connections->second = connect(
        this, QOverload<const std::wstring&, bool, QString>::of(&CQMMemberWebService::FinishApiRequest), this,
        [id, disconnectBoth, &onFinish](const std::wstring& strRaw, bool, QString kGuid) {
            if (kGuid != id)
                return;
            disconnectBoth();
            onFinish(strRaw);
        },
        Qt::DirectConnection);
    const EWSResult result =
        DoApiRequest(std::move(path), std::move(body), timeoutMs, needLogin, true, id, std::wstring());
    // A request object that could not be made emits nothing; leave no handler behind.
    disconnectBoth();
    return result;
}

CQMMemberWebService::EWSResult CQMMemberWebService::ContentSyncRequest(std::wstring path, std::string body,
                                                                       int timeoutMs, bool needLogin,
                                                                       std::wstring& out)
{
    return ContentSyncRequest(std::move(path), std::move(body), timeoutMs, needLogin,
                              [&out](const std::wstring& text) { out = text; });
}
