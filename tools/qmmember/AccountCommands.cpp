// The account commands: login, logout, whoami, profile, token export.
#include "Cli.h"
#include "Terminal.h"

#include "QMRegistryAgent.h"
#include "../../src/compat/QueuedCall.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QProcess>
#include <QStandardPaths>
#include <QTimer>

#include <cstdio>
#include <cstdlib>

namespace Cli {

namespace {

const wchar_t* const kCompanyKey = L"SOFTWARE\\Quillmarsh";

// A run of polls that could not reach the server after which a browser sign-in gives up.
constexpr int kMaxFailedPolls = 5;

QString StoredValue(const wchar_t* name)
{
    QMRegistryTool::CQMRegistryAgent agent;
    std::wstring value;
    return agent.ReadString(true, kCompanyKey, name, value) ? QString::fromStdWString(value) : QString();
}

// The member id a stored token carries in its payload; not a secret.
QString MemberIdOf(const QString& token)
{
    const QStringList parts = token.split(QLatin1Char('.'));
    if (parts.size() != 3)
        return QString();
    const QByteArray payload =
        QByteArray::fromBase64(parts.at(1).toLatin1(), QByteArray::Base64UrlEncoding | QByteArray::Base64Encoding);
    return QJsonDocument::fromJson(payload).object().value(QLatin1String("memberid")).toString();
}

// The password comes from standard input with --password-stdin, else from the terminal with
// echo turned off; never from the command line.
bool ReadPassword(Context& c, QString& password)
{
    if (c.Has(QStringLiteral("password-stdin"))) {
        password = Terminal::ReadLine();
        return true;
    }
    if (!Terminal::InputIsTerminal()) {
        c.Usage(QStringLiteral("no terminal to read the password from: pipe it in with --password-stdin"));
        return false;
    }
    password = Terminal::ReadHiddenLine("Password: ");
    return true;
}

int LoginWithPassword(Context& c)
{
    int timeoutMs = 0;
    if (!c.Seconds(QStringLiteral("timeout"), 30, timeoutMs))
        return kExitUsage;
    QString password;
    if (!ReadPassword(c, password))
        return kExitUsage;
    if (password.isEmpty())
        return c.Usage(QStringLiteral("the password is empty: nothing was sent"));
    CQMMemberWebService& service = c.Service();
    std::wstring credential;
    const int result =
        service.MemberLogIn(c.Value(QStringLiteral("email")).toStdWString(), password.toStdWString(), credential,
                            timeoutMs, true);
    if (result == CQMMemberWebService::WS_OK)
        c.Out().Field(QStringLiteral("member_id"), QString::fromStdWString(service.GetMemberIDByToken()));
    return c.Done(result);
}

// Browser sign-in: the library polls for the code bound to a fresh GUID while the member signs
// in on the page; a spinner on a terminal shows the time waited.
int LoginInBrowser(Context& c)
{
    int timeoutMs = 0;
    if (!c.Seconds(QStringLiteral("timeout"), 300, timeoutMs))
        return kExitUsage;
    CQMMemberWebService& service = c.Service();
    const QString guid = CQMMemberWebService::GenerateApiRequestID();
    const QString url =
        QStringLiteral("https://%1/signin?GUID=%2").arg(QString::fromStdWString(service.GetWebHost()), guid);
    int exitCode = kExitFailed;
    QTimer tick;
    const bool spinner = !c.Json() && Terminal::ErrorIsTerminal();
    auto clearSpinner = [spinner] {
        if (spinner)
            std::fputs("\r\033[K", stderr);
    };
    // Ctrl-C stops the polling through the library; the handler is in place before the address shows.
    bool decided = false; // the outcome is settled: later notices change nothing
    const bool interruptible = Terminal::OnInterrupt(&service, [&] {
        decided = true;
        tick.stop();
        clearSpinner();
        service.OnMemberLogInStop();
        c.Fail(QStringLiteral("interrupted"), QStringLiteral("stopped: no sign-in"));
        exitCode = kExitInterrupted;
        QCoreApplication::exit(exitCode);
    });
    if (!interruptible)
        return c.Fail(QStringLiteral("failed"), QStringLiteral("cannot prepare for Ctrl-C"));
    c.Event({{QStringLiteral("event"), QStringLiteral("url")}, {QStringLiteral("url"), url}}, QString());
    if (!c.Json()) {
        std::fprintf(stdout, "Sign in at: %s\n", url.toUtf8().constData());
        std::fflush(stdout);
    }
    if ((qEnvironmentVariableIsSet("DISPLAY") || qEnvironmentVariableIsSet("WAYLAND_DISPLAY"))
        && !QStandardPaths::findExecutable(QStringLiteral("xdg-open")).isEmpty())
        QProcess::startDetached(QStringLiteral("xdg-open"), {url});

    QElapsedTimer waited;
    waited.start();
    QString trouble; // why the last polls failed, shown on the progress line
    QElapsedTimer sinceTrouble;
    QObject::connect(&tick, &QTimer::timeout, &tick, [&waited, &trouble, &sinceTrouble] {
        static const char* const frames[] = {"|", "/", "-", "\\"};
        static int frame = 0;
        const QString line = QStringLiteral("\r\033[K%1 waiting for the sign-in in the browser... %2s%3 (Ctrl-C stops)")
                                 .arg(QLatin1String(frames[frame++ % 4]))
                                 .arg(waited.elapsed() / 1000)
                                 .arg(trouble.isEmpty() ? QString()
                                                        : QStringLiteral(" - %1, %2s ago")
                                                              .arg(trouble)
                                                              .arg(sinceTrouble.elapsed() / 1000));
        std::fputs(line.toUtf8().constData(), stderr);
        std::fflush(stderr);
    });
    if (spinner)
        tick.start(100);

    // Polls that cannot reach the server show on the progress line; a run of them ends the wait.
    auto pollFailed = [&](unsigned int netError, const QString& text, int failuresInRow) {
        if (decided)
            return;
        const Failure failure = c.ServiceFailure(CQMMemberWebService::WS_CONNECTION_FAILED, netError, text);
        sinceTrouble.start();
        trouble = QStringLiteral("%1 poll(s) in a row failed: %2")
                      .arg(failuresInRow)
                      .arg(failure.words.isEmpty() ? text : failure.words);
        c.Event({{QStringLiteral("event"), QStringLiteral("poll_failed")},
                 {QStringLiteral("cause"), failure.cause},
                 {QStringLiteral("net_error"), static_cast<qint64>(netError)},
                 {QStringLiteral("detail"), text},
                 {QStringLiteral("failures_in_row"), failuresInRow}},
                spinner ? QString() : QStringLiteral("qmmember login: ") + trouble);
        if (failuresInRow < kMaxFailedPolls)
            return;
        decided = true;
        tick.stop();
        clearSpinner();
        service.OnMemberLogInStop();
        Failure last = failure;
        last.hint = QStringLiteral("gave up after %1 polls in a row could not reach the server; %2")
                        .arg(failuresInRow)
                        .arg(failure.hint);
        exitCode = c.Fail(last);
        QCoreApplication::exit(exitCode);
    };
    // Called on the polling thread: handled in this one.
    service.SetLoginPollFailedCallback([&service, pollFailed](unsigned int netError, const std::wstring& text,
                                                              int failuresInRow) {
        const QString words = QString::fromStdWString(text);
        QMetaObject::invokeMethod(
            &service, QMCompat::Queued([=] { pollFailed(netError, words, failuresInRow); }), Qt::QueuedConnection);
    });

    QObject::connect(&service, &CQMMemberWebService::LoginResult, &service,
                     [&](CQMMemberWebService::EWSResult result, const std::wstring&) {
                         if (decided)
                             return;
                         decided = true;
                         tick.stop();
                         clearSpinner();
                         if (result == CQMMemberWebService::WS_OK) {
                             c.Out().Field(QStringLiteral("member_id"),
                                           QString::fromStdWString(service.GetMemberIDByToken()));
                             exitCode = c.Done(result);
                         } else if (result == CQMMemberWebService::WS_CONNECTION_TIMEOUT) {
                             Failure failure = c.ServiceFailure(result);
                             failure.cause = QStringLiteral("timed_out");
                             failure.words = QStringLiteral("nobody signed in in time");
                             failure.hint = QStringLiteral("nobody signed in within --timeout (%1 s)")
                                                .arg(c.SecondsUsed());
                             exitCode = c.Fail(failure);
                         } else {
                             exitCode = c.Done(result);
                         }
                         QCoreApplication::exit(exitCode);
                     });
    QObject::connect(&service, &CQMMemberWebService::LoginStatus, &service, [&](int status) {
        if (decided)
            return;
        decided = true;
        tick.stop();
        clearSpinner();
        exitCode = c.Fail(QStringLiteral("sign_in_refused"),
                          QStringLiteral("the browser sign-in was refused (status %1)").arg(status));
        QCoreApplication::exit(exitCode);
    });

    service.MemberLogInPollingAsync(guid.toStdWString(), timeoutMs, 1000, true);
    QCoreApplication::exec();
    // The polling thread ends after the request in flight; a process that will not wait for a
    // slow one leaves without running destructors under that thread's feet.
    QElapsedTimer ending;
    ending.start();
    while (service.IsLoginPollingThreadRunning() && ending.elapsed() < 3000)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
    if (service.IsLoginPollingThreadRunning()) {
        c.Print(exitCode);
        std::_Exit(exitCode);
    }
    return exitCode;
}

int Login(Context& c)
{
    if (c.Has(QStringLiteral("password")))
        return c.Usage(QStringLiteral("a password on the command line is visible to other users: use the prompt or "
                                      "--password-stdin"));
    const bool browser = c.Has(QStringLiteral("browser"));
    const bool email = c.Has(QStringLiteral("email"));
    if (browser && (email || c.Has(QStringLiteral("password-stdin"))))
        return c.Usage(QStringLiteral("--browser signs in on the web page: it takes no e-mail or password"));
    if (browser)
        return LoginInBrowser(c);
    if (!email)
        return c.Usage(QStringLiteral("say how to sign in: --email E, or --browser"));
    return LoginWithPassword(c);
}

int Logout(Context& c)
{
    if (!CQMMemberWebService::MemberLogOut())
        return c.Fail(QStringLiteral("not_signed_in"), QStringLiteral("no member was signed in"));
    c.Out().Field(QStringLiteral("signed_out"), true);
    return c.Ok();
}

int WhoAmI(Context& c)
{
    const bool signedIn = CQMMemberWebService::IsMemberLogIn(std::wstring());
    const QString member = signedIn ? MemberIdOf(StoredValue(L"QMToken")) : QString();
    const QString backup = MemberIdOf(StoredValue(L"QMBakToken"));
    c.Out().Field(QStringLiteral("signed_in"), signedIn);
    c.Out().Field(QStringLiteral("member_id"), member.isEmpty() ? QJsonValue() : QJsonValue(member));
    c.Out().Field(QStringLiteral("backup_member_id"), backup.isEmpty() ? QJsonValue() : QJsonValue(backup));
    if (!signedIn)
        return c.Fail(QStringLiteral("not_signed_in"), QStringLiteral("nobody is signed in"),
                      backup.isEmpty() ? QStringLiteral("run qmmember login")
                                       : QStringLiteral("the backup token holds member %1; run qmmember login")
                                             .arg(backup));
    return c.Ok();
}

// Where the profile came from, told apart by whether the library rewrote the cache file.
QByteArray CacheStamp(const QString& file)
{
    const QFileInfo info(CQMMemberWebService::GetCacheFolderPath() + QLatin1Char('/') + file);
    if (!info.exists())
        return QByteArray();
    return QByteArray::number(info.lastModified().toMSecsSinceEpoch()) + ':' + QByteArray::number(info.size()) + ':'
           + QByteArray::number(info.metadataChangeTime().toMSecsSinceEpoch());
}

int Profile(Context& c)
{
    int timeoutMs = 0;
    if (!c.Seconds(QStringLiteral("timeout"), 30, timeoutMs))
        return kExitUsage;
    const bool force = c.Has(QStringLiteral("force"));
    CQMMemberWebService& service = c.Service();
    const QString file = QStringLiteral("MemberInfo.json");
    QString cached;
    bool expired = true;
    const bool fresh = !force && CQMMemberWebService::ReadCacheFile(file, cached, expired) && !expired;
    if (!fresh && !service.IsMemberLogIn())
        // The library answers 2 with an empty record when it has no token to send.
        return c.Fail(QStringLiteral("not_signed_in"), QStringLiteral("no member is signed in"),
                      QStringLiteral("run qmmember login"));
    bool exchangeFailed = false;
    QObject::connect(&service, QOverload<QString, CQMMemberWebService::EWSResult>::of(&CQMMemberWebService::ErrorNotice),
                     &service, [&exchangeFailed](QString, CQMMemberWebService::EWSResult) { exchangeFailed = true; });
    const QByteArray before = CacheStamp(file);
    _CMemberLoginInfo info;
    const int result = service.GetMemberLoginInfo(info, force, true, static_cast<unsigned int>(timeoutMs));
    if (result == CQMMemberWebService::WS_OK) {
        const bool rewritten = CacheStamp(file) != before;
        c.Out().Field(QStringLiteral("source"), rewritten        ? QStringLiteral("server")
                                                : exchangeFailed ? QStringLiteral("cache (the server was unreachable)")
                                                                 : QStringLiteral("cache"));
        c.Out().Field(QStringLiteral("member_id"), QString::fromStdWString(info.strMemberID));
        c.Out().Field(QStringLiteral("email"), QString::fromStdWString(info.strEmail));
        c.Out().Field(QStringLiteral("nickname"), QString::fromStdWString(info.strNickName));
        c.Out().Field(QStringLiteral("first_name"), QString::fromStdWString(info.strFirstName));
        c.Out().Field(QStringLiteral("last_name"), QString::fromStdWString(info.strLastName));
        c.Out().Field(QStringLiteral("avatar_url"), QString::fromStdWString(info.strAvatarUrl));
        c.Out().Field(QStringLiteral("registration_date"), QString::fromStdWString(info.strRegistrationDate));
        c.Out().Field(QStringLiteral("member_type"), info.nMemberType);
        c.Out().Field(QStringLiteral("class"), info.nClass);
        c.Out().Field(QStringLiteral("cart_quantity"), info.nCartQty);
        c.Out().Field(QStringLiteral("wish_list_quantity"), info.nWishListQty);
    }
    return c.Done(result);
}

int TokenExport(Context& c)
{
    const QString folder = c.Arg(0);
    const QString path = QDir(folder).filePath(QStringLiteral("QMBakToken.reg"));
    if (!QFileInfo(folder).isDir())
        return c.Fail(QStringLiteral("input"), QStringLiteral("%1 is not a folder").arg(folder));
    const bool existed = QFileInfo::exists(path);
    if (existed && !c.Has(QStringLiteral("force")))
        return c.Fail(QStringLiteral("exists"), QStringLiteral("%1 exists already").arg(path),
                      QStringLiteral("--force overwrites it"));
    // The file carries a token: it is made for the owner only, from its first byte.
    if (existed && !QFile::remove(path))
        return c.Fail(QStringLiteral("input"), QStringLiteral("cannot replace %1").arg(path));
    Terminal::RestrictNewFiles();
    CQMMemberWebService service(0);
    if (!service.DumpBackupTokenToRegFile(folder.toStdWString()))
        return c.Fail(QStringLiteral("input"), QStringLiteral("cannot write %1").arg(path));
    QFile::setPermissions(path, QFileDevice::ReadOwner | QFileDevice::WriteOwner);
    const bool empty = StoredValue(L"QMBakToken").isEmpty();
    c.Out().Field(QStringLiteral("written"), path);
    c.Out().Field(QStringLiteral("empty"), empty);
    if (empty)
        PrintError(QStringLiteral("the store holds no backup token: %1 sets an empty value").arg(path));
    return c.Ok();
}

} // namespace

QList<Command> AccountCommands()
{
    QCommandLineOption password(QStringLiteral("password"), QStringLiteral("refused: use the prompt"),
                                QStringLiteral("P"));
    password.setFlags(QCommandLineOption::HiddenFromHelp);
    Command login;
    login.name = QStringLiteral("login");
    login.synopsis = QStringLiteral("--email E [--password-stdin] [--timeout SECONDS] [--product-key KEY]\n"
                                    "--browser [--timeout SECONDS] [--product-key KEY]");
    login.summary = QStringLiteral("sign in with e-mail and password, or on the web page in a browser");
    login.help = QStringLiteral(
        "With --email the password is read without echo from the terminal, or from standard input with\n"
        "--password-stdin; never from the command line. An empty password is refused.\n"
        "With --browser the sign-in page's address is printed (and opened where a desktop exists), and\n"
        "qmmember waits until the member signs in there, --timeout runs out (default 300 s), Ctrl-C\n"
        "stops it, or several polls in a row cannot reach the server. With --json the browser sign-in\n"
        "prints events, one JSON object per line: {\"event\":\"url\"}, {\"event\":\"poll_failed\"}, and last\n"
        "{\"event\":\"result\"} with \"result\" and \"text\".");
    login.options = {QCommandLineOption(QStringLiteral("email"), QStringLiteral("the member's e-mail address"),
                                        QStringLiteral("E")),
                     QCommandLineOption(QStringLiteral("password-stdin"),
                                        QStringLiteral("read the password from standard input")),
                     QCommandLineOption(QStringLiteral("browser"), QStringLiteral("sign in on the web page")),
                     TimeoutOption(30),
                     ProductKeyOption(),
                     password};
    login.options[3].setDescription(
        QStringLiteral("time limit in seconds, decimals allowed (default 30, with --browser 300)"));
    login.run = Login;
    login.store = StoreUse::Write;
    login.streams = true;

    Command logout;
    logout.name = QStringLiteral("logout");
    logout.summary = QStringLiteral("sign out: the tokens go, the backup token stays");
    logout.run = Logout;
    logout.store = StoreUse::Write;

    Command whoami;
    whoami.name = QStringLiteral("whoami");
    whoami.summary = QStringLiteral("whether a member is signed in, and whose id the backup token holds");
    whoami.help = QStringLiteral("Exits 1 when nobody is signed in; the backup token's member id is shown either way.");
    whoami.run = WhoAmI;

    Command profile;
    profile.name = QStringLiteral("profile");
    profile.synopsis = QStringLiteral("[--force] [--timeout SECONDS] [--product-key KEY]");
    profile.summary = QStringLiteral("the member's profile, and whether it came from the server or the cache");
    profile.options = {QCommandLineOption(QStringLiteral("force"), QStringLiteral("ask the server, not the cache")),
                       TimeoutOption(30), ProductKeyOption()};
    profile.run = Profile;
    profile.store = StoreUse::Write;

    Command token;
    token.name = QStringLiteral("token export");
    token.synopsis = QStringLiteral("FOLDER [--force]");
    token.summary = QStringLiteral("write FOLDER/QMBakToken.reg (mode 0600) for the registry editor");
    token.help = QStringLiteral("The file carries the backup token. An existing file is kept unless --force is given.");
    token.options = {QCommandLineOption(QStringLiteral("force"), QStringLiteral("overwrite an existing file"))};
    token.run = TokenExport;
    token.minArgs = token.maxArgs = 1;

    return {login, logout, whoami, profile, token};
}

} // namespace Cli
