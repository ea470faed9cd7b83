#include "Cli.h"

#include <QCommandLineParser>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>

#include <cmath>
#include <cstdio>

namespace Cli {

namespace {

// The longest time limit accepted: a day, far from overflowing milliseconds in an int.
constexpr double kMaxSeconds = 86400;

QString Seconds(double value)
{
    return QString::number(value, 'g', 6) + QLatin1String(" s");
}

void Write(FILE* stream, const QString& text)
{
    const QByteArray bytes = text.toUtf8();
    std::fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stream);
    std::fflush(stream);
}

QString Host(const std::wstring& host)
{
    return QString::fromStdWString(host);
}

// The transport's numbers, as causes a script can switch on.
struct TransportCause {
    unsigned int number;
    const char* cause;
    const char* words;
};
const TransportCause kTransportCauses[] = {
    {12002, "timed_out", "no answer in time"},
    {12004, "transport_failed", "the transport failed"},
    {12005, "invalid_url", "the host and path do not form an https URL"},
    {12007, "host_not_resolved", "the host name could not be resolved"},
    {12017, "cancelled", "the request was cancelled"},
    {12029, "connection_refused", "the connection was refused or the host is unreachable"},
    {12030, "connection_dropped", "the server dropped the connection"},
    {12045, "certificate_untrusted", "the server's certificate is not trusted"},
    {12152, "bad_reply", "the reply was not HTTP"},
    {12157, "tls_failed", "the TLS handshake failed"},
};

QString TransportHint(const QString& cause, const QString& apiHost, double seconds)
{
    if (cause == QLatin1String("timed_out"))
        return seconds > 0 ? QStringLiteral("no answer from %1 within %2: the server is slow, or a firewall or proxy "
                                            "drops the traffic; a longer --timeout may help")
                                 .arg(apiHost, Seconds(seconds))
                           : QStringLiteral("no answer from %1 in time: the server is slow, or a firewall or proxy drops "
                                            "the traffic")
                                 .arg(apiHost);
    if (cause == QLatin1String("host_not_resolved") || cause == QLatin1String("invalid_url")) {
        if (apiHost.contains(QLatin1String("://")) || apiHost.contains(QLatin1Char('/')))
            return QStringLiteral("QM_API_HOST must be a host name with an optional :port, without a scheme or path "
                                  "(it is '%1')")
                .arg(apiHost);
        return QStringLiteral("the name '%1' does not resolve: check QM_API_HOST, the DNS and the proxy").arg(apiHost);
    }
    if (cause == QLatin1String("connection_refused"))
        return QStringLiteral("server unreachable: nothing answers on %1; is qmmember-server running, and QM_API_HOST "
                              "right?")
            .arg(apiHost);
    if (cause == QLatin1String("certificate_untrusted")) {
        const QString caFile = qEnvironmentVariable("QM_CA_FILE");
        if (caFile.isEmpty())
            return QStringLiteral("the system's CAs do not trust %1 and QM_CA_FILE is not set: for qmmember-server, "
                                  "export the QM_CA_FILE line that `qmmember-server --print-env` shows")
                .arg(apiHost);
        if (!QFileInfo(caFile).isReadable())
            return QStringLiteral("QM_CA_FILE is '%1', which cannot be read").arg(caFile);
        return QStringLiteral("neither the system's CAs nor QM_CA_FILE (%1) trust %2: is it the CA of this server?")
            .arg(caFile, apiHost);
    }
    if (cause == QLatin1String("tls_failed") || cause == QLatin1String("connection_dropped")
        || cause == QLatin1String("bad_reply"))
        return QStringLiteral("is %1 an HTTPS server of the member API?").arg(apiHost);
    return QString();
}

// Causes of the results that the server or the library decided, not the transport.
Failure ResultFailure(int result)
{
    Failure failure;
    switch (result) {
    case 5:
        failure.cause = QStringLiteral("wrong_credentials");
        failure.words = QStringLiteral("the server refused the e-mail and password");
        failure.hint = QStringLiteral("wrong e-mail or password");
        break;
    case CQMMemberWebService::WS_TOKEN_EXPIRE:
    case CQMMemberWebService::WS_TOKEN_VERIFY_FAIL:
        failure.cause = QStringLiteral("session_invalid");
        failure.words = QStringLiteral("the server no longer accepts the stored session");
        failure.hint = QStringLiteral("the stored session is no longer valid: sign in again (qmmember login)");
        break;
    case CQMMemberWebService::WS_NO_LOGIN:
        failure.cause = QStringLiteral("not_signed_in");
        failure.hint = QStringLiteral("no member is signed in: run qmmember login");
        break;
    case CQMMemberWebService::WS_PARSE_CONTENT_FAIL:
        failure.cause = QStringLiteral("bad_reply");
        failure.hint = QStringLiteral("the reply was not the service's JSON envelope");
        break;
    case CQMMemberWebService::WS_SERVER_BUSY:
        failure.cause = QStringLiteral("server_busy");
        failure.hint = QStringLiteral("the server is busy: try again later");
        break;
    case CQMMemberWebService::WS_PARAM_FAIL:
        failure.cause = QStringLiteral("bad_parameters");
        failure.hint = QStringLiteral("the server refused the request's parameters");
        break;
    case CQMMemberWebService::WS_LOGIN_STATUS_FAIL:
        failure.cause = QStringLiteral("sign_in_refused");
        failure.hint = QStringLiteral("the browser sign-in was refused");
        break;
    case CQMMemberWebService::WS_NO_INTERNET:
        failure.cause = QStringLiteral("no_internet");
        failure.hint = QStringLiteral("no connection to the internet");
        break;
    case CQMMemberWebService::WS_CONNECTION_TIMEOUT:
        failure.cause = QStringLiteral("timed_out");
        break;
    case CQMMemberWebService::WS_CONNECTION_FAILED:
        failure.cause = QStringLiteral("connection_failed");
        failure.hint = QStringLiteral("server unreachable: is qmmember-server running, and QM_API_HOST / QM_CA_FILE set?");
        break;
    case CQMMemberWebService::WS_UNEXPECT_FAIL:
        failure.cause = QStringLiteral("failed");
        failure.hint = QStringLiteral("an unexpected failure: --verbose shows the library's log");
        break;
    default:
        failure.cause = result > 0 ? QStringLiteral("server_status") : QStringLiteral("failed");
        break;
    }
    return failure;
}

} // namespace

QCommandLineOption TimeoutOption(double defaultSeconds)
{
    return QCommandLineOption(QStringLiteral("timeout"),
                              QStringLiteral("time limit in seconds, decimals allowed (default %1)")
                                  .arg(QString::number(defaultSeconds, 'g', 6)),
                              QStringLiteral("SECONDS"));
}

QCommandLineOption ProductKeyOption()
{
    return QCommandLineOption(QStringLiteral("product-key"),
                              QStringLiteral("the product's key in the store, e.g. 'SOFTWARE\\Quillmarsh\\Studio'"),
                              QStringLiteral("KEY"));
}

void Output::Field(const QString& label, const QJsonValue& value)
{
    if (!m_object.contains(label))
        m_order.append(label);
    m_object.insert(label, value);
}

QString HumanValue(const QJsonValue& value)
{
    switch (value.type()) {
    case QJsonValue::Null:
    case QJsonValue::Undefined:
        return QStringLiteral("(not set)");
    case QJsonValue::String:
        return value.toString();
    case QJsonValue::Bool:
        return QLatin1String(value.toBool() ? "true" : "false");
    case QJsonValue::Double:
        return QString::number(value.toDouble(), 'g', 15);
    case QJsonValue::Array:
        return QString::fromUtf8(QJsonDocument(value.toArray()).toJson(QJsonDocument::Indented)).trimmed();
    case QJsonValue::Object:
        return QString::fromUtf8(QJsonDocument(value.toObject()).toJson(QJsonDocument::Indented)).trimmed();
    }
    return QString();
}

void PrintError(const QString& message)
{
    Write(stderr, QStringLiteral("qmmember: ") + message + QLatin1Char('\n'));
}

bool ColourWanted(bool terminal)
{
    return terminal && !qEnvironmentVariableIsSet("NO_COLOR");
}

namespace {
QString g_realStoreFolder;
}

void RememberRealStoreFolder(const QString& folder)
{
    g_realStoreFolder = folder;
}

QString RealStoreFolder()
{
    return g_realStoreFolder.isEmpty() ? CQMMemberWebService::GetStoreFolderPath() : g_realStoreFolder;
}

bool ReadSmallFile(const QString& path, qint64 limit, QByteArray& bytes, QString& error)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        error = QStringLiteral("cannot read %1: %2").arg(path, file.errorString());
        return false;
    }
    // One byte past the limit tells an oversized file (or an endless device) from one at the limit.
    bytes = file.read(limit + 1);
    if (bytes.size() > limit) {
        bytes.clear();
        error = QStringLiteral("%1 is larger than %2 bytes").arg(path).arg(limit);
        return false;
    }
    return true;
}

bool IsPlainFileName(const QString& name)
{
    return !name.isEmpty() && name != QLatin1String(".") && name != QLatin1String("..")
           && !name.contains(QLatin1Char('/')) && !name.contains(QLatin1Char('\\')) && !name.contains(QChar(0));
}

Context::Context(const Command& command, QCommandLineParser& parser, bool json)
    : m_command(command)
    , m_parser(parser)
    , m_json(json)
{
}

Context::~Context() = default;

QStringList Context::Args() const
{
    return m_parser.positionalArguments();
}

bool Context::Has(const QString& option) const
{
    return m_parser.isSet(option);
}

QString Context::Value(const QString& option) const
{
    return m_parser.value(option);
}

bool Context::Seconds(const QString& option, double fallback, int& ms)
{
    double seconds = fallback;
    if (Has(option)) {
        bool ok = false;
        seconds = Value(option).toDouble(&ok);
        if (!ok || !std::isfinite(seconds) || seconds <= 0 || seconds > kMaxSeconds) {
            Usage(QStringLiteral("--%1 takes a number of seconds greater than 0 and at most %2, not '%3'")
                      .arg(option)
                      .arg(kMaxSeconds)
                      .arg(Value(option)));
            return false;
        }
    }
    m_seconds = seconds;
    ms = qMax(1, static_cast<int>(std::lround(seconds * 1000)));
    return true;
}

CQMMemberWebService& Context::Service()
{
    if (!m_service) {
        bool declared = false;
        for (const QCommandLineOption& option : m_command.options)
            declared = declared || option.names().contains(QLatin1String("product-key"));
        const QString key = declared ? Value(QStringLiteral("product-key")) : QString();
        m_service = std::make_unique<CQMMemberWebService>(key.toStdWString(), false, 10000, 0);
    }
    return *m_service;
}

void Context::Event(const QJsonObject& event, const QString& human)
{
    if (m_json)
        Write(stdout, QString::fromUtf8(QJsonDocument(event).toJson(QJsonDocument::Compact)) + QLatin1Char('\n'));
    else if (!human.isEmpty())
        Write(stderr, human + QLatin1Char('\n'));
}

int Context::Done(int result)
{
    m_result = result;
    if (result == CQMMemberWebService::WS_OK)
        return kExitOk;
    return Fail(ServiceFailure(result));
}

int Context::Ok()
{
    m_result = CQMMemberWebService::WS_OK;
    return kExitOk;
}

int Context::Fail(const QString& cause, const QString& text, const QString& hint)
{
    Failure failure;
    failure.cause = cause;
    failure.text = text;
    failure.hint = hint;
    return Fail(failure);
}

int Context::Fail(const Failure& failure)
{
    m_failure = std::make_unique<Failure>(failure);
    m_result = failure.result;
    return kExitFailed;
}

int Context::Usage(const QString& text)
{
    Fail(QStringLiteral("usage"), text,
         QStringLiteral("see: qmmember %1 --help").arg(m_command.name));
    m_usage = true;
    return kExitUsage;
}

Failure Context::ServiceFailure(int result)
{
    return ServiceFailure(result, CQMMemberWebService::GetLastTransportError(),
                          QString::fromStdWString(CQMMemberWebService::GetLastTransportErrorText()));
}

Failure Context::ServiceFailure(int result, unsigned int net, const QString& detail)
{
    Failure failure = ResultFailure(result);
    failure.result = result;
    failure.text = QString::fromStdWString(Service().GetErrorCodeString(result));
    if (net == 0)
        return failure;
    failure.netError = net;
    failure.detail = detail;
    const QString apiHost = Host(Service().GetApiHost());
    for (const TransportCause& known : kTransportCauses) {
        if (known.number == net) {
            failure.cause = QLatin1String(known.cause);
            failure.words = QLatin1String(known.words);
            failure.hint = TransportHint(failure.cause, apiHost, m_seconds);
            if (failure.hint.isEmpty())
                failure.hint = QLatin1String(known.words);
            return failure;
        }
    }
    if (net < 1000) {
        failure.cause = QStringLiteral("http_status");
        failure.words = QStringLiteral("the server answered HTTP %1").arg(net);
        failure.hint = QStringLiteral("the server answered HTTP %1: is %2 the member API, and the path right?")
                           .arg(net)
                           .arg(apiHost);
    }
    return failure;
}

void Context::Print(int exitCode)
{
    if (exitCode != kExitOk && !m_failure)
        Fail(QStringLiteral("failed"), QStringLiteral("the command failed"));
    if (m_json) {
        QJsonObject object = m_out.Object();
        if (m_command.streams)
            object.insert(QStringLiteral("event"), QStringLiteral("result"));
        if (m_failure) {
            object.insert(QStringLiteral("result"), m_failure->result);
            object.insert(QStringLiteral("text"), m_failure->text);
            QJsonObject error{{QStringLiteral("cause"), m_failure->cause},
                              {QStringLiteral("net_error"), static_cast<qint64>(m_failure->netError)}};
            if (!m_failure->detail.isEmpty())
                error.insert(QStringLiteral("detail"), m_failure->detail);
            if (!m_failure->hint.isEmpty())
                error.insert(QStringLiteral("hint"), m_failure->hint);
            object.insert(QStringLiteral("error"), error);
        } else {
            object.insert(QStringLiteral("result"), m_result.isUndefined() || m_result.isNull()
                                                        ? QJsonValue(CQMMemberWebService::WS_OK)
                                                        : m_result);
            object.insert(QStringLiteral("text"), QStringLiteral("OK"));
        }
        Write(stdout, QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact)) + QLatin1Char('\n'));
    } else if (!m_out.BodyLabel().isEmpty()) {
        Write(stdout, m_out.Value(m_out.BodyLabel()).toString() + QLatin1Char('\n'));
    } else {
        int width = 0;
        for (const QString& label : m_out.Order())
            width = qMax(width, label.size());
        QString lines;
        for (const QString& label : m_out.Order()) {
            QString value = HumanValue(m_out.Value(label));
            value.replace(QLatin1Char('\n'), QLatin1Char('\n') + QString(width + 2, QLatin1Char(' ')));
            lines += label.leftJustified(width) + QLatin1String("  ") + value + QLatin1Char('\n');
        }
        Write(stdout, lines);
    }
    if (!m_failure)
        return;
    // People read the failure on standard error, with --json too.
    const bool hasResult = !m_failure->result.isNull() && !m_failure->result.isUndefined();
    QString message = m_failure->words.isEmpty() ? m_failure->text : m_failure->words;
    if (m_failure->netError != 0)
        message += QStringLiteral(" (transport error %1%2)")
                       .arg(m_failure->netError)
                       .arg(m_failure->detail.isEmpty() ? QString() : QStringLiteral(": ") + m_failure->detail);
    if (hasResult)
        message += m_failure->words.isEmpty() ? QStringLiteral(" (result %1)").arg(m_failure->result.toInt())
                                              : QStringLiteral("; result %1, %2")
                                                    .arg(m_failure->result.toInt())
                                                    .arg(m_failure->text);
    QString text = QStringLiteral("qmmember %1: %2\n").arg(m_command.name, message);
    if (!m_failure->hint.isEmpty())
        text += QStringLiteral("hint: %1\n").arg(m_failure->hint);
    Write(stderr, text);
}

} // namespace Cli
