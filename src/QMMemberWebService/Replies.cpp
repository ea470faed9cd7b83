#include "Replies.h"

#include "SafeJson.h"

#include "../LZString/LZString.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QStringList>

namespace QMReplies {

namespace {

QJsonDocument Parse(const std::wstring& reply, bool& parsed)
{
    const QJsonDocument document = QMSafeJson::ParseJson(QString::fromStdWString(reply).toUtf8());
    parsed = !reply.empty() && !document.isNull();
    return document;
}

// A reply whose "result" may be LZString text is normalised to an object.
QJsonObject ResultObject(const QJsonObject& top)
{
    const QJsonValue result = top.value(QLatin1String("result"));
    if (result.isString())
        return QMSafeJson::ParseJson(LZString::decompressFromUTF16(result.toString()).toUtf8()).object();
    return result.toObject();
}

} // namespace

TokenReply ParseTokenReply(const std::wstring& reply)
{
    TokenReply parsed;
    const QJsonObject object = Parse(reply, parsed.parsed).object();
    if (!parsed.parsed)
        return parsed;
    const QJsonValue error = object.value(QLatin1String("error"));
    const QJsonValue access = object.value(QLatin1String("access_token"));
    const QJsonValue refresh = object.value(QLatin1String("refresh_token"));
    parsed.hasError = !error.isUndefined() && !error.isNull();
    parsed.error = error.toInt();
    parsed.hasAccess = access.isString();
    parsed.access = access.toString().toStdWString();
    parsed.hasRefresh = refresh.isString();
    parsed.refresh = refresh.toString().toStdWString();
    return parsed;
}

CodeReply ParseAuthorizationCodeReply(const std::wstring& reply)
{
    CodeReply parsed;
    const QJsonObject top = Parse(reply, parsed.parsed).object();
    if (!parsed.parsed)
        return parsed;
    parsed.apiStatus = top.value(QLatin1String("apiStatus")).toInt(0);
    const QJsonObject data = ResultObject(top).value(QLatin1String("data")).toObject();
    parsed.status = data.value(QLatin1String("Status")).toInt(0);
    parsed.code = data.value(QLatin1String("Code")).toString().toStdWString();
    return parsed;
}

std::wstring MemberIdFromToken(const QString& token)
{
    const QStringList parts = token.split(QLatin1Char('.'), Qt::KeepEmptyParts);
    if (parts.size() != 3)
        return std::wstring();
    const QByteArray payload = QByteArray::fromBase64(parts.at(1).toUtf8());
    const QJsonValue id = QMSafeJson::ParseJson(payload).object().value(QLatin1String("memberid"));
    return id.isString() ? id.toString().toStdWString() : std::wstring();
}

} // namespace QMReplies
