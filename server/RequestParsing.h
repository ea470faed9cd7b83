#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QString>

#include <map>
#include <string>

// What the server reads out of a request beyond cpp-httplib's own parsing: the
// sign-in form, the Basic credential, JSON bodies, and the request log's copy of a
// request with its secrets taken out. Plain functions of bytes, so that they can be
// fuzzed without a server.
namespace RequestParsing {

struct SignInForm {
    QString guid;
    QString email;
    QString password;
};

/// Reads an application/x-www-form-urlencoded body ("+" is a blank).
SignInForm ParseSignInForm(const std::string& body);

/// The ":"-separated fields of "Basic " + base64(...); empty without such a header.
QList<QByteArray> ParseBasicCredential(const std::string& authorization);

/// The body's top-level JSON object; empty when it is no JSON object.
QJsonObject ParseObject(const std::string& body);

/// A browser sign-in GUID: 8 to 64 letters, digits and dashes.
bool IsWellFormedGuid(const QString& guid);

/// A secret as the request log keeps it: "[redacted]", or for a token a short
/// fingerprint ("[redacted 0123456789ab]") that tells two tokens apart.
QString Redacted(const QString& secret, bool fingerprint);

/// The header's value as the request log keeps it: credentials, tokens and
/// passwords redacted; the fields of a Basic credential that are no secret stay readable.
QString LoggedHeader(const std::string& name, const std::string& value);

/// The body as the request log keeps it: values of password, token, code and secret
/// fields of a form or JSON body redacted.
QString LoggedBody(const std::string& body, const std::string& contentType);

/// The request target with the values of secret query items redacted.
QString LoggedTarget(const std::string& target);

} // namespace RequestParsing
