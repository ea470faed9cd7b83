// Diagnostics: info, get, post, doctor.
#include "Cli.h"
#include "Doctor.h"

#include <QJsonArray>
#include <QJsonDocument>

namespace Cli {

namespace {

int Info(Context& c)
{
    int target = 0;
    if (c.Has(QStringLiteral("target"))) {
        bool ok = false;
        target = c.Value(QStringLiteral("target")).toInt(&ok, 10);
        if (!ok)
            return c.Usage(QStringLiteral("--target takes a whole number, not '%1'").arg(c.Value(QStringLiteral("target"))));
    }
    CQMMemberWebService service(c.Value(QStringLiteral("product-key")).toStdWString(),
                                c.Has(QStringLiteral("store-build")), 10000, target);
    Output& out = c.Out();
    out.Field(QStringLiteral("web_host"), QString::fromStdWString(service.GetWebHost()));
    out.Field(QStringLiteral("api_host"), QString::fromStdWString(service.GetApiHost()));
    out.Field(QStringLiteral("machine_id"), QString::fromStdWString(service.GetMachineID()));
    out.Field(QStringLiteral("user_agent"), QString::fromStdWString(service.GetHttpRequestUserAgent()));
    const std::pair<const char*, CQMMemberWebService::EWSResult (CQMMemberWebService::*)(std::wstring&)> values[] = {
        {"product_name", &CQMMemberWebService::GetProductName},
        {"product_build", &CQMMemberWebService::GetProductBuild},
        {"check_update_edition", &CQMMemberWebService::GetCheckUpdateEdition},
        {"version_code", &CQMMemberWebService::GetVersionCode},
        {"language_id", &CQMMemberWebService::GetLanguageID},
        {"language_pack_path", &CQMMemberWebService::GetLanguagePackPath},
    };
    for (const auto& [label, getter] : values) {
        std::wstring value;
        const bool found = (service.*getter)(value) == CQMMemberWebService::WS_OK;
        out.Field(QLatin1String(label), found ? QJsonValue(QString::fromStdWString(value)) : QJsonValue());
    }
    out.Field(QStringLiteral("locale_language_id"), service.GetLocaleLanguageID());
    out.Field(QStringLiteral("store_folder"), RealStoreFolder());
    return c.Ok();
}

// The reply's data as JSON when it is JSON, else as the text it is.
QJsonValue Nested(const QString& text)
{
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(("[" + text + "]").toUtf8(), &error);
    if (error.error == QJsonParseError::NoError && document.isArray() && document.array().size() == 1)
        return document.array().at(0);
    return text;
}

int Request(Context& c, bool post)
{
    if (!c.Arg(0).startsWith(QLatin1Char('/')))
        return c.Usage(QStringLiteral("the path must start with '/', not '%1'").arg(c.Arg(0)));
    int timeoutMs = 0;
    if (!c.Seconds(QStringLiteral("timeout"), 30, timeoutMs))
        return kExitUsage;
    std::wstring resultText;
    const int result = c.Service().GeneralSyncApiRequest(c.Arg(0).toStdWString(), c.Has(QStringLiteral("login")),
                                                         post ? c.Arg(1).toStdString() : std::string(), resultText,
                                                         timeoutMs);
    if (!resultText.empty() || result == CQMMemberWebService::WS_OK)
        c.Out().Field(QStringLiteral("data"), Nested(QString::fromStdWString(resultText)));
    return c.Done(result);
}

} // namespace

QList<Command> DiagnosticsCommands()
{
    Command info;
    info.name = QStringLiteral("info");
    info.synopsis = QStringLiteral("[--product-key KEY] [--store-build] [--target N]");
    info.summary = QStringLiteral("hosts, machine identity, user agent and product values");
    info.options = {ProductKeyOption(),
                    QCommandLineOption(QStringLiteral("store-build"), QStringLiteral("as a store build would")),
                    QCommandLineOption(QStringLiteral("target"), QStringLiteral("target server number (default 0)"),
                                       QStringLiteral("N"))};
    info.run = Info;

    const QList<QCommandLineOption> requestOptions = {
        QCommandLineOption(QStringLiteral("login"), QStringLiteral("send the stored access token")), TimeoutOption(30),
        ProductKeyOption()};
    Command get;
    get.name = QStringLiteral("get");
    get.synopsis = QStringLiteral("/PATH [--login] [--timeout SECONDS] [--product-key KEY]");
    get.summary = QStringLiteral("one GET to the API host through the request pipeline");
    get.help = QStringLiteral("The reply's data is printed as JSON (nested under \"data\" with --json).");
    get.options = requestOptions;
    get.run = [](Context& c) { return Request(c, false); };
    get.minArgs = get.maxArgs = 1;
    get.store = StoreUse::Write; // a refresh of the token may save it

    Command post = get;
    post.name = QStringLiteral("post");
    post.synopsis = QStringLiteral("/PATH BODY [--login] [--timeout SECONDS] [--product-key KEY]");
    post.summary = QStringLiteral("one POST with a JSON body");
    post.run = [](Context& c) { return Request(c, true); };
    post.minArgs = post.maxArgs = 2;

    Command doctor;
    doctor.name = QStringLiteral("doctor");
    doctor.synopsis = QStringLiteral("[--timeout SECONDS] [--product-key KEY]");
    doctor.summary = QStringLiteral("check hosts, network, TLS trust, clock, proxy, store and cache; paste-able report");
    doctor.help = QStringLiteral(
        "Each check says ok, warn or fail, with one line of advice. The report holds no token, password\n"
        "or secret: it names hosts, paths, times and certificates, and whether tokens are present.\n"
        "Exits 1 when a check failed. --timeout bounds each network check (default 10 s).");
    doctor.options = {TimeoutOption(10), ProductKeyOption()};
    doctor.run = Doctor;

    return {info, get, post, doctor};
}

} // namespace Cli
