// qmmember: the command-line host of QMMemberWebService, for developers,
// installers and scripts. Readable output by default, --json for scripts.
#include "QMMemberWebService.h"

#include "LZString/LZString.h"
#include "QMMemberWebService/Cache.h"
#include "compat/QtCompat.h"
#include "qmnetwork/HttpRequest.h"
#include "registry/QMRegistryAgent.h"
#include "registry/RegistryStore.h"

#include "Terminal.h"

#include <QCoreApplication>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QElapsedTimer>
#include <QLoggingCategory>
#include <QProcess>
#include <QStandardPaths>
#include <QTimer>
#include <QStringList>
#include <QTextStream>

#include <csignal>
#include <cstdlib>
#include <cstdio>
#include <functional>
#include <map>

namespace {

const char* const kUsage = R"(usage: qmmember [--json] [--verbose] COMMAND ...

  info [--product-key KEY] [--store-build] [--target N]
                               hosts, machine identity, user agent, product values
  store get HIVE KEY NAME      read a value of the per-user store (HIVE: HKCU or HKLM)
  store set HIVE KEY NAME VALUE [--dword]
                               write a string (or, with --dword, a number)
  store delete HIVE KEY NAME   delete a value
  get PATH [--login] [--timeout MS] [--product-key KEY]
                               one GET to the API host through the request pipeline
  post PATH BODY [--login] [--timeout MS] [--product-key KEY]
                               one POST with a JSON body
  login --email E [--password-stdin] [--timeout MS]
                               sign in with e-mail and password (read without echo, never from the
                               command line)
  login --browser [--timeout SECONDS]
                               sign in in a web browser: prints the page's address, opens it where
                               a desktop exists, and waits; Ctrl-C stops
  profile [--force]            the member's profile, and whether it came from the cache
  whoami                       the member id in the stored token
  logout                       sign out (the backup token stays)
  token export DIR             write DIR/QMBakToken.reg for the registry editor
  lz decode FILE [--json-string]
                               decode an lz-string UTF-16 text (UTF-16LE bytes, or a JSON string)
  urlscheme encode TEXT | decode TOKEN
  cache path | show NAME | clear NAME

Hosts come from QM_API_HOST / QM_WEB_HOST when set; QM_CA_FILE adds a trusted CA;
QM_REGISTRY_DIR moves the per-user store.
)";

// Values that hold secrets are never printed.
bool IsSecretName(const QString& name)
{
    const QString folded = name.toCaseFolded();
    return folded.contains(QLatin1String("token")) || folded.contains(QLatin1String("password"));
}

class Output
{
public:
    explicit Output(bool json)
        : m_json(json)
    {
    }

    void Field(const QString& label, const QJsonValue& value)
    {
        if (!m_object.contains(label))
            m_order.append(label);
        m_object.insert(label, value);
    }

    bool Has(const QString& label) const { return m_object.contains(label); }

    // Prints the fields, as one JSON object or as aligned lines.
    void Print()
    {
        QTextStream out(stdout);
        QMCompat::SetUtf8(out);
        if (m_json) {
            out << QJsonDocument(m_object).toJson(QJsonDocument::Compact) << '\n';
            return;
        }
        int width = 0;
        for (const QString& label : m_order)
            width = qMax(width, label.size());
        for (const QString& label : m_order) {
            const QJsonValue value = m_object.value(label);
            const QString text = value.isNull()   ? QStringLiteral("(not set)")
                                 : value.isString() ? value.toString()
                                 : value.isBool() ? QLatin1String(value.toBool() ? "true" : "false")
                                                  : QString::number(value.toDouble(), 'g', 15);
            out << label.leftJustified(width) << "  " << text << '\n';
        }
    }

private:
    bool m_json;
    QJsonObject m_object;
    QStringList m_order;
};

void Error(const QString& message)
{
    QTextStream err(stderr);
    err << "qmmember: " << message << '\n';
}

struct Arguments {
    QStringList positional;
    QMap<QString, QString> options;
    bool Flag(const QString& name) const { return options.contains(name); }
    QString Value(const QString& name, const QString& fallback = QString()) const
    {
        return options.value(name, fallback);
    }
};

// Splits arguments into positional ones and --options; \a valued names take a value.
bool Parse(const QStringList& args, const QStringList& valued, Arguments& parsed)
{
    for (int i = 0; i < args.size(); ++i) {
        const QString& arg = args.at(i);
        if (!arg.startsWith(QLatin1String("--"))) {
            parsed.positional.append(arg);
            continue;
        }
        if (valued.contains(arg)) {
            if (i + 1 >= args.size()) {
                Error(arg + " needs a value");
                return false;
            }
            parsed.options.insert(arg, args.at(++i));
        } else {
            parsed.options.insert(arg, QString());
        }
    }
    return true;
}

bool ParseHive(const QString& text, bool& currentUser)
{
    const QString hive = text.toUpper();
    if (hive == QLatin1String("HKCU") || hive == QLatin1String("HKEY_CURRENT_USER")) {
        currentUser = true;
        return true;
    }
    if (hive == QLatin1String("HKLM") || hive == QLatin1String("HKEY_LOCAL_MACHINE")) {
        currentUser = false;
        return true;
    }
    Error(QStringLiteral("unknown hive '%1': use HKCU or HKLM").arg(text));
    return false;
}

bool ParseInt(const QString& text, const QString& what, int& value)
{
    bool ok = false;
    value = text.toInt(&ok, 10);
    if (!ok)
        Error(QStringLiteral("%1 must be a whole number, not '%2'").arg(what, text));
    return ok;
}

QString ResultText(CQMMemberWebService& service, int code)
{
    return QString::number(code) + QLatin1String(" (") + QString::fromStdWString(service.GetErrorCodeString(code))
           + QLatin1Char(')');
}

// A one-line hint for the results that have an obvious next step.
QString Hint(int code)
{
    switch (code) {
    case CQMMemberWebService::WS_CONNECTION_FAILED:
        return QStringLiteral("server unreachable: is qmmember-server running, and QM_API_HOST / QM_CA_FILE set?");
    case CQMMemberWebService::WS_PARSE_CONTENT_FAIL:
        return QStringLiteral("the reply was not the service's JSON envelope");
    case CQMMemberWebService::WS_UNEXPECT_FAIL:
        return QStringLiteral("if the call needs a login: sign in first");
    case CQMMemberWebService::WS_SERVER_BUSY:
        return QStringLiteral("the server is busy: try again later");
    case 5:
        return QStringLiteral("wrong e-mail or password");
    case CQMMemberWebService::WS_PARAM_FAIL:
        return QStringLiteral("the server refused the request's parameters");
    case CQMMemberWebService::WS_TOKEN_EXPIRE:
    case CQMMemberWebService::WS_TOKEN_VERIFY_FAIL:
        return QStringLiteral("the stored session is no longer valid: sign in again");
    case CQMMemberWebService::WS_LOGIN_STATUS_FAIL:
        return QStringLiteral("the browser sign-in was refused");
    case CQMMemberWebService::WS_NO_INTERNET:
        return QStringLiteral("no connection to the internet");
    default:
        return QString();
    }
}

int Report(Output& out, CQMMemberWebService& service, int code);

int Info(const Arguments& args, bool json)
{
    const QString key = args.Value(QStringLiteral("--product-key"));
    int target = 0;
    if (args.Flag(QStringLiteral("--target")) && !ParseInt(args.Value(QStringLiteral("--target")), "--target", target))
        return 2;
    CQMMemberWebService service(key.toStdWString(), args.Flag(QStringLiteral("--store-build")), 10000, target);
    Output out(json);
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
    out.Field(QStringLiteral("store_folder"), QMRegistryTool::Store::Folder());
    out.Print();
    return 0;
}

int Store(const Arguments& args, bool json)
{
    const QStringList& p = args.positional;
    const QString verb = p.value(0);
    const int needed = verb == QLatin1String("set") ? 5 : 4;
    if ((verb != QLatin1String("get") && verb != QLatin1String("set") && verb != QLatin1String("delete"))
        || p.size() != needed) {
        Error(QStringLiteral("usage: qmmember store get|delete HIVE KEY NAME, or store set HIVE KEY NAME VALUE"));
        return 2;
    }
    bool currentUser = true;
    if (!ParseHive(p.at(1), currentUser))
        return 2;
    QMRegistryTool::CQMRegistryAgent agent;
    const std::wstring key = p.at(2).toStdWString();
    const std::wstring name = p.at(3).toStdWString();
    Output out(json);
    if (verb == QLatin1String("get")) {
        std::wstring value;
        if (!agent.ReadString(currentUser, key, name, value)) {
            Error(QStringLiteral("no value '%1' under %2").arg(p.at(3), p.at(2)));
            return 1;
        }
        const QString text = QString::fromStdWString(value);
        out.Field(QStringLiteral("value"), IsSecretName(p.at(3))
                                               ? QStringLiteral("<hidden: %1 characters>").arg(text.size())
                                               : text);
    } else if (verb == QLatin1String("set")) {
        bool ok = false;
        if (args.Flag(QStringLiteral("--dword"))) {
            int number = 0;
            if (!ParseInt(p.at(4), QStringLiteral("a --dword value"), number))
                return 2;
            ok = agent.WriteNumber(currentUser, key, name, number);
        } else {
            ok = agent.WriteString(currentUser, key, name, p.at(4).toStdWString());
        }
        if (!ok) {
            Error(QStringLiteral("cannot write to the store in %1").arg(QMRegistryTool::Store::Folder()));
            return 1;
        }
        out.Field(QStringLiteral("written"), true);
    } else {
        if (!agent.DeleteValue(currentUser, key, name)) {
            Error(QStringLiteral("no value '%1' under %2").arg(p.at(3), p.at(2)));
            return 1;
        }
        out.Field(QStringLiteral("deleted"), true);
    }
    out.Print();
    return 0;
}

int Request(const Arguments& args, bool json, bool post)
{
    const QStringList& p = args.positional;
    if (p.size() != (post ? 2 : 1) || !p.at(0).startsWith(QLatin1Char('/'))) {
        Error(post ? QStringLiteral("usage: qmmember post /PATH BODY [--login] [--timeout MS]")
                   : QStringLiteral("usage: qmmember get /PATH [--login] [--timeout MS]"));
        return 2;
    }
    int timeout = 30000;
    if (args.Flag(QStringLiteral("--timeout"))
        && !ParseInt(args.Value(QStringLiteral("--timeout")), QStringLiteral("--timeout"), timeout))
        return 2;
    const QString key = args.Value(QStringLiteral("--product-key"));
    CQMMemberWebService service(key.toStdWString(), false, 10000, 0);
    std::wstring resultText;
    // A failed exchange announces itself with ErrorNotice(-1) before extraction decides the result.
    bool exchangeFailed = false;
    QObject::connect(&service, QOverload<QString, CQMMemberWebService::EWSResult>::of(&CQMMemberWebService::ErrorNotice),
                     [&exchangeFailed](QString, CQMMemberWebService::EWSResult result) {
                         exchangeFailed = exchangeFailed || result == CQMMemberWebService::WS_UNEXPECT_FAIL;
                     });
    const int code = service.GeneralSyncApiRequest(p.at(0).toStdWString(), args.Flag(QStringLiteral("--login")),
                                                   post ? p.at(1).toStdString() : std::string(), resultText,
                                                   timeout);
    Output out(json);
    out.Field(QStringLiteral("data"), QString::fromStdWString(resultText));
    if (exchangeFailed && code == CQMMemberWebService::WS_PARSE_CONTENT_FAIL)
        out.Field(QStringLiteral("hint"), Hint(CQMMemberWebService::WS_CONNECTION_FAILED));
    return Report(out, service, code);
}

// Prints the result code with its text and, on failure, a hint.
int Report(Output& out, CQMMemberWebService& service, int code)
{
    out.Field(QStringLiteral("result"), code);
    out.Field(QStringLiteral("text"), code == CQMMemberWebService::WS_OK
                                          ? QStringLiteral("OK")
                                          : QString::fromStdWString(service.GetErrorCodeString(code)));
    const QString hint = Hint(code);
    if (code != CQMMemberWebService::WS_OK && !hint.isEmpty() && !out.Has(QStringLiteral("hint")))
        out.Field(QStringLiteral("hint"), hint);
    out.Print();
    return code == CQMMemberWebService::WS_OK ? 0 : 1;
}

// The password comes from standard input with --password-stdin, else from the
// terminal with echo turned off; never from the command line.
bool ReadPassword(bool fromStdin, QString& password)
{
    QTextStream in(stdin);
    QMCompat::SetUtf8(in);
    if (fromStdin) {
        password = in.readLine();
        return true;
    }
    if (!Terminal::InputIsTerminal()) {
        Error(QStringLiteral("no terminal to read the password from: pipe it in with --password-stdin"));
        return false;
    }
    password = Terminal::ReadHiddenLine("Password: ");
    return true;
}

// Browser sign-in: the library polls for the code bound to a fresh GUID while
// the member signs in on the page; a spinner shows the time waited.
int LoginInBrowser(const Arguments& args, bool json)
{
    int seconds = 300;
    if (args.Flag(QStringLiteral("--timeout"))
        && (!ParseInt(args.Value(QStringLiteral("--timeout")), QStringLiteral("--timeout"), seconds) || seconds <= 0))
        return 2;
    CQMMemberWebService service(args.Value(QStringLiteral("--product-key")).toStdWString(), false, 10000, 0);
    const QString guid = CQMMemberWebService::GenerateApiRequestID();
    const QString url =
        QStringLiteral("https://%1/signin?GUID=%2").arg(QString::fromStdWString(service.GetWebHost()), guid);
    int exitCode = 1;
    QTimer tick;
    const bool spinner = Terminal::ErrorIsTerminal();
    auto clearSpinner = [spinner] {
        if (spinner)
            std::fputs("\r\033[K", stderr);
    };
    // Ctrl-C stops the polling through the library and ends with a short message; the
    // handler is in place before the address is shown.
    const bool interruptible = Terminal::OnInterrupt(&service, [&] {
        tick.stop();
        clearSpinner();
        service.OnMemberLogInStop();
        Error(QStringLiteral("stopped: no sign-in"));
        exitCode = 130;
        QCoreApplication::exit(exitCode);
    });
    if (!interruptible) {
        Error(QStringLiteral("cannot prepare for Ctrl-C"));
        return 1;
    }
    {
        QTextStream out(stdout);
        out << (json ? QString::fromUtf8(QJsonDocument(QJsonObject{{"url", url}}).toJson(QJsonDocument::Compact))
                     : QStringLiteral("Sign in at: ") + url)
            << '\n';
    }
    if ((qEnvironmentVariableIsSet("DISPLAY") || qEnvironmentVariableIsSet("WAYLAND_DISPLAY"))
        && !QStandardPaths::findExecutable(QStringLiteral("xdg-open")).isEmpty())
        QProcess::startDetached(QStringLiteral("xdg-open"), {url});

    QElapsedTimer waited;
    waited.start();
    QObject::connect(&tick, &QTimer::timeout, &tick, [&waited] {
        static const char* const frames[] = {"|", "/", "-", "\\"};
        static int frame = 0;
        std::fprintf(stderr, "\r%s waiting for the sign-in in the browser... %llds (Ctrl-C stops)",
                     frames[frame++ % 4], static_cast<long long>(waited.elapsed() / 1000));
        std::fflush(stderr);
    });
    if (spinner)
        tick.start(100);

    QObject::connect(&service, &CQMMemberWebService::LoginResult, &service,
                     [&](CQMMemberWebService::EWSResult result, const std::wstring& text) {
                         tick.stop();
                         clearSpinner();
                         Output out(json);
                         if (result == CQMMemberWebService::WS_OK)
                             out.Field(QStringLiteral("member_id"),
                                       QString::fromStdWString(service.GetMemberIDByToken()));
                         else if (result == CQMMemberWebService::WS_CONNECTION_TIMEOUT)
                             out.Field(QStringLiteral("hint"), QString::fromStdWString(text) + QStringLiteral(
                                                                   ": nobody signed in before --timeout ran out"));
                         exitCode = Report(out, service, result);
                         QCoreApplication::exit(exitCode);
                     });
    QObject::connect(&service, &CQMMemberWebService::LoginStatus, &service, [&](int status) {
        tick.stop();
        clearSpinner();
        Error(QStringLiteral("the browser sign-in was refused (status %1)").arg(status));
        exitCode = 1;
        QCoreApplication::exit(exitCode);
    });


    service.MemberLogInPollingAsync(guid.toStdWString(), seconds * 1000, 1000, true);
    QCoreApplication::exec();
    // The polling thread ends after the request in flight; a process that will not wait for
    // a slow one leaves without running destructors under that thread's feet.
    QElapsedTimer ending;
    ending.start();
    while (service.IsLoginPollingThreadRunning() && ending.elapsed() < 3000)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
    if (service.IsLoginPollingThreadRunning()) {
        std::fflush(stdout);
        std::fflush(stderr);
        std::_Exit(exitCode);
    }
    return exitCode;
}

int Login(const Arguments& args, bool json)
{
    if (args.Flag(QStringLiteral("--browser"))) {
        if (args.Flag(QStringLiteral("--email")) || args.Flag(QStringLiteral("--password-stdin"))) {
            Error(QStringLiteral("--browser signs in on the web page: it takes no e-mail or password"));
            return 2;
        }
        return LoginInBrowser(args, json);
    }
    if (args.Flag(QStringLiteral("--password"))) {
        Error(QStringLiteral("a password on the command line is visible to other users: use the prompt or --password-stdin"));
        return 2;
    }
    if (!args.Flag(QStringLiteral("--email")) || !args.positional.isEmpty()) {
        Error(QStringLiteral("usage: qmmember login --email E [--password-stdin] [--timeout MS]"));
        return 2;
    }
    int timeout = 30000;
    if (args.Flag(QStringLiteral("--timeout"))
        && !ParseInt(args.Value(QStringLiteral("--timeout")), QStringLiteral("--timeout"), timeout))
        return 2;
    QString password;
    if (!ReadPassword(args.Flag(QStringLiteral("--password-stdin")), password))
        return 2;
    CQMMemberWebService service(args.Value(QStringLiteral("--product-key")).toStdWString(), false, 10000, 0);
    std::wstring credential;
    const int code = service.MemberLogIn(args.Value(QStringLiteral("--email")).toStdWString(),
                                         password.toStdWString(), credential, timeout, true);
    Output out(json);
    if (code == CQMMemberWebService::WS_OK)
        out.Field(QStringLiteral("member_id"), QString::fromStdWString(service.GetMemberIDByToken()));
    return Report(out, service, code);
}

int Profile(const Arguments& args, bool json)
{
    if (!args.positional.isEmpty()) {
        Error(QStringLiteral("usage: qmmember profile [--force]"));
        return 2;
    }
    const bool force = args.Flag(QStringLiteral("--force"));
    CQMMemberWebService service(args.Value(QStringLiteral("--product-key")).toStdWString(), false, 10000, 0);
    const QString file = QStringLiteral("MemberInfo.json");
    const bool fresh = !force && QMCache::Exists(file) && !QMCache::Expired(file);
    if (!fresh && !service.IsMemberLogIn()) {
        // The library answers 2 with an empty record when it has no token to send.
        Error(QStringLiteral("no member is signed in: run qmmember login"));
        return 1;
    }
    bool exchangeFailed = false;
    QObject::connect(&service, QOverload<QString, CQMMemberWebService::EWSResult>::of(&CQMMemberWebService::ErrorNotice),
                     &service, [&exchangeFailed](QString, CQMMemberWebService::EWSResult) { exchangeFailed = true; });
    _CMemberLoginInfo info;
    const int code = service.GetMemberLoginInfo(info, force, true, 30000);
    Output out(json);
    if (code == CQMMemberWebService::WS_OK) {
        out.Field(QStringLiteral("source"), fresh ? QStringLiteral("cache")
                                            : exchangeFailed ? QStringLiteral("cache (the server was unreachable)")
                                                             : QStringLiteral("server"));
        out.Field(QStringLiteral("member_id"), QString::fromStdWString(info.strMemberID));
        out.Field(QStringLiteral("email"), QString::fromStdWString(info.strEmail));
        out.Field(QStringLiteral("nickname"), QString::fromStdWString(info.strNickName));
        out.Field(QStringLiteral("first_name"), QString::fromStdWString(info.strFirstName));
        out.Field(QStringLiteral("last_name"), QString::fromStdWString(info.strLastName));
        out.Field(QStringLiteral("avatar_url"), QString::fromStdWString(info.strAvatarUrl));
        out.Field(QStringLiteral("registration_date"), QString::fromStdWString(info.strRegistrationDate));
        out.Field(QStringLiteral("member_type"), info.nMemberType);
        out.Field(QStringLiteral("class"), info.nClass);
        out.Field(QStringLiteral("cart_quantity"), info.nCartQty);
        out.Field(QStringLiteral("wish_list_quantity"), info.nWishListQty);
    }
    return Report(out, service, code);
}

int Account(const QString& command, const Arguments& args, bool json)
{
    const QStringList& p = args.positional;
    Output out(json);
    if (command == QLatin1String("whoami") && p.isEmpty()) {
        const QString id = QString::fromStdWString(CQMMemberWebService::GetMemberIDByTokenStaicVersion());
        if (id.isEmpty()) {
            Error(QStringLiteral("no member id in the stored token: nobody has signed in here"));
            return 1;
        }
        out.Field(QStringLiteral("member_id"), id);
    } else if (command == QLatin1String("logout") && p.isEmpty()) {
        if (!CQMMemberWebService::MemberLogOut()) {
            Error(QStringLiteral("no member was signed in"));
            return 1;
        }
        out.Field(QStringLiteral("signed_out"), true);
    } else if (command == QLatin1String("token") && p.size() == 2 && p.at(0) == QLatin1String("export")) {
        CQMMemberWebService service(0);
        if (!service.DumpBackupTokenToRegFile(p.at(1).toStdWString())) {
            Error(QStringLiteral("cannot write %1/QMBakToken.reg").arg(p.at(1)));
            return 1;
        }
        out.Field(QStringLiteral("written"), p.at(1) + QLatin1String("/QMBakToken.reg"));
    } else {
        Error(QStringLiteral("usage: qmmember whoami | logout | token export DIR"));
        return 2;
    }
    out.Print();
    return 0;
}

int Lz(const Arguments& args, bool json)
{
    const QStringList& p = args.positional;
    if (p.size() != 2 || p.at(0) != QLatin1String("decode")) {
        Error(QStringLiteral("usage: qmmember lz decode FILE [--json-string]"));
        return 2;
    }
    QFile file(p.at(1));
    if (!file.open(QIODevice::ReadOnly)) {
        Error(QStringLiteral("cannot read %1: %2").arg(p.at(1), file.errorString()));
        return 1;
    }
    const QByteArray bytes = file.readAll();
    QString compressed;
    if (args.Flag(QStringLiteral("--json-string"))) {
        // A JSON string literal, as it stands in a reply's "result".
        const QJsonDocument document = QJsonDocument::fromJson("[" + bytes.trimmed() + "]");
        if (!document.isArray() || !document.array().at(0).isString()) {
            Error(QStringLiteral("%1 does not hold one JSON string").arg(p.at(1)));
            return 1;
        }
        compressed = document.array().at(0).toString();
    } else {
        if (bytes.size() % 2 != 0) {
            Error(QStringLiteral("%1 has an odd number of bytes: not UTF-16LE").arg(p.at(1)));
            return 1;
        }
        compressed.resize(bytes.size() / 2);
        for (int i = 0; i < compressed.size(); ++i)
            compressed[i] = QChar(static_cast<ushort>(uchar(bytes[2 * i]) | uchar(bytes[2 * i + 1]) << 8));
    }
    const QString text = LZString::decompressFromUTF16(compressed);
    if (text.isNull()) {
        Error(QStringLiteral("corrupt stream: a back-reference points outside the dictionary"));
        return 1;
    }
    if (json) {
        Output out(true);
        out.Field(QStringLiteral("text"), text);
        out.Print();
    } else {
        QTextStream out(stdout);
        QMCompat::SetUtf8(out);
        out << text << '\n';
    }
    if (text.isEmpty() && !compressed.isEmpty())
        Error(QStringLiteral("the stream ends before its end marker, or encodes an empty text"));
    return 0;
}

int UrlScheme(const Arguments& args, bool json)
{
    const QStringList& p = args.positional;
    if (p.size() != 2 || (p.at(0) != QLatin1String("encode") && p.at(0) != QLatin1String("decode"))) {
        Error(QStringLiteral("usage: qmmember urlscheme encode TEXT | decode TOKEN"));
        return 2;
    }
    const bool encode = p.at(0) == QLatin1String("encode");
    const QString result =
        encode ? CQMMemberWebService::EncryptUrlScheme(p.at(1)) : CQMMemberWebService::DecryptUrlScheme(p.at(1));
    if (result.isEmpty()) {
        Error(encode ? QStringLiteral("nothing to encode")
                     : QStringLiteral("not a token: it must be uppercase hexadecimal of even length"));
        return 1;
    }
    Output out(json);
    out.Field(encode ? QStringLiteral("token") : QStringLiteral("text"), result);
    out.Print();
    return 0;
}

int Cache(const Arguments& args, bool json)
{
    const QStringList& p = args.positional;
    const QString verb = p.value(0);
    Output out(json);
    if (verb == QLatin1String("path") && p.size() == 1) {
        out.Field(QStringLiteral("path"), CQMMemberWebService::GetCacheFolderPath());
    } else if (verb == QLatin1String("show") && p.size() == 2) {
        if (!QMCache::Exists(p.at(1))) {
            Error(QStringLiteral("no cache file '%1' in %2").arg(p.at(1), CQMMemberWebService::GetCacheFolderPath()));
            return 1;
        }
        out.Field(QStringLiteral("name"), p.at(1));
        out.Field(QStringLiteral("expired"), QMCache::Expired(p.at(1)));
        out.Field(QStringLiteral("content"), QMCache::Content(p.at(1)));
    } else if (verb == QLatin1String("clear") && p.size() == 2) {
        if (!QMCache::Clear(p.at(1))) {
            Error(QStringLiteral("cannot delete '%1'").arg(p.at(1)));
            return 1;
        }
        out.Field(QStringLiteral("cleared"), p.at(1));
    } else {
        Error(QStringLiteral("usage: qmmember cache path | show NAME | clear NAME"));
        return 2;
    }
    out.Print();
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    QStringList args = application.arguments().mid(1);
    const bool json = args.removeAll(QStringLiteral("--json")) > 0;
    // The library's log is for developers; --verbose shows it.
    if (args.removeAll(QStringLiteral("--verbose")) == 0)
        QLoggingCategory::setFilterRules(QStringLiteral("qm.*=false"));
    if (args.isEmpty() || args.first() == QLatin1String("--help") || args.first() == QLatin1String("help")) {
        std::fputs(kUsage, args.isEmpty() ? stderr : stdout);
        return args.isEmpty() ? 2 : 0;
    }
    static QMRegistryTool::CQMRegistryAgent agent;
    CQMMemberWebService::SetRegistryInterface(&agent);

    const QString command = args.takeFirst();
    Arguments parsed;
    if (!Parse(args,
               {QStringLiteral("--product-key"), QStringLiteral("--target"), QStringLiteral("--timeout"),
                QStringLiteral("--email")},
               parsed))
        return 2;
    const std::map<QString, std::function<int()>> commands = {
        {QStringLiteral("info"), [&] { return Info(parsed, json); }},
        {QStringLiteral("store"), [&] { return Store(parsed, json); }},
        {QStringLiteral("get"), [&] { return Request(parsed, json, false); }},
        {QStringLiteral("post"), [&] { return Request(parsed, json, true); }},
        {QStringLiteral("login"), [&] { return Login(parsed, json); }},
        {QStringLiteral("profile"), [&] { return Profile(parsed, json); }},
        {QStringLiteral("whoami"), [&] { return Account(command, parsed, json); }},
        {QStringLiteral("logout"), [&] { return Account(command, parsed, json); }},
        {QStringLiteral("token"), [&] { return Account(command, parsed, json); }},
        {QStringLiteral("lz"), [&] { return Lz(parsed, json); }},
        {QStringLiteral("urlscheme"), [&] { return UrlScheme(parsed, json); }},
        {QStringLiteral("cache"), [&] { return Cache(parsed, json); }},
    };
    auto found = commands.find(command);
    if (found == commands.end()) {
        Error(QStringLiteral("unknown command '%1'").arg(command));
        std::fputs(kUsage, stderr);
        return 2;
    }
    return found->second();
}
