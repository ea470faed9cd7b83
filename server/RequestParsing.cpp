#include "RequestParsing.h"

#include "../src/QMMemberWebService/SafeJson.h"

#include <QCryptographicHash>
#include <QJsonDocument>
#include <QVariant>
#include <QRegularExpression>
#include <QStringList>
#include <QUrlQuery>

namespace RequestParsing {

namespace {

QString Text(const std::string& utf8)
{
    return QString::fromUtf8(utf8.data(), static_cast<int>(utf8.size()));
}

enum class Secret { None, Password, Token };

// By its name: what a field, header or query item holds.
Secret Kind(const QString& name)
{
    const QString lower = name.toLower();
    if (lower.contains(QLatin1String("password")) || lower == QLatin1String("cookie")
        || lower == QLatin1String("proxy-authorization"))
        return Secret::Password;
    if (lower.contains(QLatin1String("token")) || lower.contains(QLatin1String("secret"))
        || lower == QLatin1String("code"))
        return Secret::Token;
    return Secret::None;
}

QString RedactedAs(Secret kind, const QString& value)
{
    return kind == Secret::None ? value : Redacted(value, kind == Secret::Token);
}

QString RedactedQuery(const QString& text)
{
    QUrlQuery query(text);
    QList<QPair<QString, QString>> items = query.queryItems(QUrl::FullyDecoded);
    bool changed = false;
    for (auto& [name, value] : items) {
        const Secret kind = Kind(name);
        if (kind != Secret::None) {
            value = RedactedAs(kind, value);
            changed = true;
        }
    }
    if (!changed)
        return text;
    QStringList parts;
    for (const auto& [name, value] : items)
        parts << name + QLatin1Char('=') + value;
    return parts.join(QLatin1Char('&'));
}

QJsonObject RedactedObject(QJsonObject object)
{
    for (auto it = object.begin(); it != object.end(); ++it) {
        const Secret kind = Kind(it.key());
        if (kind != Secret::None)
            it.value() = RedactedAs(kind, it.value().toVariant().toString());
        else if (it.value().isObject())
            it.value() = RedactedObject(it.value().toObject());
    }
    return object;
}

} // namespace

SignInForm ParseSignInForm(const std::string& body)
{
    QString text = Text(body);
    text.replace(QLatin1Char('+'), QLatin1Char(' ')); // forms encode blanks as '+'
    const QUrlQuery form(text);
    return {form.queryItemValue(QStringLiteral("guid"), QUrl::FullyDecoded),
            form.queryItemValue(QStringLiteral("email"), QUrl::FullyDecoded),
            form.queryItemValue(QStringLiteral("password"), QUrl::FullyDecoded)};
}

QList<QByteArray> ParseBasicCredential(const std::string& authorization)
{
    if (authorization.rfind("Basic ", 0) != 0)
        return {};
    return QByteArray::fromBase64(QByteArray::fromStdString(authorization.substr(6))).split(':');
}

QJsonObject ParseObject(const std::string& body)
{
    return QMSafeJson::ParseJson(QByteArray::fromStdString(body)).object();
}

bool IsWellFormedGuid(const QString& guid)
{
    static const QRegularExpression wellFormed(QStringLiteral("^[A-Za-z0-9-]{8,64}$"));
    return wellFormed.match(guid).hasMatch();
}

QString Redacted(const QString& secret, bool fingerprint)
{
    if (!fingerprint)
        return QStringLiteral("[redacted]");
    const QByteArray hash = QCryptographicHash::hash(secret.toUtf8(), QCryptographicHash::Sha256).toHex().left(12);
    return QStringLiteral("[redacted %1]").arg(QString::fromLatin1(hash));
}

QString LoggedHeader(const std::string& name, const std::string& value)
{
    const QString header = Text(name);
    if (header.compare(QLatin1String("Authorization"), Qt::CaseInsensitive) != 0)
        return RedactedAs(Kind(header), Text(value));
    const QString text = Text(value);
    const int blank = text.indexOf(QLatin1Char(' '));
    const QString scheme = blank < 0 ? QString() : text.left(blank);
    if (scheme == QLatin1String("Basic")) {
        // launcher : b64(e-mail) : b64(password) : ids, or launcher : code : ids
        QList<QByteArray> fields = ParseBasicCredential(value);
        QStringList shown;
        for (const QByteArray& field : fields)
            shown << QString::fromUtf8(field);
        if (shown.size() == 6)
            shown[2] = Redacted(shown.at(2), false);
        else if (shown.size() == 5)
            shown[1] = Redacted(shown.at(1), true);
        else
            return QStringLiteral("Basic ") + Redacted(text, false);
        return QStringLiteral("Basic ") + shown.join(QLatin1Char(':'));
    }
    if (scheme == QLatin1String("Token") || scheme == QLatin1String("Bearer"))
        return scheme + QLatin1Char(' ') + Redacted(text.mid(blank + 1), true);
    return Redacted(text, false);
}

QString LoggedBody(const std::string& body, const std::string& contentType)
{
    const QString text = Text(body);
    if (contentType.rfind("application/x-www-form-urlencoded", 0) == 0) {
        QString decoded = text;
        decoded.replace(QLatin1Char('+'), QLatin1Char(' '));
        return RedactedQuery(decoded);
    }
    QJsonParseError error{};
    const QJsonDocument document = QMSafeJson::ParseJson(QByteArray::fromStdString(body), &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        return text;
    const QJsonObject redacted = RedactedObject(document.object());
    return redacted == document.object() ? text
                                         : QString::fromUtf8(QJsonDocument(redacted).toJson(QJsonDocument::Compact));
}

QString LoggedTarget(const std::string& target)
{
    const QString text = Text(target);
    const int question = text.indexOf(QLatin1Char('?'));
    if (question < 0)
        return text;
    return text.left(question + 1) + RedactedQuery(text.mid(question + 1));
}

} // namespace RequestParsing
