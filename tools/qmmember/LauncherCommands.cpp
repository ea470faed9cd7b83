// The launcher commands (products, purchases, redirect-link, language-packs, plugin, eula). Cli.h tells how a command is declared.
#include "Cli.h"

#include <QEventLoop>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTimer>

#include <algorithm>

namespace Cli {

namespace {

using Service = CQMMemberWebService;

QJsonObject ReplyData(const std::wstring& reply, QJsonValue& data)
{
    const QJsonObject top = QJsonDocument::fromJson(QString::fromStdWString(reply).toUtf8()).object();
    data = top.value(QLatin1String("result")).toObject().value(QLatin1String("data"));
    return top;
}

// "ID:LANG,ID:LANG"; false with \a error on a malformed entry.
bool ParseInstalled(const QString& text, Service::ProductIDList& list, QString& error)
{
    for (const QString& entry : text.split(QLatin1Char(','), Qt::SkipEmptyParts)) {
        const QStringList parts = entry.split(QLatin1Char(':'));
        bool number = false;
        const int language = parts.value(1).toInt(&number);
        if (parts.size() != 2 || parts.at(0).isEmpty() || !number) {
            error = QStringLiteral("--installed takes ID:LANG entries joined by commas, not '%1'").arg(entry);
            return false;
        }
        list.emplace_back(parts.at(0).toStdWString(), language);
    }
    return true;
}

// "ID:BUILD" of --request-ap; true when absent, false with \a exitCode set when malformed.
bool ParseRequestAp(Context& c, std::pair<std::wstring, std::wstring>& ap, bool& given, int& exitCode)
{
    given = c.Has(QStringLiteral("request-ap"));
    if (!given)
        return true;
    const QStringList parts = c.Value(QStringLiteral("request-ap")).split(QLatin1Char(':'));
    if (parts.size() != 2 || parts.at(0).isEmpty() || parts.at(1).isEmpty()) {
        exitCode = c.Usage(QStringLiteral("--request-ap takes ID:BUILD"));
        return false;
    }
    ap = {parts.at(0).toStdWString(), parts.at(1).toStdWString()};
    return true;
}

// Whether the library answers from its cache: the file is from today and was written for the
// same installed list ("ID:LANG" entries joined by ';', in any order).
bool CacheIsFresh(const Service::ProductIDList& installed)
{
    QString products;
    QString listText;
    bool expired = true;
    bool listExpired = true;
    if (!Service::ReadCacheFile(QStringLiteral("ProductInfoList.json"), products, expired) || expired
        || !Service::ReadCacheFile(QStringLiteral("InstalledProductList"), listText, listExpired))
        return false;
    Service::ProductIDList cached;
    for (const QString& entry : listText.split(QLatin1Char(';'), Qt::SkipEmptyParts)) {
        const QStringList parts = entry.split(QLatin1Char(':'), Qt::SkipEmptyParts);
        if (parts.size() == 2)
            cached.emplace_back(parts.at(0).toStdWString(), parts.at(1).toInt());
    }
    if (cached.empty() || cached.size() != installed.size())
        return false;
    size_t matches = 0;
    for (const auto& product : installed)
        matches += static_cast<size_t>(std::count(cached.begin(), cached.end(), product));
    return matches == installed.size();
}

QString ProductLine(const QJsonObject& product)
{
    QString licence = product.value(QLatin1String("Licence")).toString();
    const QString ends = product.value(QLatin1String("LicenceEnd")).toString();
    if (!ends.isEmpty())
        licence += QStringLiteral(" until ") + ends;
    QString line = QStringLiteral("%1  %2  %3  %4")
                       .arg(product.value(QLatin1String("ProductID")).toString().leftJustified(10),
                            product.value(QLatin1String("ProductName")).toString().leftJustified(18),
                            (product.value(QLatin1String("Owned")).toBool() ? QStringLiteral("owned")
                                                                            : QStringLiteral("not owned"))
                                .leftJustified(9),
                            licence.leftJustified(31));
    if (product.contains(QLatin1String("Installed")))
        line += product.value(QLatin1String("Installed")).toBool()
                    ? QStringLiteral("installed (language %1)").arg(product.value(QLatin1String("Lang")).toInt())
                    : QStringLiteral("not installed");
    const QString latest = product.value(QLatin1String("LatestBuild")).toString();
    if (!latest.isEmpty())
        line += QStringLiteral("  latest ") + latest;
    if (product.contains(QLatin1String("PreReleaseBuild")))
        line += QStringLiteral(" (pre-release ") + product.value(QLatin1String("PreReleaseBuild")).toString()
                + QLatin1Char(')');
    return line.trimmed();
}

// Readable output, or with --json the reply as the service sent it.
void PrintReply(Context& c, const QString& source, const std::wstring& reply)
{
    QJsonValue data;
    const QJsonObject top = ReplyData(reply, data);
    if (c.Json()) {
        if (!source.isEmpty())
            c.Out().Field(QStringLiteral("source"), source);
        c.Out().Field(QStringLiteral("reply"), top);
        return;
    }
    QStringList lines;
    if (!source.isEmpty())
        lines << QStringLiteral("from the %1").arg(source);
    const QJsonArray products =
        data.isArray() ? data.toArray() : data.toObject().value(QLatin1String("Products")).toArray();
    for (const QJsonValue& product : products)
        lines << ProductLine(product.toObject());
    const QJsonObject ap = data.toObject().value(QLatin1String("RequestAp")).toObject();
    if (!ap.isEmpty())
        lines << QStringLiteral("requesting application %1 %2: %3")
                     .arg(ap.value(QLatin1String("ProductID")).toString(), ap.value(QLatin1String("ProductBuild")).toString(),
                          ap.value(QLatin1String("UpdateAvailable")).toBool()
                              ? QStringLiteral("update to %1 available").arg(ap.value(QLatin1String("LatestBuild")).toString())
                              : QStringLiteral("up to date"));
    c.Out().Body(QStringLiteral("products"), lines.join(QLatin1Char('\n')));
}

bool SignedIn(Context& c, int& exitCode)
{
    if (c.Service().IsMemberLogIn())
        return true;
    exitCode = c.Fail(QStringLiteral("not_signed_in"), QStringLiteral("no member is signed in"),
                      QStringLiteral("run qmmember login"));
    return false;
}

int Products(Context& c)
{
    int timeoutMs = 0;
    if (!c.Seconds(QStringLiteral("timeout"), 30, timeoutMs))
        return kExitUsage;
    Service::ProductIDList installed;
    QString error;
    if (c.Has(QStringLiteral("installed"))) {
        if (!ParseInstalled(c.Value(QStringLiteral("installed")), installed, error))
            return c.Usage(error);
    } else {
        // The product of --product-key, in its language, is what is installed.
        std::wstring edition;
        std::wstring language;
        if (c.Service().GetCheckUpdateEdition(edition) == Service::WS_OK
            && c.Service().GetLanguageID(language) == Service::WS_OK)
            installed.emplace_back(edition, QString::fromStdWString(language).toInt());
    }
    std::pair<std::wstring, std::wstring> ap;
    bool withAp = false;
    int exitCode = kExitOk;
    if (!ParseRequestAp(c, ap, withAp, exitCode) || !SignedIn(c, exitCode))
        return exitCode;
    CQMMemberWebService::SetInHouseTest(c.Has(QStringLiteral("in-house")));

    const bool force = c.Has(QStringLiteral("force"));
    const bool fresh = !force && CacheIsFresh(installed);
    Service& service = c.Service();
    std::wstring reply;
    int result = Service::WS_UNEXPECT_FAIL;
    if (c.Has(QStringLiteral("async"))) {
        // The answer comes by signal from the event loop; a guard ends the wait if it never does.
        QEventLoop loop;
        bool delivered = false;
        unsigned int netError = 0;
        QObject::connect(&service, &Service::FinishRequest, &loop,
                         [&](const std::wstring& name, const std::wstring& text, int error) {
                             if (name != L"GetMemberProductInfo")
                                 return;
                             delivered = true;
                             reply = text;
                             netError = static_cast<unsigned int>(error);
                             loop.quit();
                         });
        QTimer::singleShot(timeoutMs + 5000, &loop, &QEventLoop::quit);
        service.GetMemberProductInfo(installed, reply, force, withAp ? &ap : nullptr, false, timeoutMs, true);
        loop.exec();
        if (!delivered)
            return c.Fail(QStringLiteral("timed_out"), QStringLiteral("no answer came"));
        if (reply.empty())
            return c.Fail(c.ServiceFailure(Service::WS_CONNECTION_FAILED, netError, QString()));
        PrintReply(c, fresh ? QStringLiteral("cache")
                  : netError == 0 ? QStringLiteral("server (asynchronous)")
                                  : QStringLiteral("cache (the server failed)"),
                   reply);
        return c.Ok();
    }
    result = service.GetMemberProductInfo(installed, reply, force, withAp ? &ap : nullptr, true, timeoutMs, true);
    if (result == Service::WS_OK || result == Service::WS_TOKEN_EXPIRE) {
        PrintReply(c, QStringLiteral("server"), reply);
        return reply.empty() ? c.Done(result) : c.Ok();
    }
    if (reply.empty())
        return c.Done(result);
    // A reply from the cache comes with -1 (or -7 offline): the text is what counts.
    QString source = QStringLiteral("cache");
    if (result == Service::WS_NO_INTERNET)
        source = QStringLiteral("cache (offline)");
    else if (!fresh)
        source = QStringLiteral("cache (the server failed: %1)")
                     .arg(QString::fromStdWString(service.GetErrorCodeString(result)));
    PrintReply(c, source, reply);
    return c.Ok();
}

int Purchases(Context& c)
{
    int timeoutMs = 0;
    if (!c.Seconds(QStringLiteral("timeout"), 30, timeoutMs))
        return kExitUsage;
    std::pair<std::wstring, std::wstring> ap;
    bool withAp = false;
    int exitCode = kExitOk;
    if (!ParseRequestAp(c, ap, withAp, exitCode) || !SignedIn(c, exitCode))
        return exitCode;
    std::wstring reply;
    const int result = c.Service().GetPurchaseProductInfo(c.Has(QStringLiteral("full")) ? 1 : 0, 0, 0, reply,
                                                          withAp ? &ap : nullptr, timeoutMs, true);
    if (result != Service::WS_OK)
        return c.Done(result);
    if (reply.empty())
        c.Out().Body(QStringLiteral("products"), QStringLiteral("no purchases"));
    else
        PrintReply(c, QString(), reply);
    return c.Ok();
}

int RedirectLink(Context& c)
{
    bool number = false;
    const int type = c.Value(QStringLiteral("type")).toInt(&number);
    if (!number || type < 0 || type > 2)
        return c.Usage(QStringLiteral("--type takes 0 (a page), 1 (the account page) or 2 (a purchase page)"));
    int language = 1;
    if (c.Has(QStringLiteral("language"))) {
        language = c.Value(QStringLiteral("language")).toInt(&number);
        if (!number || language < 1)
            return c.Usage(QStringLiteral("--language takes a language number of 1 or more"));
    }
    if (type != Service::REDIRECT_MEMBER_ACCOUNT && c.Arg(0).isEmpty())
        return c.Usage(QStringLiteral("types 0 and 2 need the URL of the page"));
    int exitCode = kExitOk;
    if (!SignedIn(c, exitCode))
        return exitCode;
    std::wstring link = c.Arg(0).toStdWString();
    const int result = c.Service().GetMemberRedirectLink(link, language, Service::ERedirectType(type));
    if (result == Service::WS_OK)
        c.Out().Body(QStringLiteral("link"), QString::fromStdWString(link));
    return c.Done(result);
}

int LanguagePacks(Context& c)
{
    int timeoutMs = 0;
    if (!c.Seconds(QStringLiteral("timeout"), 30, timeoutMs))
        return kExitUsage;
    std::wstring reply;
    const std::wstring key = c.Value(QStringLiteral("product-key")).toStdWString();
    const int result = c.Service().GetLanguagePackInfo(reply, key, timeoutMs);
    if (result != Service::WS_OK)
        return c.Done(result);
    QJsonValue data;
    const QJsonObject top = ReplyData(reply, data);
    if (c.Json()) {
        c.Out().Field(QStringLiteral("reply"), top);
        return c.Ok();
    }
    QStringList lines{QStringLiteral("language packs of %1").arg(data.toObject().value(QLatin1String("ProductID")).toString())};
    for (const QJsonValue& value : data.toObject().value(QLatin1String("Packs")).toArray()) {
        const QJsonObject pack = value.toObject();
        lines << QStringLiteral("%1  %2  %3 bytes  %4  sha256 %5")
                     .arg(QString::number(pack.value(QLatin1String("Language")).toInt()).rightJustified(2),
                          pack.value(QLatin1String("LanguageName")).toString().leftJustified(19),
                          QString::number(pack.value(QLatin1String("Size")).toInt()).rightJustified(6),
                          pack.value(QLatin1String("Url")).toString(), pack.value(QLatin1String("SHA256")).toString());
    }
    c.Out().Body(QStringLiteral("packs"), lines.join(QLatin1Char('\n')));
    return c.Ok();
}

int Plugin(Context& c)
{
    int timeoutMs = 0;
    if (!c.Seconds(QStringLiteral("timeout"), 30, timeoutMs))
        return kExitUsage;
    std::wstring reply;
    const int result = c.Service().GetPluginInfo(c.Arg(0).toStdWString(), c.Arg(1).toStdWString(), reply, timeoutMs);
    if (result != Service::WS_OK)
        return c.Done(result);
    QJsonValue data;
    ReplyData(reply, data);
    const QJsonObject plugin = data.toObject();
    for (auto it = plugin.begin(); it != plugin.end(); ++it)
        c.Out().Field(it.key(), it.value());
    return c.Ok();
}

// --type of the agreement commands: one of \a allowed.
bool AgreementType(Context& c, const QList<int>& allowed, Service::EContentManagerEulaServiceType& type)
{
    bool number = false;
    const int value = c.Value(QStringLiteral("type")).toInt(&number);
    if (!number || !allowed.contains(value))
        return false;
    type = Service::EContentManagerEulaServiceType(value);
    return true;
}

int EulaText(Context& c)
{
    Service::EContentManagerEulaServiceType type;
    if (!AgreementType(c, {0, 4}, type))
        return c.Usage(QStringLiteral("--type takes 0 (general) or 4 (application)"));
    int language = Service::LID_SYSTEM;
    if (c.Has(QStringLiteral("language"))) {
        bool number = false;
        language = c.Value(QStringLiteral("language")).toInt(&number);
        if (!number)
            return c.Usage(QStringLiteral("--language takes 1, 2, 4 or 8 (or -1 for the system's)"));
    }
    std::wstring text;
    const int result = c.Service().GetWebEndUserLicenseAgreement(type, text, Service::ELanguageID(language));
    if (result == Service::WS_OK)
        c.Out().Body(QStringLiteral("text"), QString::fromStdWString(text).trimmed());
    return c.Done(result);
}

// What eula check and consent read first: --timeout, --type and a signed-in member; false with
// \a exitCode set when one of them fails.
bool ConsentArgs(Context& c, int& timeoutMs, Service::EContentManagerEulaServiceType& type, int& exitCode)
{
    if (!c.Seconds(QStringLiteral("timeout"), 30, timeoutMs)) {
        exitCode = kExitUsage;
        return false;
    }
    if (!AgreementType(c, {0, 4, 7, 8, 9}, type)) {
        exitCode = c.Usage(QStringLiteral("--type takes 0, 4, 7, 8 or 9"));
        return false;
    }
    return SignedIn(c, exitCode);
}

int EulaCheck(Context& c)
{
    int timeoutMs = 0;
    Service::EContentManagerEulaServiceType type;
    int exitCode = kExitOk;
    if (!ConsentArgs(c, timeoutMs, type, exitCode))
        return exitCode;
    c.Out().Field(QStringLiteral("consent_needed"), c.Service().CheckIfNeedToShowEula(type, timeoutMs));
    return c.Ok();
}

int EulaConsent(Context& c)
{
    int timeoutMs = 0;
    Service::EContentManagerEulaServiceType type;
    int exitCode = kExitOk;
    if (!ConsentArgs(c, timeoutMs, type, exitCode))
        return exitCode;
    c.Service().SetUserEulaConsent(type, timeoutMs);
    // The consent reports nothing: the check tells whether it was recorded.
    if (c.Service().CheckIfNeedToShowEula(type, timeoutMs))
        return c.Fail(QStringLiteral("not_recorded"), QStringLiteral("the consent was not recorded"),
                      QStringLiteral("try again; qmmember --verbose eula check shows why"));
    c.Out().Field(QStringLiteral("consent_needed"), false);
    return c.Ok();
}

QCommandLineOption RequestApOption()
{
    return QCommandLineOption(QStringLiteral("request-ap"),
                              QStringLiteral("the calling application, e.g. Pro:8.1.0101.1"), QStringLiteral("ID:BUILD"));
}

QCommandLineOption AgreementTypeOption(const QString& values)
{
    return QCommandLineOption(QStringLiteral("type"), QStringLiteral("the agreement: %1").arg(values),
                              QStringLiteral("N"));
}

} // namespace

QList<Command> LauncherCommands()
{
    Command products;
    products.name = QStringLiteral("products");
    products.synopsis =
        QStringLiteral("[--installed ID:LANG,...] [--request-ap ID:BUILD] [--force] [--async] [--in-house]\n"
                       "[--timeout SECONDS] [--product-key KEY]");
    products.summary = QStringLiteral("the member's products, and whether the answer came from the server or the cache");
    products.help = QStringLiteral(
        "Without --installed, the product of --product-key in its \"Language ID\" is the installed list.\n"
        "The answer comes from the cache file while it is from today and the installed list is the\n"
        "same; --force asks the server. --async sends the request asynchronously and waits for the\n"
        "signal. --in-house shows pre-release builds. With --json the reply is printed whole.");
    products.options = {QCommandLineOption(QStringLiteral("installed"),
                                           QStringLiteral("installed products with their language numbers"),
                                           QStringLiteral("ID:LANG,...")),
                        RequestApOption(),
                        QCommandLineOption(QStringLiteral("force"), QStringLiteral("ask the server, not the cache")),
                        QCommandLineOption(QStringLiteral("async"), QStringLiteral("use the asynchronous call")),
                        QCommandLineOption(QStringLiteral("in-house"), QStringLiteral("in-house test: pre-release builds too")),
                        TimeoutOption(30),
                        ProductKeyOption()};
    products.run = Products;
    products.store = StoreUse::Write;

    Command purchases;
    purchases.name = QStringLiteral("purchases");
    purchases.synopsis = QStringLiteral("[--full] [--request-ap ID:BUILD] [--timeout SECONDS] [--product-key KEY]");
    purchases.summary = QStringLiteral("the member's purchased products");
    purchases.help = QStringLiteral("--full lists full licences only (perpetual and subscription), no trials;\n"
                                    "--request-ap lists the calling application's product only.");
    purchases.options = {QCommandLineOption(QStringLiteral("full"), QStringLiteral("full licences only")),
                         RequestApOption(), TimeoutOption(30), ProductKeyOption()};
    purchases.run = Purchases;
    purchases.store = StoreUse::Write;

    Command redirect;
    redirect.name = QStringLiteral("redirect-link");
    redirect.synopsis = QStringLiteral("[URL] --type 0|1|2 [--language N] [--product-key KEY]");
    redirect.summary = QStringLiteral("the link that opens a member web page signed in");
    redirect.help = QStringLiteral(
        "Type 0 opens URL signed in, 1 the member's account page (no URL), 2 URL as a purchase page.\n"
        "No request is sent; the access token is refreshed first when the last refresh is two minutes old.\n"
        "CAUTION: the link carries the member's access token. Anyone who has it is signed in as the\n"
        "member until the token expires: do not paste it into tickets, chats or logs.");
    redirect.options = {QCommandLineOption(QStringLiteral("type"), QStringLiteral("0, 1 or 2 (default 0)"),
                                           QStringLiteral("N"), QStringLiteral("0")),
                        QCommandLineOption(QStringLiteral("language"), QStringLiteral("language number (default 1)"),
                                           QStringLiteral("N")),
                        ProductKeyOption()};
    redirect.run = RedirectLink;
    redirect.maxArgs = 1;
    redirect.store = StoreUse::Write;

    Command packs;
    packs.name = QStringLiteral("language-packs");
    packs.synopsis = QStringLiteral("[--product-key KEY] [--timeout SECONDS]");
    packs.summary = QStringLiteral("the language packs of the product of --product-key");
    packs.help = QStringLiteral("Each pack with its language, size, download address and SHA-256.");
    packs.options = {ProductKeyOption(), TimeoutOption(30)};
    packs.run = LanguagePacks;
    packs.store = StoreUse::Write;

    Command plugin;
    plugin.name = QStringLiteral("plugin");
    plugin.synopsis = QStringLiteral("ID VERSION [--product-key KEY] [--timeout SECONDS]");
    plugin.summary = QStringLiteral("what the service knows of a plug-in for this application's version");
    plugin.help = QStringLiteral("ID and VERSION go into the query as they are: an ID holding '&' splits it.");
    plugin.options = {ProductKeyOption(), TimeoutOption(30)};
    plugin.run = Plugin;
    plugin.minArgs = plugin.maxArgs = 2;
    plugin.store = StoreUse::Write;

    Command text;
    text.name = QStringLiteral("eula text");
    text.synopsis = QStringLiteral("--type 0|4 [--language N]");
    text.summary = QStringLiteral("the end-user agreement text from the web host");
    text.help = QStringLiteral("--language 1 English, 2 Traditional Chinese, 4 Japanese, 8 German; without it the\n"
                               "system's language picks the application agreement's text.");
    text.options = {AgreementTypeOption(QStringLiteral("0 general, 4 application")),
                    QCommandLineOption(QStringLiteral("language"), QStringLiteral("1, 2, 4 or 8"), QStringLiteral("N"))};
    text.run = EulaText;
    text.store = StoreUse::None;

    Command check;
    check.name = QStringLiteral("eula check");
    check.synopsis = QStringLiteral("--type N [--timeout SECONDS] [--product-key KEY]");
    check.summary = QStringLiteral("whether the member must agree to a renewed agreement");
    check.help = QStringLiteral("Type 4 asks for the system language's variant (7, 8 or 9). A failed check reads\n"
                                "as not needed, as the library has it; --verbose shows the error.");
    check.options = {AgreementTypeOption(QStringLiteral("0, 4, 7, 8 or 9")), TimeoutOption(30), ProductKeyOption()};
    check.run = EulaCheck;
    check.store = StoreUse::Write;

    Command consent = check;
    consent.name = QStringLiteral("eula consent");
    consent.summary = QStringLiteral("record the member's consent to the current agreement");
    consent.help = QStringLiteral("Then checks again, and fails when the consent did not take.");
    consent.run = EulaConsent;

    return {products, purchases, redirect, packs, plugin, text, check, consent};
}

} // namespace Cli
