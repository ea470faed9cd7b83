// qmmember doctor: a redacted report a member can paste into a support ticket. It names values
// that matter (hosts, paths, times, certificate names) and never a token, password or secret.
#include "Doctor.h"

#include "QMRegistryAgent.h"

#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QLocale>
#include <QUrl>

#include <curl/curl.h>

#include <cstdio>
#include <cstdlib>

namespace Cli {

namespace {

const wchar_t* const kCompanyKey = L"SOFTWARE\\Quillmarsh";

struct Check {
    QString name;
    QString status; // "ok", "warn" or "fail"
    QString detail;
    QString advice;
};

// What one look at the API host with libcurl saw.
struct Probe {
    CURLcode code = CURLE_OK;
    QString error;
    long http = 0;
    double resolveMs = -1;
    double connectMs = -1;
    QString address;
    QList<QMap<QString, QString>> chain; // per certificate: "Subject", "Issuer", "Expire date", ...
    QString date;                        // the reply's Date header
};

size_t KeepHeader(char* data, size_t size, size_t count, void* target)
{
    const QByteArray line = QByteArray(data, static_cast<int>(size * count)).trimmed();
    if (line.toLower().startsWith("date:"))
        *static_cast<QString*>(target) = QString::fromLatin1(line.mid(5).trimmed());
    return size * count;
}

size_t Discard(char*, size_t size, size_t count, void*)
{
    return size * count;
}

// A bare HEAD / : no token, cookie or credential goes out. \a caFile replaces the system's CAs
// when given; \a verify false only reads an untrusted chain so that the report can name it.
Probe Look(const QString& host, const QString& caFile, bool verify, int timeoutMs)
{
    Probe probe;
    CURL* easy = curl_easy_init();
    if (!easy) {
        probe.code = CURLE_FAILED_INIT;
        return probe;
    }
    char errors[CURL_ERROR_SIZE] = {};
    const QByteArray url = (QStringLiteral("https://") + host + QLatin1Char('/')).toUtf8();
    const QByteArray ca = QFile::encodeName(caFile);
    curl_easy_setopt(easy, CURLOPT_URL, url.constData());
    curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "https");
    curl_easy_setopt(easy, CURLOPT_CERTINFO, 1L);
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, errors);
    curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, static_cast<long>(timeoutMs));
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, verify ? 1L : 0L);
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, verify ? 2L : 0L);
    if (!caFile.isEmpty())
        curl_easy_setopt(easy, CURLOPT_CAINFO, ca.constData());
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &KeepHeader);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, &probe.date);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Discard);
    probe.code = curl_easy_perform(easy);
    probe.error = QString::fromUtf8(errors[0] ? errors : curl_easy_strerror(probe.code));
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &probe.http);
    curl_off_t lookup = 0;
    curl_off_t connect = 0;
    if (curl_easy_getinfo(easy, CURLINFO_NAMELOOKUP_TIME_T, &lookup) == CURLE_OK && lookup > 0)
        probe.resolveMs = lookup / 1000.0;
    if (curl_easy_getinfo(easy, CURLINFO_CONNECT_TIME_T, &connect) == CURLE_OK && connect > 0)
        probe.connectMs = connect / 1000.0; // from the start, the name lookup included
    char* ip = nullptr;
    if (curl_easy_getinfo(easy, CURLINFO_PRIMARY_IP, &ip) == CURLE_OK && ip)
        probe.address = QString::fromLatin1(ip);
    curl_certinfo* certificates = nullptr;
    if (curl_easy_getinfo(easy, CURLINFO_CERTINFO, &certificates) == CURLE_OK && certificates) {
        for (int i = 0; i < certificates->num_of_certs; ++i) {
            QMap<QString, QString> fields;
            for (curl_slist* item = certificates->certinfo[i]; item; item = item->next) {
                const QString line = QString::fromUtf8(item->data);
                const int colon = line.indexOf(QLatin1Char(':'));
                if (colon > 0 && !line.startsWith(QLatin1String("Cert:")))
                    fields.insert(line.left(colon), line.mid(colon + 1).trimmed());
            }
            probe.chain.append(fields);
        }
    }
    curl_easy_cleanup(easy);
    return probe;
}

bool IsCertificateError(CURLcode code)
{
    return code == CURLE_PEER_FAILED_VERIFICATION || code == CURLE_SSL_CACERT_BADFILE
           || code == CURLE_SSL_ISSUER_ERROR;
}

QString Ms(double ms)
{
    return QString::number(ms, 'f', ms < 10 ? 3 : 0) + QLatin1String(" ms");
}

// "user:secret@proxy:3128" is shown as "<credentials>@proxy:3128".
QString RedactedProxy(const QString& value)
{
    QUrl url(value.contains(QLatin1String("://")) ? value : QStringLiteral("http://") + value);
    if (!url.isValid())
        return QStringLiteral("(set, not a valid URL)");
    const bool credentials = !url.userInfo().isEmpty();
    url.setUserInfo(QString());
    QString shown = url.toString();
    if (credentials)
        shown.replace(QLatin1String("://"), QLatin1String("://<credentials>@"));
    return shown;
}

QString Age(const QDateTime& when)
{
    const qint64 seconds = when.secsTo(QDateTime::currentDateTime());
    if (seconds < 120)
        return QStringLiteral("%1 s").arg(seconds);
    if (seconds < 7200)
        return QStringLiteral("%1 min").arg(seconds / 60);
    if (seconds < 172800)
        return QStringLiteral("%1 h").arg(seconds / 3600);
    return QStringLiteral("%1 days").arg(seconds / 86400);
}

Check HostsCheck(CQMMemberWebService& service, const QString& productKey)
{
    const QString api = QString::fromStdWString(service.GetApiHost());
    const QString web = QString::fromStdWString(service.GetWebHost());
    QStringList why;
    if (qEnvironmentVariableIsSet("QM_API_HOST") || qEnvironmentVariableIsSet("QM_WEB_HOST"))
        why << QStringLiteral("environment (QM_API_HOST / QM_WEB_HOST)");
    int target = 0;
    if (service.GetTargetServer(target))
        why << QStringLiteral("\"Target Server\" %1 under %2").arg(target).arg(productKey);
    if (why.isEmpty())
        why << QStringLiteral("compiled default");
    Check check{QStringLiteral("hosts"), QStringLiteral("ok"),
                QStringLiteral("api %1, web %2, from %3").arg(api, web, why.join(QLatin1String(" and "))), QString()};
    if (api.contains(QLatin1String("://")) || api.contains(QLatin1Char('/'))) {
        check.status = QStringLiteral("fail");
        check.advice = QStringLiteral("QM_API_HOST takes a host with an optional :port, without https:// or a path");
    }
    return check;
}

QList<Check> NetworkChecks(const QString& host, int timeoutMs)
{
    QList<Check> checks;
    const QString caFile = qEnvironmentVariable("QM_CA_FILE");
    const Probe system = Look(host, QString(), true, timeoutMs);

    Check resolve{QStringLiteral("resolve"), QStringLiteral("ok"), QString(), QString()};
    if (system.code == CURLE_COULDNT_RESOLVE_HOST) {
        resolve.status = QStringLiteral("fail");
        resolve.detail = system.error;
        resolve.advice = QStringLiteral("check the host name, the DNS and the proxy");
        return checks << resolve;
    }
    resolve.detail = QStringLiteral("%1 resolved%2%3")
                         .arg(host, system.address.isEmpty() ? QString() : QStringLiteral(" to ") + system.address,
                              system.resolveMs >= 0 ? QStringLiteral(" (in %1)").arg(Ms(system.resolveMs)) : QString());
    checks << resolve;

    Check connect{QStringLiteral("connect"), QStringLiteral("ok"), QString(), QString()};
    if (system.code == CURLE_COULDNT_CONNECT || (system.code == CURLE_OPERATION_TIMEDOUT && system.connectMs < 0)) {
        connect.status = QStringLiteral("fail");
        connect.detail = system.error;
        connect.advice = QStringLiteral("nothing answers on %1: is the server running, and the port right? A firewall?")
                             .arg(host);
        return checks << connect;
    }
    connect.detail = QStringLiteral("TCP connected %1 after the start").arg(Ms(qMax(0.0, system.connectMs)));
    if (system.connectMs > 1000) {
        connect.status = QStringLiteral("warn");
        connect.advice = QStringLiteral("a slow network path: requests will be slow too");
    }
    checks << connect;

    // Trusted by the system, else through QM_CA_FILE, else not: then the chain is only read, to name it.
    Probe trusted = system;
    QString through = QStringLiteral("the system's CAs");
    if (IsCertificateError(system.code) && !caFile.isEmpty()) {
        trusted = Look(host, caFile, true, timeoutMs);
        through = QStringLiteral("QM_CA_FILE (%1)").arg(caFile);
    }
    const bool untrusted = IsCertificateError(trusted.code);
    const Probe seen = untrusted ? Look(host, QString(), false, timeoutMs) : trusted;
    Check tls{QStringLiteral("tls"), QStringLiteral("ok"), QString(), QString()};
    QString chain;
    if (!seen.chain.isEmpty()) {
        const QMap<QString, QString>& leaf = seen.chain.first();
        chain = QStringLiteral("subject %1, issuer %2, expires %3")
                    .arg(leaf.value(QStringLiteral("Subject")), leaf.value(QStringLiteral("Issuer")),
                         leaf.value(QStringLiteral("Expire date")));
        // OpenSSL writes "Feb  5 10:00:22 2029 GMT".
        QDateTime expiry = QLocale::c().toDateTime(leaf.value(QStringLiteral("Expire date")).simplified(),
                                                   QStringLiteral("MMM d HH:mm:ss yyyy 'GMT'"));
        expiry.setTimeSpec(Qt::UTC);
        if (expiry.isValid() && expiry < QDateTime::currentDateTimeUtc().addDays(14)) {
            tls.status = QStringLiteral("warn");
            tls.advice = QStringLiteral("the certificate expires within 14 days");
        }
    }
    if (untrusted) {
        tls.status = QStringLiteral("fail");
        tls.detail = QStringLiteral("not trusted (%1); %2").arg(trusted.error, chain);
        tls.advice = caFile.isEmpty()
                         ? QStringLiteral("QM_CA_FILE is not set: for qmmember-server, export the QM_CA_FILE line "
                                          "it prints (qmmember-server --print-env)")
                         : QStringLiteral("QM_CA_FILE (%1) does not trust this server: is it this server's CA?")
                               .arg(caFile);
    } else if (trusted.code != CURLE_OK) {
        tls.status = QStringLiteral("fail");
        tls.detail = trusted.error;
        tls.advice = QStringLiteral("is %1 an HTTPS server?").arg(host);
    } else {
        tls.detail = QStringLiteral("trusted through %1; %2").arg(through, chain);
    }
    checks << tls;

    Check clock{QStringLiteral("clock"), QStringLiteral("ok"), QString(), QString()};
    const QDateTime serverTime = QLocale::c().toDateTime(seen.date, QStringLiteral("ddd, dd MMM yyyy HH:mm:ss 'GMT'"));
    if (!serverTime.isValid()) {
        clock.status = QStringLiteral("warn");
        clock.detail = QStringLiteral("the server sent no Date header");
    } else {
        QDateTime utc = serverTime;
        utc.setTimeSpec(Qt::UTC);
        const qint64 offset = utc.secsTo(QDateTime::currentDateTimeUtc());
        clock.detail = QStringLiteral("this machine is %1 s %2 the server").arg(qAbs(offset)).arg(
            offset >= 0 ? QStringLiteral("ahead of") : QStringLiteral("behind"));
        if (qAbs(offset) > 300) {
            clock.status = QStringLiteral("fail");
            clock.advice = QStringLiteral("set the clock: token times and certificates depend on it");
        } else if (qAbs(offset) > 60) {
            clock.status = QStringLiteral("warn");
            clock.advice = QStringLiteral("the clock drifts: turn on time synchronisation");
        }
    }
    checks << clock;
    return checks;
}

Check ProxyCheck()
{
    QStringList seen;
    for (const char* name : {"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"}) {
        const QString value = qEnvironmentVariable(name);
        if (!value.isEmpty())
            seen << QStringLiteral("%1=%2").arg(QLatin1String(name), RedactedProxy(value));
    }
    const QString noProxy = qEnvironmentVariable("no_proxy", qEnvironmentVariable("NO_PROXY"));
    if (!noProxy.isEmpty())
        seen << QStringLiteral("no_proxy=%1").arg(noProxy);
    QMRegistryTool::CQMRegistryAgent agent;
    std::wstring account;
    if (agent.ReadString(true, L"SOFTWARE\\Quillmarsh\\Network", L"ProxyAccount", account) && !account.empty())
        seen << QStringLiteral("a stored proxy account");
    return {QStringLiteral("proxy"), QStringLiteral("ok"),
            seen.isEmpty() ? QStringLiteral("none") : seen.join(QLatin1String(", ")), QString()};
}

Check StoreCheck()
{
    const QString folder = RealStoreFolder();
    Check check{QStringLiteral("store"), QStringLiteral("ok"), QString(), QString()};
    if (folder.isEmpty()) {
        check.detail = QStringLiteral("the Windows registry");
    } else if (folder != CQMMemberWebService::GetStoreFolderPath()) {
        check.status = QStringLiteral("warn");
        check.detail = QStringLiteral("no store yet in %1").arg(folder);
        check.advice = QStringLiteral("it is made at the first sign-in (qmmember login)");
        return check;
    } else {
        const QFileInfo file(folder + QLatin1String("/HKEY_CURRENT_USER.db"));
        const int mode = (file.permissions() & (QFileDevice::ReadGroup | QFileDevice::WriteGroup | QFileDevice::ReadOther
                                                | QFileDevice::WriteOther));
        check.detail = QStringLiteral("%1, %2").arg(file.filePath(), mode ? QStringLiteral("readable by others")
                                                                          : QStringLiteral("owner only"));
        if (mode) {
            check.status = QStringLiteral("fail");
            check.advice = QStringLiteral("the store holds tokens: chmod 600 %1").arg(file.filePath());
        }
    }
    QMRegistryTool::CQMRegistryAgent agent;
    QStringList present;
    for (const wchar_t* name : {L"QMToken", L"QMReToken", L"QMBakToken"}) {
        std::wstring value;
        if (agent.ReadString(true, kCompanyKey, name, value) && !value.empty())
            present << QString::fromWCharArray(name);
    }
    std::wstring refreshed;
    agent.ReadString(true, kCompanyKey, L"QMLastRefreshTime", refreshed);
    check.detail += QStringLiteral("; tokens present: %1; last refreshed: %2")
                        .arg(present.isEmpty() ? QStringLiteral("none") : present.join(QLatin1String(", ")),
                             refreshed.empty() ? QStringLiteral("never") : QString::fromStdWString(refreshed));
    if (!present.contains(QLatin1String("QMToken")) && check.status == QLatin1String("ok")) {
        check.status = QStringLiteral("warn");
        check.advice = QStringLiteral("nobody is signed in: qmmember login");
    }
    return check;
}

Check CacheCheck()
{
    const QString folder = CQMMemberWebService::GetCacheFolderPath();
    Check check{QStringLiteral("cache"), QStringLiteral("ok"), QString(), QString()};
    const QFileInfo info(folder);
    // A missing folder is made at the first write: its nearest existing parent must be writable.
    QFileInfo writableAt = info;
    while (!writableAt.exists() && writableAt.absoluteFilePath() != writableAt.absolutePath())
        writableAt = QFileInfo(writableAt.absolutePath());
    if (!writableAt.isWritable()) {
        check.status = QStringLiteral("fail");
        check.detail = QStringLiteral("%1 cannot be written").arg(folder);
        check.advice = QStringLiteral("fix the folder's owner or mode");
        return check;
    }
    QStringList files;
    for (const QFileInfo& file : QDir(folder).entryInfoList(QDir::Files, QDir::Name)) {
        // Calendar days, as the library counts them.
        const bool expired = file.lastModified().daysTo(QDateTime::currentDateTime()) >= 1;
        files << QStringLiteral("%1 (%2 old%3)")
                     .arg(file.fileName(), Age(file.lastModified()), expired ? QStringLiteral(", expired") : QString());
    }
    check.detail = QStringLiteral("%1, writable; %2")
                       .arg(folder, files.isEmpty() ? QStringLiteral("no files") : files.join(QLatin1String(", ")));
    return check;
}

Check RequestCheck(const QString& host, int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    const bool answered = CQMMemberWebService::CheckInternetConnection(timeoutMs, true, false);
    const qint64 ms = timer.elapsed();
    Check check{QStringLiteral("request"), QStringLiteral("ok"), QString(), QString()};
    const unsigned int net = CQMMemberWebService::GetLastTransportError();
    const QString text = QString::fromStdWString(CQMMemberWebService::GetLastTransportErrorText());
    if (!answered) {
        check.status = QStringLiteral("fail");
        check.detail = QStringLiteral("the library's request to %1 failed after %2 ms: transport error %3, %4")
                           .arg(host)
                           .arg(ms)
                           .arg(net)
                           .arg(text);
        check.advice = QStringLiteral("see the checks above for the cause");
        return check;
    }
    check.detail = QStringLiteral("the library's request to %1 answered in %2 ms%3")
                       .arg(host)
                       .arg(ms)
                       .arg(net ? QStringLiteral(" (%1)").arg(text) : QString());
    if (ms > 3000) {
        check.status = QStringLiteral("warn");
        check.advice = QStringLiteral("a slow answer: the server or the network path is busy");
    }
    return check;
}

} // namespace

int Doctor(Context& c)
{
    int timeoutMs = 0;
    if (!c.Seconds(QStringLiteral("timeout"), 10, timeoutMs))
        return kExitUsage;
    CQMMemberWebService& service = c.Service();
    const QString host = QString::fromStdWString(service.GetApiHost());
    QList<Check> checks{HostsCheck(service, c.Value(QStringLiteral("product-key")))};
    if (checks.first().status != QLatin1String("fail"))
        checks << NetworkChecks(host, timeoutMs);
    checks << ProxyCheck() << StoreCheck() << CacheCheck();
    if (checks.first().status != QLatin1String("fail"))
        checks << RequestCheck(host, timeoutMs);

    QJsonArray list;
    int failed = 0;
    int warned = 0;
    QString firstFailure;
    for (const Check& check : checks) {
        QJsonObject object{{QStringLiteral("name"), check.name},
                           {QStringLiteral("status"), check.status},
                           {QStringLiteral("detail"), check.detail}};
        if (!check.advice.isEmpty())
            object.insert(QStringLiteral("advice"), check.advice);
        list.append(object);
        if (check.status == QLatin1String("fail") && failed++ == 0)
            firstFailure = QStringLiteral("%1: %2").arg(check.name, check.advice);
        warned += check.status == QLatin1String("warn");
        if (!c.Json()) {
            QString line = QStringLiteral("%1 %2 %3\n").arg(check.status.leftJustified(4), check.name.leftJustified(8),
                                                         check.detail);
            if (!check.advice.isEmpty())
                line += QStringLiteral("              -> %1\n").arg(check.advice);
            std::fputs(line.toUtf8().constData(), stdout);
        }
    }
    if (c.Json())
        c.Out().Field(QStringLiteral("checks"), list);
    c.Out().Field(QStringLiteral("summary"), QStringLiteral("%1 ok, %2 warn, %3 fail")
                                                 .arg(checks.size() - warned - failed)
                                                 .arg(warned)
                                                 .arg(failed));
    if (failed)
        return c.Fail(QStringLiteral("checks_failed"), QStringLiteral("%1 check(s) failed").arg(failed), firstFailure);
    return c.Ok();
}

} // namespace Cli
