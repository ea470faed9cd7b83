// Content manager: catalogue, metadata, versions, hash notices and cart.
#include "QMMemberWebService.h"

#include "../qmnetwork/TextConvert.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>

#include <memory>
#include <utility>

// --- the calling pattern ------------------------------------------------------------

namespace {

// The text a synchronous FinishApiRequest is emitting in this thread. A content call's handler
// that finds its own request's text here claims it instead of copying it; the road moves it to
// the claimer once every slot has seen it. Nested requests (from a slot) stack.
struct SOfferedText {
    std::wstring* text;
    std::wstring* claimer = nullptr;
};
thread_local SOfferedText* t_offered = nullptr;

} // namespace

void CQMMemberWebService::FinishSyncRequest(std::wstring& resultText, bool serverBusy, const QString& kGuid)
{
    SOfferedText offer{&resultText};
    SOfferedText* const outer = t_offered;
    t_offered = &offer;
    // A slot may destroy this object: nothing of it is touched after the emit.
    emit FinishApiRequest(resultText, serverBusy, kGuid);
    t_offered = outer;
    if (offer.claimer)
        *offer.claimer = std::move(resultText);
}

CQMMemberWebService::EWSResult CQMMemberWebService::ContentSyncRequest(
    std::wstring path, std::string body, int timeoutMs, bool needLogin,
    const std::function<void(const std::wstring&)>& onFinish, std::wstring replyKey)
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
        DoApiRequest(std::move(path), std::move(body), timeoutMs, needLogin, true, id, std::move(replyKey));
    // A request object that could not be made emits nothing; leave no handler behind.
    disconnectBoth();
    return result;
}

CQMMemberWebService::EWSResult CQMMemberWebService::ContentSyncRequest(std::wstring path, std::string body,
                                                                       int timeoutMs, bool needLogin,
                                                                       std::wstring& out)
{
    return ContentSyncRequest(std::move(path), std::move(body), timeoutMs, needLogin,
                              [&out](const std::wstring& text) {
                                  // The request's id matched already; the text is this request's.
                                  if (t_offered && t_offered->text == &text && !t_offered->claimer)
                                      t_offered->claimer = &out;
                                  else
                                      out = text;
                              });
}

// --- catalogue ---------------------------------------------------------------------------

namespace {

// "?ProductID=" and, where a version belongs, "&Version="; values go in as they are.
std::wstring CatalogueUrl(const wchar_t* path, const std::wstring& productId, const std::wstring* version)
{
    std::wstring url(path);
    url += L"?ProductID=";
    url += productId;
    if (version) {
        url += L"&Version=";
        url += *version;
    }
    return url;
}

// "a","b","c": each ID between double quotes, unescaped, one "," between two.
void AppendQuotedIds(std::string& body, const std::vector<std::wstring>& ids)
{
    size_t size = body.size() + 3 * ids.size();
    for (const std::wstring& id : ids)
        size += id.size();
    body.reserve(size + 64);
    bool first = true;
    for (const std::wstring& id : ids) {
        if (!first)
            body += ',';
        first = false;
        body += '"';
        body += QMText::ToUtf8(id);
        body += '"';
    }
}

// {"ProductID":"P","Version":V,"ContentID":[...] with the version unquoted: the service reads
// it as a number. The caller closes the object.
std::string VersionBody(const std::wstring& productId, const std::wstring& version,
                        const std::vector<std::wstring>& ids)
{
    std::string body("{\"ProductID\":\"");
    body += QMText::ToUtf8(productId);
    body += "\",\"Version\":";
    body += QMText::ToUtf8(version);
    body += ",\"ContentID\":[";
    AppendQuotedIds(body, ids);
    body += ']';
    return body;
}

} // namespace

CQMMemberWebService::EWSResult CQMMemberWebService::GetContentBaseList(const std::wstring& productId,
                                                                       std::wstring& out, int timeout)
{
    return ContentSyncRequest(CatalogueUrl(L"/ContentManager/v1/Content/BaseList", productId, nullptr),
                              std::string(), timeout, false, out);
}

CQMMemberWebService::EWSResult CQMMemberWebService::GetContentTypeList(const std::wstring& productId,
                                                                       const std::wstring& version,
                                                                       std::wstring& out, int timeout)
{
    return ContentSyncRequest(CatalogueUrl(L"/ContentManager/v2/Content/Type", productId, &version), std::string(),
                              timeout, false, out);
}

CQMMemberWebService::EWSResult CQMMemberWebService::GetContentTypeListV2(const std::wstring& productId,
                                                                         const std::wstring& version,
                                                                         std::wstring& out, int timeout)
{
    return ContentSyncRequest(CatalogueUrl(L"/ContentManager20/v2/Content/Type", productId, &version),
                              std::string(), timeout, false, out);
}

CQMMemberWebService::EWSResult CQMMemberWebService::GetContentCategoryList(const std::wstring& productId,
                                                                           const std::wstring& version,
                                                                           std::wstring& out, int timeout)
{
    return ContentSyncRequest(CatalogueUrl(L"/ContentManager20/v2/Content/ContentCategory", productId, &version),
                              std::string(), timeout, false, out);
}

CQMMemberWebService::EWSResult CQMMemberWebService::GetSmartGalleryInitializeInfo(const std::wstring& productId,
                                                                                  const std::wstring& version,
                                                                                  std::wstring& out, int timeout)
{
    return ContentSyncRequest(CatalogueUrl(L"/ContentManager/v1/Content/InitializeInfo", productId, &version),
                              std::string(), timeout, false, out);
}

CQMMemberWebService::EWSResult CQMMemberWebService::GetSitterMemberList(std::wstring& out, int timeout)
{
    return ContentSyncRequest(L"/ContentManager/v1/User/SitterMemberList", std::string(), timeout, true, out);
}

CQMMemberWebService::EWSResult CQMMemberWebService::GetMemberContentList(EMemberContentListType type,
                                                                         const std::wstring& productId,
                                                                         const std::wstring& version,
                                                                         QString requestId,
                                                                         const std::wstring& ownerMid, int timeout,
                                                                         bool sync)
{
    const wchar_t* path = nullptr;
    switch (type) {
    case MemberContentInventory:
        path = L"/ContentManager/v2/User/UserInventory";
        break;
    case MemberContentMine:
    case MemberContentMineAlias: // the same list on purpose
        path = L"/ContentManager/v2/User/MyContent";
        break;
    case MemberContentRecommend:
        path = L"/ContentManager/v1/User/Recommend";
        break;
    }
    if (!path)
        return WS_PARAM_FAIL;
    std::wstring url = CatalogueUrl(path, productId, &version);
    if (!ownerMid.empty()) {
        url += L"&OwnerMID=";
        url += ownerMid;
    }
    // The host listens for its own id: no handler here.
    return DoApiRequest(std::move(url), std::string(), timeout, true, sync, std::move(requestId), std::wstring());
}

CQMMemberWebService::EWSResult CQMMemberWebService::GetQMContent(std::vector<std::wstring> contentIds,
                                                                 std::wstring& out, int timeout)
{
    std::string body("{\"ContentID\":[");
    AppendQuotedIds(body, contentIds);
    body += "]}";
    return ContentSyncRequest(L"/ContentManager/v1/User/GetQMContent", std::move(body), timeout, true, out);
}

// --- metadata ----------------------------------------------------------------------------

CQMMemberWebService::EWSResult CQMMemberWebService::GetContentMetaData(const std::wstring& productId,
                                                                       const std::wstring& version,
                                                                       const std::vector<std::wstring>& contentIds,
                                                                       int requestIndex, int requestTarget,
                                                                       std::wstring& out, int timeout)
{
    std::string body = VersionBody(productId, version, contentIds);
    body += ",\"RequestIndex\":";
    body += std::to_string(requestIndex);
    body += ",\"RequestTarget\":";
    body += std::to_string(requestTarget);
    body += '}';
    return ContentSyncRequest(L"/ContentManager/v3/Content/MetaData", std::move(body), timeout, true, out);
}

CQMMemberWebService::EWSResult CQMMemberWebService::GetMetadataEX(const std::wstring& productId,
                                                                  const std::wstring& version, std::wstring& out,
                                                                  int timeout)
{
    return ContentSyncRequest(CatalogueUrl(L"/ContentManager/v2/Content/MetaDataEx", productId, &version),
                              std::string(), timeout, false, out);
}

// --- versions and hash notices -----------------------------------------------------------

CQMMemberWebService::EWSResult CQMMemberWebService::GetNewVersionContentIDList(
    const std::wstring& productId, const std::wstring& version, const std::vector<std::wstring>& contentIds,
    std::vector<std::wstring>& newVersionIds, int timeout)
{
    std::string body = VersionBody(productId, version, contentIds);
    body += '}';
    std::wstring text;
    const EWSResult result =
        ContentSyncRequest(L"/ContentManager/v1/Content/FileVersion", std::move(body), timeout, false, text);
    if (text.empty())
        return result;
    const QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(QMText::ToUtf8(text)));
    if (document.isNull())
        return result;
    const QJsonArray outer = document.array();
    for (const QJsonValue& element : outer) {
        if (!element.isObject())
            continue;
        const QJsonValue items = element.toObject().value(QLatin1String("ItemInfo"));
        if (!items.isArray())
            continue;
        const QJsonArray itemArray = items.toArray();
        for (const QJsonValue& item : itemArray) {
            if (!item.isObject())
                continue;
            const QJsonObject object = item.toObject();
            // Only a JSON true counts; the string "true" does not.
            if (object.value(QLatin1String("HasNewVersion")).toBool(false))
                newVersionIds.push_back(object.value(QLatin1String("ContentID")).toString().toStdWString());
        }
    }
    return result;
}

CQMMemberWebService::EWSResult CQMMemberWebService::NotifyInconsistentMetadataHash(
    const std::wstring& productId, const std::wstring& version, const std::vector<std::wstring>& contentIds,
    int timeout)
{
    std::string body = VersionBody(productId, version, contentIds);
    body += '}';
    return ContentSyncRequest(L"/ContentManager/v1/Content/NotifyInconsistentHash", std::move(body), timeout, true,
                              [](const std::wstring&) {});
}

// --- cart ----------------------------------------------------------------------------------

CQMMemberWebService::EWSResult CQMMemberWebService::AddToMemberCart(std::vector<std::wstring> contentIds,
                                                                    QSet<QString>& cartLinks, int timeout)
{
    std::string body("[");
    bool first = true;
    for (const std::wstring& id : contentIds) {
        if (!first)
            body += ',';
        first = false;
        body += "{\"ContentID\":\"";
        body += QMText::ToUtf8(id);
        body += "\"}";
    }
    body += ']';
    // The handler reads the links itself; an ErrorNotice leaves the set as it was.
    return ContentSyncRequest(L"/ContentManager/v2/User/Cart", std::move(body), timeout, true,
                              [&cartLinks](const std::wstring& text) {
                                  const QJsonArray items =
                                      QJsonDocument::fromJson(QByteArray::fromStdString(QMText::ToUtf8(text)))
                                          .object()
                                          .value(QLatin1String("DataArray"))
                                          .toArray();
                                  for (const QJsonValue& item : items) {
                                      const QJsonObject object = item.toObject();
                                      if (object.value(QLatin1String("ReturnCode")).toInt(0) == 2)
                                          cartLinks.insert(object.value(QLatin1String("CartUrl")).toString());
                                  }
                              });
}
