#include "QMMemberWebServiceParameterCook.h"

#include <QByteArray>
#include <QString>

namespace {

QString Base64OfUtf8(const std::wstring& text)
{
    return QString::fromLatin1(QString::fromStdWString(text).toUtf8().toBase64());
}

std::wstring Finish(const QString& text)
{
    return QString::fromLatin1(text.toUtf8().toBase64()).toStdWString();
}

} // namespace

CQMMemberWebServiceParameterCook::CQMMemberWebServiceParameterCook(bool inHouseTest)
    : m_bInHouseTest(inHouseTest)
{
}

CQMMemberWebServiceParameterCook::~CQMMemberWebServiceParameterCook() = default;

bool CQMMemberWebServiceParameterCook::CookPasswordCredential(const std::wstring& email, const std::wstring& password,
                                                              const std::wstring& machineID,
                                                              const std::wstring& primaryKey,
                                                              const std::wstring& secondaryKey,
                                                              std::wstring& credential) const
{
    if (email.empty() || password.empty() || machineID.empty())
        return false;
    credential = Finish(QStringLiteral("launcher:%1:%2:%3:%4:%5")
                            .arg(Base64OfUtf8(email), Base64OfUtf8(password), QString::fromStdWString(machineID),
                                 QString::fromStdWString(primaryKey), QString::fromStdWString(secondaryKey)));
    return true;
}

bool CQMMemberWebServiceParameterCook::CookAuthorizationCodeCredential(const std::wstring& code,
                                                                       const std::wstring& machineID,
                                                                       const std::wstring& primaryKey,
                                                                       const std::wstring& secondaryKey,
                                                                       std::wstring& credential) const
{
    if (code.empty() || machineID.empty())
        return false;
    credential = Finish(QStringLiteral("launcher:%1:%2:%3:%4")
                            .arg(QString::fromStdWString(code), QString::fromStdWString(machineID),
                                 QString::fromStdWString(primaryKey), QString::fromStdWString(secondaryKey)));
    return true;
}
