// The launcher service area of qmmember-server: the product catalogue and the member's
// licences, the member redirect and its landing pages, language packs, plug-ins, and the
// end-user agreements with their versions and the members' consent.
#include "MemberServer.h"

#include "LZStringEncoder.h"

#include <QCryptographicHash>
#include <QDate>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRandomGenerator>
#include <QUrl>

#include <map>
#include <mutex>
#include <set>

using httplib::Request;
using httplib::Response;

namespace {

// Statuses of "result"."status".
constexpr int kOk = 2;
constexpr int kParam = 4;
constexpr int kNotDue = 5;
constexpr int kExpired = 6;
constexpr int kUnknownToken = 13;

const char* const kSessionCookie = "qm_member_session";

QString Text(const std::string& utf8)
{
    return QString::fromUtf8(utf8.data(), static_cast<int>(utf8.size()));
}

struct Sql {
    Sql(sqlite3* db, const char* sql) { sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr); }
    ~Sql() { sqlite3_finalize(stmt); }
    Sql(const Sql&) = delete;
    Sql& operator=(const Sql&) = delete;
    Sql& Bind(int index, const QString& value)
    {
        const QByteArray utf8 = value.toUtf8();
        sqlite3_bind_text(stmt, index, utf8.constData(), utf8.size(), SQLITE_TRANSIENT);
        return *this;
    }
    Sql& Bind(int index, qint64 value)
    {
        sqlite3_bind_int64(stmt, index, value);
        return *this;
    }
    bool Row() { return stmt && sqlite3_step(stmt) == SQLITE_ROW; }
    bool Done() { return stmt && sqlite3_step(stmt) == SQLITE_DONE; }
    QString Str(int column) const
    {
        const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt, column));
        return QString::fromUtf8(text ? text : "");
    }
    qint64 Int(int column) const { return sqlite3_column_int64(stmt, column); }
    sqlite3_stmt* stmt = nullptr;
};

const char* const kSchema =
    "CREATE TABLE IF NOT EXISTS launcher_products(product_id TEXT PRIMARY KEY, name TEXT NOT NULL,"
    " release_build TEXT NOT NULL, prerelease_build TEXT NOT NULL DEFAULT '');"
    "CREATE TABLE IF NOT EXISTS launcher_licences(member_id TEXT NOT NULL, product_id TEXT NOT NULL,"
    " kind TEXT NOT NULL, ends TEXT NOT NULL DEFAULT '', PRIMARY KEY(member_id, product_id));"
    "CREATE TABLE IF NOT EXISTS launcher_language_packs(product_id TEXT NOT NULL, language INTEGER NOT NULL,"
    " size INTEGER NOT NULL, PRIMARY KEY(product_id, language));"
    "CREATE TABLE IF NOT EXISTS launcher_plugins(plugin_id TEXT NOT NULL, ap_product_id TEXT NOT NULL,"
    " latest_version TEXT NOT NULL, min_ap_version INTEGER NOT NULL, max_ap_version INTEGER NOT NULL,"
    " PRIMARY KEY(plugin_id, ap_product_id));"
    "CREATE TABLE IF NOT EXISTS launcher_agreements(agreement TEXT PRIMARY KEY, version INTEGER NOT NULL);"
    "CREATE TABLE IF NOT EXISTS launcher_consents(member_id TEXT NOT NULL, agreement TEXT NOT NULL,"
    " version INTEGER NOT NULL, PRIMARY KEY(member_id, agreement));"
    "INSERT OR IGNORE INTO launcher_agreements VALUES('general', 1), ('application', 1);";

struct Licence {
    QString kind; // perpetual, subscription, trial; empty when none
    QString ends; // yyyy-MM-dd, empty for perpetual
    bool Active() const
    {
        if (kind.isEmpty())
            return false;
        return ends.isEmpty() || QDate::fromString(ends, Qt::ISODate) >= QDate::currentDate();
    }
    bool Full() const { return kind == QLatin1String("perpetual") || kind == QLatin1String("subscription"); }
};

struct Product {
    QString id;
    QString name;
    QString release;
    QString prerelease;
};

// Builds compare part by part as numbers: 8.10 is newer than 8.9.
bool Newer(const QString& candidate, const QString& installed)
{
    const QStringList a = candidate.split(QLatin1Char('.'));
    const QStringList b = installed.split(QLatin1Char('.'));
    for (int i = 0; i < qMax(a.size(), b.size()); ++i) {
        const qlonglong x = i < a.size() ? a.at(i).toLongLong() : 0;
        const qlonglong y = i < b.size() ? b.at(i).toLongLong() : 0;
        if (x != y)
            return x > y;
    }
    return false;
}

QString LanguageName(int language)
{
    switch (language) {
    case 1:
        return QStringLiteral("English");
    case 2:
        return QStringLiteral("Traditional Chinese");
    case 4:
        return QStringLiteral("Japanese");
    case 8:
        return QStringLiteral("German");
    default:
        return QStringLiteral("Language %1").arg(language);
    }
}

// The bytes of a language pack: made up, but the same every time, so that its SHA-256 holds.
QByteArray PackBytes(const QString& productId, int language, int size)
{
    const QByteArray seed = QStringLiteral("%1:%2|").arg(productId).arg(language).toUtf8();
    QByteArray bytes;
    bytes.reserve(size);
    while (bytes.size() < size)
        bytes += seed;
    bytes.truncate(size);
    return bytes;
}

// The agreement texts as published on the web host, by path.
struct AgreementFile {
    const char* path;
    const char* agreement;
    const char* title;
    const char* versionLabel;
    const char* body;
};

const AgreementFile kAgreementFiles[] = {
    {"/content/EULA/EULA.txt", "general", "Quillmarsh General Terms of Use", "Version",
     "These terms govern the use of the Quillmarsh member services and web sites."},
    {"/Content/EULA/AP/EULA_AP.txt", "application", "Quillmarsh Application End-User Licence Agreement", "Version",
     "This agreement governs the use of Quillmarsh applications installed through the launcher."},
    {"/Content/EULA/AP/EULA_TWAP.txt", "application",
     "Quillmarsh \xe6\x87\x89\xe7\x94\xa8\xe7\xa8\x8b\xe5\xbc\x8f\xe7\xb5\x82\xe7\xab\xaf\xe4\xbd\xbf\xe7\x94\xa8"
     "\xe8\x80\x85\xe6\x8e\x88\xe6\xac\x8a\xe5\x90\x88\xe7\xb4\x84",
     "\xe7\x89\x88\xe6\x9c\xac",
     "\xe6\x9c\xac\xe5\x90\x88\xe7\xb4\x84\xe8\xa6\x8f\xe7\xaf\x84 Quillmarsh \xe6\x87\x89\xe7\x94\xa8\xe7\xa8\x8b"
     "\xe5\xbc\x8f\xe4\xb9\x8b\xe4\xbd\xbf\xe7\x94\xa8\xe3\x80\x82"},
    {"/Content/EULA/AP/EULA_JPAP.txt", "application",
     "Quillmarsh \xe3\x82\xa2\xe3\x83\x97\xe3\x83\xaa\xe3\x82\xb1\xe3\x83\xbc\xe3\x82\xb7\xe3\x83\xa7\xe3\x83\xb3"
     "\xe4\xbd\xbf\xe7\x94\xa8\xe8\xa8\xb1\xe8\xab\xbe\xe5\xa5\x91\xe7\xb4\x84\xe6\x9b\xb8",
     "\xe3\x83\x90\xe3\x83\xbc\xe3\x82\xb8\xe3\x83\xa7\xe3\x83\xb3",
     "\xe6\x9c\xac\xe5\xa5\x91\xe7\xb4\x84\xe3\x81\xaf Quillmarsh \xe3\x82\xa2\xe3\x83\x97\xe3\x83\xaa\xe3\x82\xb1"
     "\xe3\x83\xbc\xe3\x82\xb7\xe3\x83\xa7\xe3\x83\xb3\xe3\x81\xae\xe4\xbd\xbf\xe7\x94\xa8\xe3\x82\x92\xe5\xae\x9a"
     "\xe3\x82\x81\xe3\x81\xbe\xe3\x81\x99\xe3\x80\x82"},
    {"/Content/EULA/AP/EULA_DEAP.txt", "application", "Quillmarsh Endbenutzer-Lizenzvertrag f\xc3\xbcr Anwendungen",
     "Version", "Dieser Vertrag regelt die Nutzung der Quillmarsh-Anwendungen."},
};

// The agreement behind an EULARenew/EULAConsent number; empty for an unknown one.
QString AgreementOf(const std::string& number)
{
    if (number == "0")
        return QStringLiteral("general");
    if (number == "4" || number == "7" || number == "8" || number == "9")
        return QStringLiteral("application");
    return QString();
}

QString LandingPage(const QString& title, const QString& body)
{
    return QStringLiteral("<!DOCTYPE html><html lang=\"en\"><head><meta charset=\"utf-8\">"
                          "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">"
                          "<title>%1 - Quillmarsh</title><style>body{font-family:system-ui,sans-serif;margin:2rem;"
                          "color:#111827}main{max-width:40rem}</style></head><body><main>%2</main></body></html>")
        .arg(title.toHtmlEscaped(), body);
}

class LauncherArea : public ServiceArea
{
public:
    explicit LauncherArea(MemberServer& server)
        : m_server(server)
    {
    }

    bool Open(std::string& error) override
    {
        return m_server.State().WithDatabase([&](sqlite3* db) {
            char* message = nullptr;
            if (sqlite3_exec(db, kSchema, nullptr, nullptr, &message) == SQLITE_OK)
                return true;
            error = std::string("launcher tables: ") + (message ? message : "?");
            sqlite3_free(message);
            return false;
        });
    }

    bool Seed(const std::string& seed, std::string& error) override
    {
        if (seed != "demo")
            return false;
        ServerState::Member demo;
        if (!m_server.State().FindMember(QStringLiteral("demo@quillmarsh.test"), demo)) {
            error = "the demo member is missing";
            return false;
        }
        const QDate today = QDate::currentDate();
        auto day = [&](int offset) { return today.addDays(offset).toString(Qt::ISODate); };
        struct Row {
            const char* id;
            const char* name;
            const char* release;
            const char* prerelease;
            const char* kind;
            QString ends;
        };
        const Row rows[] = {
            {"Pro", "Demo Studio Pro", "8.2.0300.1", "8.3.0010.1", "perpetual", QString()},
            {"Ultra", "Demo Studio Ultra", "8.2.0300.1", "", "perpetual", QString()},
            {"PhotoDesk", "PhotoDesk", "5.0.1000.1", "5.1.0020.1", "subscription", day(365)},
            {"AudioDesk", "AudioDesk", "3.1.0200.1", "", "subscription", day(-10)},
            {"ColorLab", "ColorLab", "2.0.0500.1", "", "trial", day(14)},
            {"MotionLab", "MotionLab", "1.4.0100.1", "", "trial", day(-3)},
            {"Director", "Director Suite", "22.0.1000.1", "", "", QString()},
            {"Writer", "Writer", "4.0.0100.1", "4.1.0001.1", "", QString()},
        };
        return m_server.State().WithDatabase([&](sqlite3* db) {
            for (const Row& row : rows) {
                Sql(db, "INSERT OR REPLACE INTO launcher_products VALUES(?1, ?2, ?3, ?4)")
                    .Bind(1, QString::fromLatin1(row.id))
                    .Bind(2, QString::fromLatin1(row.name))
                    .Bind(3, QString::fromLatin1(row.release))
                    .Bind(4, QString::fromLatin1(row.prerelease))
                    .Done();
                if (*row.kind)
                    Sql(db, "INSERT OR REPLACE INTO launcher_licences VALUES(?1, ?2, ?3, ?4)")
                        .Bind(1, demo.id)
                        .Bind(2, QString::fromLatin1(row.id))
                        .Bind(3, QString::fromLatin1(row.kind))
                        .Bind(4, row.ends)
                        .Done();
            }
            for (const char* id : {"Pro", "Ultra", "PhotoDesk"}) {
                for (int language : {1, 2, 4, 8})
                    Sql(db, "INSERT OR REPLACE INTO launcher_language_packs VALUES(?1, ?2, ?3)")
                        .Bind(1, QString::fromLatin1(id))
                        .Bind(2, language)
                        .Bind(3, 4096 + 1024 * language)
                        .Done();
            }
            Sql(db, "INSERT OR REPLACE INTO launcher_plugins VALUES('QMFX', 'Pro', '3.2.0', 800, 899)").Done();
            Sql(db, "INSERT OR REPLACE INTO launcher_plugins VALUES('QMTitler', 'Pro', '1.5.0', 700, 799)").Done();
            return true;
        });
    }

    void AddRoutes(httplib::Server& http, bool admin) override
    {
        http.Post("/MemberAPI/v1/Launcher/MyProduct",
                  [this](const Request& request, Response& response) { MyProduct(request, response); });
        http.Get("/MemberAPI/v1/Launcher/MemberRedirect",
                 [this](const Request& request, Response& response) { Redirect(request, response); });
        http.Get(R"(/member/.*)", [this](const Request& request, Response& response) { Landing(request, response); });
        http.Get("/MemberAPI/v1/Launcher/LanguagePack",
                 [this](const Request& request, Response& response) { LanguagePack(request, response); });
        http.Get(R"(/downloads/langpacks/([^/]+)/\1_(\d+)\.qmlp)",
                 [this](const Request& request, Response& response) { PackDownload(request, response); });
        http.Get("/MemberAPI/v1/PluginInfo",
                 [this](const Request& request, Response& response) { PluginInfo(request, response); });
        for (const AgreementFile& file : kAgreementFiles) {
            http.Get(file.path, [this, &file](const Request&, Response& response) {
                const int version = AgreementVersion(QString::fromLatin1(file.agreement));
                const QString text = QStringLiteral("%1\n%2: %3\n\n%4\n")
                                         .arg(QString::fromUtf8(file.title), QString::fromUtf8(file.versionLabel))
                                         .arg(version)
                                         .arg(QString::fromUtf8(file.body));
                response.set_content(text.toStdString(), "text/plain; charset=utf-8");
            });
        }
        auto renew = [this](const Request& request, Response& response) { Renew(request, response); };
        auto consent = [this](const Request& request, Response& response) { Consent(request, response); };
        http.Get(R"(/ContentManager/v1/User/EULARenew/(-?\d+))", renew);
        http.Get(R"(/ContentManager/v1/User/EULAConsent/(-?\d+))", consent);
        http.Post(R"(/ContentManager/v1/User/EULAConsent/(-?\d+))", consent);
        if (admin) {
            // Publishes a new version of an agreement: {"type": N}; the renewal is then due again.
            http.Post("/admin/eula", [this](const Request& request, Response& response) {
                const QJsonObject body = QJsonDocument::fromJson(QByteArray::fromStdString(request.body)).object();
                const QString agreement = AgreementOf(std::to_string(body.value(QStringLiteral("type")).toInt(-1)));
                if (agreement.isEmpty())
                    return m_server.SendJson(response, {{QStringLiteral("error"), QStringLiteral("type 0, 4, 7, 8 or 9")}},
                                             400);
                const int version = m_server.State().WithDatabase([&](sqlite3* db) {
                    Sql(db, "UPDATE launcher_agreements SET version = version + 1 WHERE agreement = ?1")
                        .Bind(1, agreement)
                        .Done();
                    return CurrentVersion(db, agreement);
                });
                m_server.SendJson(response, {{QStringLiteral("agreement"), agreement},
                                             {QStringLiteral("version"), version}});
            });
        }
    }

private:
    // The member of the request's token, or the status that refuses it.
    int Member(const Request& request, QString& memberId)
    {
        switch (m_server.CheckToken(request, memberId)) {
        case ServerState::TokenState::Valid:
            return kOk;
        case ServerState::TokenState::Expired:
            return kExpired;
        default:
            return kUnknownToken;
        }
    }

    bool FindProduct(sqlite3* db, const QString& id, Product& product)
    {
        Sql find(db, "SELECT product_id, name, release_build, prerelease_build FROM launcher_products"
                     " WHERE product_id = ?1");
        if (!find.Bind(1, id).Row())
            return false;
        product = {find.Str(0), find.Str(1), find.Str(2), find.Str(3)};
        return true;
    }

    std::map<QString, Licence> Licences(sqlite3* db, const QString& memberId)
    {
        std::map<QString, Licence> licences;
        Sql list(db, "SELECT product_id, kind, ends FROM launcher_licences WHERE member_id = ?1");
        list.Bind(1, memberId);
        while (list.Row())
            licences[list.Str(0)] = Licence{list.Str(1), list.Str(2)};
        return licences;
    }

    // One product as the launcher sees it: the catalogue entry and the member's licence.
    QJsonObject ProductEntry(sqlite3* db, const QString& id, const Licence& licence, bool inHouse)
    {
        QJsonObject entry{{QStringLiteral("ProductID"), id},
                          {QStringLiteral("Owned"), licence.Active()},
                          {QStringLiteral("Licence"), licence.kind.isEmpty() ? QStringLiteral("none") : licence.kind},
                          {QStringLiteral("LicenceEnd"), licence.ends}};
        Product product;
        if (!FindProduct(db, id, product)) {
            entry.insert(QStringLiteral("Known"), false);
            return entry;
        }
        entry.insert(QStringLiteral("Known"), true);
        entry.insert(QStringLiteral("ProductName"), product.name);
        entry.insert(QStringLiteral("LatestBuild"), product.release);
        // Pre-release builds are for in-house testers only.
        if (inHouse && !product.prerelease.isEmpty())
            entry.insert(QStringLiteral("PreReleaseBuild"), product.prerelease);
        return entry;
    }

    void MyProduct(const Request& request, Response& response)
    {
        QString memberId;
        const int tokenStatus = Member(request, memberId);
        if (tokenStatus != kOk)
            return m_server.SendEnvelope(request, response, 2, tokenStatus, QJsonValue());
        const QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(request.body));
        const QJsonObject body = document.object();
        const QJsonValue installedValue = body.value(QStringLiteral("InstalledProducts"));
        const QJsonValue requestAp = body.value(QStringLiteral("RequestAp"));
        if (!document.isObject() || !installedValue.isArray()
            || (!requestAp.isUndefined()
                && (!requestAp[QStringLiteral("ProductID")].isString()
                    || !requestAp[QStringLiteral("ProductBuild")].isString())))
            return m_server.SendEnvelope(request, response, 2, kParam, QJsonValue());
        const bool inHouse = body.value(QStringLiteral("InHouseTest")).toBool(false);
        const QString apId = requestAp[QStringLiteral("ProductID")].toString();
        const QString apBuild = requestAp[QStringLiteral("ProductBuild")].toString();

        QJsonValue data;
        const bool ok = m_server.State().WithDatabase([&](sqlite3* db) {
            const std::map<QString, Licence> licences = Licences(db, memberId);
            auto licenceOf = [&](const QString& id) {
                auto found = licences.find(id);
                return found == licences.end() ? Licence() : found->second;
            };
            if (body.contains(QStringLiteral("CheckBuyFullProduct"))) {
                // The purchase query: what the member bought, full licences only when asked.
                const bool fullOnly = body.value(QStringLiteral("CheckBuyFullProduct")).toBool(false);
                QJsonArray purchases;
                for (const auto& [id, licence] : licences) {
                    if ((fullOnly && !licence.Full()) || (!apId.isEmpty() && id != apId))
                        continue;
                    QJsonObject entry = ProductEntry(db, id, licence, inHouse);
                    entry.insert(QStringLiteral("FullProduct"), licence.Full());
                    purchases.append(entry);
                }
                data = purchases;
                return true;
            }
            QJsonArray products;
            std::set<QString> listed;
            for (const QJsonValue& value : installedValue.toArray()) {
                const QJsonObject installed = value.toObject();
                if (!installed.value(QStringLiteral("ProductID")).isString()
                    || !installed.value(QStringLiteral("Lang")).isDouble())
                    return false;
                const QString id = installed.value(QStringLiteral("ProductID")).toString();
                QJsonObject entry = ProductEntry(db, id, licenceOf(id), inHouse);
                entry.insert(QStringLiteral("Installed"), true);
                entry.insert(QStringLiteral("Lang"), installed.value(QStringLiteral("Lang")).toInt());
                products.append(entry);
                listed.insert(id);
            }
            // Owned products that are not installed follow, for the launcher to offer.
            for (const auto& [id, licence] : licences) {
                if (listed.count(id) || !licence.Active())
                    continue;
                QJsonObject entry = ProductEntry(db, id, licence, inHouse);
                entry.insert(QStringLiteral("Installed"), false);
                products.append(entry);
            }
            QJsonObject object{{QStringLiteral("Products"), products}};
            if (!apId.isEmpty()) {
                QJsonObject ap = ProductEntry(db, apId, licenceOf(apId), inHouse);
                ap.insert(QStringLiteral("ProductBuild"), apBuild);
                const QString latest = inHouse && !ap.value(QStringLiteral("PreReleaseBuild")).toString().isEmpty()
                                           ? ap.value(QStringLiteral("PreReleaseBuild")).toString()
                                           : ap.value(QStringLiteral("LatestBuild")).toString();
                ap.insert(QStringLiteral("UpdateAvailable"), !latest.isEmpty() && Newer(latest, apBuild));
                object.insert(QStringLiteral("RequestAp"), ap);
            }
            data = object;
            return true;
        });
        if (!ok)
            return m_server.SendEnvelope(request, response, 2, kParam, QJsonValue());
        m_server.SendEnvelope(request, response, 2, kOk, data);
    }

    void Redirect(const Request& request, Response& response)
    {
        auto refuse = [&](int http, const QString& title, const QString& message) {
            response.status = http;
            response.set_content(LandingPage(title, QStringLiteral("<h1>%1</h1><p role=\"alert\">%2</p>")
                                                        .arg(title.toHtmlEscaped(), message.toHtmlEscaped()))
                                     .toStdString(),
                                 "text/html; charset=utf-8");
        };
        QString memberId;
        // The token goes into the query as it is: read it raw, since base64's '=' and '+'
        // do not survive query parsing.
        QString token;
        const QString target = Text(request.target);
        const int at = target.indexOf(QLatin1String("&Token="));
        if (at >= 0) {
            const int start = at + 7;
            const int end = target.indexOf(QLatin1Char('&'), start);
            token = target.mid(start, end < 0 ? -1 : end - start);
        }
        const auto state = m_server.State().CheckAccess(token, memberId);
        if (state != ServerState::TokenState::Valid)
            return refuse(401, QStringLiteral("This link has expired"),
                          QStringLiteral("Open the page again from the application."));
        const QString type = Text(request.get_param_value("Type"));
        const int language = Text(request.get_param_value("LID")).toInt();
        QString page;
        if (type == QLatin1String("1")) {
            page = QStringLiteral("/member/account");
        } else if (type == QLatin1String("0") || type == QLatin1String("2")) {
            // Only pages of this web host: the link must not lead a signed-in member elsewhere.
            const QUrl url(Text(request.get_param_value("Url")));
            const QUrl web(m_server.WebBase());
            if (url.isRelative() && url.path().startsWith(QLatin1Char('/')))
                page = url.toString(QUrl::FullyEncoded);
            else if (url.scheme() == QLatin1String("https") && url.host() == web.host() && url.port() == web.port())
                page = url.toString(QUrl::RemoveScheme | QUrl::RemoveAuthority | QUrl::FullyEncoded);
        }
        if (page.isEmpty() || language < 1)
            return refuse(400, QStringLiteral("This link is not valid"),
                          QStringLiteral("Open the page again from the application."));
        const QString session = QString::fromLatin1(QByteArray::number(QRandomGenerator::global()->generate64(), 36)
                                                    + QByteArray::number(QRandomGenerator::global()->generate64(), 36));
        {
            std::lock_guard<std::mutex> lock(m_sessionMutex);
            if (m_sessions.size() > 1000)
                m_sessions.clear();
            m_sessions[session] = memberId;
        }
        response.set_header("Set-Cookie", QStringLiteral("%1=%2; Path=/member/; Secure; HttpOnly; SameSite=Lax")
                                              .arg(QLatin1String(kSessionCookie), session)
                                              .toStdString());
        response.set_redirect(page.toStdString(), 302);
    }

    void Landing(const Request& request, Response& response)
    {
        QString memberId;
        const QString prefix = QLatin1String(kSessionCookie) + QLatin1Char('=');
        for (const QString& part : Text(request.get_header_value("Cookie")).split(QLatin1Char(';'))) {
            const QString cookie = part.trimmed();
            if (!cookie.startsWith(prefix))
                continue;
            std::lock_guard<std::mutex> lock(m_sessionMutex);
            auto found = m_sessions.find(cookie.mid(prefix.size()));
            if (found != m_sessions.end())
                memberId = found->second;
        }
        ServerState::Member member;
        const QString page = Text(request.path);
        if (memberId.isEmpty() || !m_server.State().FindMemberById(memberId, member)) {
            response.status = 401;
            response.set_content(LandingPage(QStringLiteral("Not signed in"),
                                             QStringLiteral("<h1>You are not signed in</h1><p>Open this page from "
                                                            "the application to sign in.</p>"))
                                     .toStdString(),
                                 "text/html; charset=utf-8");
            return;
        }
        const QString name = member.nickName.isEmpty() ? member.email : member.nickName;
        const QString heading = page == QLatin1String("/member/account") ? QStringLiteral("Your account")
                                                                          : QStringLiteral("Quillmarsh member site");
        response.set_content(
            LandingPage(heading, QStringLiteral("<h1>%1</h1><p id=\"member\" role=\"status\">Signed in as %2 (%3)</p>"
                                                "<p>Page: <code>%4</code></p>")
                                     .arg(heading.toHtmlEscaped(), name.toHtmlEscaped(), member.email.toHtmlEscaped(),
                                          page.toHtmlEscaped()))
                .toStdString(),
            "text/html; charset=utf-8");
    }

    // Replies whose "result" the service always sends LZString-compressed.
    void SendCompressed(Response& response, int status, const QJsonValue& data)
    {
        QJsonObject result{{QStringLiteral("status"), status}};
        if (!data.isUndefined() && !data.isNull())
            result.insert(QStringLiteral("data"), data);
        const QString compact = QString::fromUtf8(QJsonDocument(result).toJson(QJsonDocument::Compact));
        m_server.SendJson(response, QJsonObject{{QStringLiteral("apiStatus"), 2},
                                                {QStringLiteral("result"), LZStringEncoder::compressToUTF16(compact)}});
    }

    void LanguagePack(const Request& request, Response& response)
    {
        const QString productId = Text(request.get_param_value("ProductID"));
        if (productId.isEmpty())
            return SendCompressed(response, kParam, QJsonValue());
        QJsonArray packs;
        m_server.State().WithDatabase([&](sqlite3* db) {
            Sql list(db, "SELECT language, size FROM launcher_language_packs WHERE product_id = ?1 ORDER BY language");
            list.Bind(1, productId);
            while (list.Row()) {
                const int language = int(list.Int(0));
                const int size = int(list.Int(1));
                const QByteArray bytes = PackBytes(productId, language, size);
                packs.append(QJsonObject{
                    {QStringLiteral("Language"), language},
                    {QStringLiteral("LanguageName"), LanguageName(language)},
                    {QStringLiteral("Size"), size},
                    {QStringLiteral("Url"),
                     QStringLiteral("%1/downloads/langpacks/%2/%2_%3.qmlp").arg(m_server.WebBase(), productId).arg(language)},
                    {QStringLiteral("SHA256"),
                     QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex())}});
            }
            return true;
        });
        SendCompressed(response, kOk,
                       QJsonObject{{QStringLiteral("ProductID"), productId},
                                   {QStringLiteral("APProductID"), Text(request.get_param_value("APProductID"))},
                                   {QStringLiteral("APVersion"), Text(request.get_param_value("APVersion"))},
                                   {QStringLiteral("Packs"), packs}});
    }

    void PackDownload(const Request& request, Response& response)
    {
        const QString productId = Text(request.matches[1]);
        const int language = Text(request.matches[2]).toInt();
        const int size = m_server.State().WithDatabase([&](sqlite3* db) {
            Sql find(db, "SELECT size FROM launcher_language_packs WHERE product_id = ?1 AND language = ?2");
            return find.Bind(1, productId).Bind(2, language).Row() ? int(find.Int(0)) : -1;
        });
        if (size < 0) {
            response.status = 404;
            return;
        }
        response.set_content(PackBytes(productId, language, size).toStdString(), "application/octet-stream");
    }

    void PluginInfo(const Request& request, Response& response)
    {
        const QString apId = Text(request.get_param_value("aPProductID"));
        const QString pluginId = Text(request.get_param_value("pluginProductID"));
        const QString pluginVersion = Text(request.get_param_value("pluginVersion"));
        bool numeric = false;
        const qlonglong apVersion = Text(request.get_param_value("aPVersion")).toLongLong(&numeric);
        if (apId.isEmpty() || pluginId.isEmpty() || !numeric)
            return m_server.SendEnvelope(request, response, 2, kParam, QJsonValue());
        QJsonObject data{{QStringLiteral("PluginProductID"), pluginId},
                         {QStringLiteral("PluginVersion"), pluginVersion},
                         {QStringLiteral("APProductID"), apId},
                         {QStringLiteral("APVersion"), QString::number(apVersion)}};
        m_server.State().WithDatabase([&](sqlite3* db) {
            Sql find(db, "SELECT latest_version, min_ap_version, max_ap_version FROM launcher_plugins"
                         " WHERE plugin_id = ?1 AND ap_product_id = ?2");
            const bool known = find.Bind(1, pluginId).Bind(2, apId).Row();
            data.insert(QStringLiteral("Known"), known);
            if (!known) {
                data.insert(QStringLiteral("Compatible"), false);
                return true;
            }
            data.insert(QStringLiteral("LatestVersion"), find.Str(0));
            data.insert(QStringLiteral("MinAPVersion"), double(find.Int(1)));
            data.insert(QStringLiteral("MaxAPVersion"), double(find.Int(2)));
            data.insert(QStringLiteral("Compatible"), apVersion >= find.Int(1) && apVersion <= find.Int(2));
            data.insert(QStringLiteral("UpdateAvailable"), !pluginVersion.isEmpty() && Newer(find.Str(0), pluginVersion));
            return true;
        });
        m_server.SendEnvelope(request, response, 2, kOk, data);
    }

    // The agreement's current version, and the one the member consented to; 0 for none.
    static int CurrentVersion(sqlite3* db, const QString& agreement)
    {
        Sql find(db, "SELECT version FROM launcher_agreements WHERE agreement = ?1");
        return find.Bind(1, agreement).Row() ? int(find.Int(0)) : 0;
    }

    static int ConsentedVersion(sqlite3* db, const QString& memberId, const QString& agreement)
    {
        Sql find(db, "SELECT version FROM launcher_consents WHERE member_id = ?1 AND agreement = ?2");
        return find.Bind(1, memberId).Bind(2, agreement).Row() ? int(find.Int(0)) : 0;
    }

    int AgreementVersion(const QString& agreement)
    {
        return m_server.State().WithDatabase([&](sqlite3* db) { return CurrentVersion(db, agreement); });
    }

    // The member and the agreement of a renewal or consent; false after answering when either is missing.
    bool AgreementRequest(const Request& request, Response& response, QString& memberId, QString& agreement)
    {
        const int tokenStatus = Member(request, memberId);
        if (tokenStatus != kOk) {
            m_server.SendEnvelope(request, response, 2, tokenStatus, QJsonValue());
            return false;
        }
        agreement = AgreementOf(request.matches[1]);
        if (agreement.isEmpty()) {
            m_server.SendEnvelope(request, response, 2, kParam, QJsonValue());
            return false;
        }
        return true;
    }

    void Renew(const Request& request, Response& response)
    {
        QString memberId;
        QString agreement;
        if (!AgreementRequest(request, response, memberId, agreement))
            return;
        int current = 0;
        int consented = 0;
        m_server.State().WithDatabase([&](sqlite3* db) {
            current = CurrentVersion(db, agreement);
            consented = ConsentedVersion(db, memberId, agreement);
            return true;
        });
        m_server.SendEnvelope(request, response, 2, consented < current ? kOk : kNotDue,
                              QJsonObject{{QStringLiteral("Agreement"), agreement},
                                          {QStringLiteral("CurrentVersion"), current},
                                          {QStringLiteral("ConsentedVersion"), consented}});
    }

    void Consent(const Request& request, Response& response)
    {
        QString memberId;
        QString agreement;
        if (!AgreementRequest(request, response, memberId, agreement))
            return;
        const int version = m_server.State().WithDatabase([&](sqlite3* db) {
            Sql(db, "INSERT OR REPLACE INTO launcher_consents SELECT ?1, agreement, version FROM launcher_agreements"
                    " WHERE agreement = ?2")
                .Bind(1, memberId)
                .Bind(2, agreement)
                .Done();
            return ConsentedVersion(db, memberId, agreement);
        });
        m_server.SendEnvelope(request, response, 2, kOk,
                              QJsonObject{{QStringLiteral("Agreement"), agreement}, {QStringLiteral("Version"), version}});
    }

    MemberServer& m_server;
    std::mutex m_sessionMutex;
    std::map<QString, QString> m_sessions; // landing-page session -> member id
};

} // namespace

std::unique_ptr<ServiceArea> MakeLauncherArea(MemberServer& server)
{
    return std::make_unique<LauncherArea>(server);
}
