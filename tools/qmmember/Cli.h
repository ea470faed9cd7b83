#pragma once
// How a command group plugs into qmmember (LauncherCommands.cpp as the example):
//
// - The group is one file with one function, `QList<Cli::Command> LauncherCommands()`, declared
//   below and listed once in kGroups in main.cpp (CMakeLists.txt picks up every *Commands.cpp).
// - A Command names itself ("products", or "plugin install" for a verb of a group), gives its
//   synopsis (the words after the name; one line per form), a one-line summary, a longer help
//   text, its QCommandLineOptions (TimeoutOption(), ProductKeyOption() for the shared ones), how
//   many positional arguments it takes and whether it writes the per-user store (option names
//   other than the global json, verbose, help, h and version). Parsing,
//   --help, unknown options and argument counts are handled before run() is called.
// - run(Context& c): c.Arg(i), c.Has("force"), c.Value("since"), c.Seconds("timeout", 30, ms)
//   (a time limit in seconds, validated); c.Service() is the CQMMemberWebService object for
//   --product-key. Results go into c.Out().Field(name, value), nested JSON allowed; they are
//   printed once, as aligned lines or, with --json, as the one JSON object that also carries
//   "result" and "text".
// - Return c.Done(result) after a service call (2 is success; any other result becomes a failure
//   whose cause and hint come from the thread's last transport error), c.Ok() after local work,
//   c.Fail(cause, text, hint) for a failure of the command's own, c.Usage(text) for bad
//   arguments. A streaming command (streams = true) reports progress with c.Event(): one JSON
//   object per line with --json.
//   c.Out().Body(name, text) makes one field the whole human output (a decoded text, a file).
// - Exit codes: 0 success, 1 failure, 2 usage error, 130 interrupted (ExitCode).
// - Never print a token, a password or a secret: c.Out() and c.Event() print what they are given.
// - qmmember uses the library's public interface only (it links QMMemberWebService, not the
//   internals): where a command needs more, the library gains a documented public call.

#include "QMMemberWebService.h"

#include <QCommandLineOption>
#include <QJsonObject>
#include <QJsonValue>
#include <QList>
#include <QString>
#include <QStringList>

#include <functional>
#include <memory>

class QCommandLineParser;

namespace Cli {

enum ExitCode { kExitOk = 0, kExitFailed = 1, kExitUsage = 2, kExitInterrupted = 130 };

// What a command may do to the per-user store. Read and None commands never create it: when
// it does not exist yet they run against an empty throwaway one.
enum class StoreUse { None, Read, Write };

class Context;

struct Command {
    QString name;          // "whoami", or "cache clear" for a verb of the group "cache"
    QString synopsis;      // what follows the name; one line per form: "--email E [--password-stdin]\n--browser"
    QString summary;       // one line, for the command list
    QString help;          // paragraphs for COMMAND --help; may be empty
    QList<QCommandLineOption> options;
    std::function<int(Context&)> run;
    int minArgs = 0;
    int maxArgs = 0; // -1: no upper bound
    StoreUse store = StoreUse::Read;
    bool streams = false; // prints events, one JSON object per line with --json
};

// A group of commands, listed in main.cpp.
struct Group {
    const char* title;
    QList<Command> (*commands)();
};

// The command groups, each in a file of its own.
QList<Command> AccountCommands();     // AccountCommands.cpp
QList<Command> StoreCommands();       // StoreCommands.cpp
QList<Command> DiagnosticsCommands(); // DiagnosticsCommands.cpp
QList<Command> CodecCommands();       // CodecCommands.cpp
QList<Command> LauncherCommands();    // LauncherCommands.cpp
QList<Command> ContentCommands();     // ContentCommands.cpp
QList<Command> PublishCommands();     // PublishCommands.cpp

// Shared options.
QCommandLineOption TimeoutOption(double defaultSeconds);
QCommandLineOption ProductKeyOption();

// The fields a command prints: aligned "label  value" lines, or one JSON object.
class Output
{
public:
    void Field(const QString& label, const QJsonValue& value);
    /// A field that is the whole output for people: printed as it stands, without its label.
    void Body(const QString& label, const QString& text)
    {
        Field(label, text);
        m_body = label;
    }
    QString BodyLabel() const { return m_body; }
    bool Has(const QString& label) const { return m_object.contains(label); }
    QJsonValue Value(const QString& label) const { return m_object.value(label); }
    const QJsonObject& Object() const { return m_object; }
    const QStringList& Order() const { return m_order; }

private:
    QJsonObject m_object;
    QStringList m_order;
    QString m_body;
};

// Why a command failed: a stable cause word for scripts, the text, and the next step.
struct Failure {
    QString cause;      // "connection_refused", "certificate_untrusted", "usage", ...
    QString text;       // what went wrong
    QString hint;       // what to do about it; may be empty
    QJsonValue result;  // the service result, or null when no service call failed
    unsigned int netError = 0;
    QString detail;     // the transport's own words
    QString words;      // the cause in words, when the text does not say it
};

class Context
{
public:
    Context(const Command& command, QCommandLineParser& parser, bool json);
    ~Context();

    const Command& command() const { return m_command; }
    bool Json() const { return m_json; }
    QStringList Args() const;
    QString Arg(int index) const { return Args().value(index); }
    bool Has(const QString& option) const;
    QString Value(const QString& option) const;

    /// Reads a time limit in seconds (decimals allowed, > 0) into \a ms; a usage error otherwise.
    bool Seconds(const QString& option, double fallback, int& ms);
    /// The time limit the last Seconds() read, for hints.
    double SecondsUsed() const { return m_seconds; }

    /// The service for --product-key (made on first use).
    CQMMemberWebService& Service();
    Output& Out() { return m_out; }

    /// One progress event: a JSON line with --json, else \a human on standard error.
    void Event(const QJsonObject& event, const QString& human);

    int Done(int result);
    int Ok();
    int Fail(const QString& cause, const QString& text, const QString& hint = QString());
    int Fail(const Failure& failure);
    int Usage(const QString& text);
    /// The failure a service result stands for, its cause read from the last transport error.
    Failure ServiceFailure(int result);
    /// The same, with the transport error given (one seen on another thread).
    Failure ServiceFailure(int result, unsigned int netError, const QString& detail);

    /// Prints what the command left: called once, by main, after run().
    void Print(int exitCode);

private:
    const Command& m_command;
    QCommandLineParser& m_parser;
    bool m_json;
    double m_seconds = 0;
    Output m_out;
    std::unique_ptr<CQMMemberWebService> m_service;
    std::unique_ptr<Failure> m_failure;
    QJsonValue m_result;
    bool m_usage = false;
};

// Output helpers shared by the groups.
void PrintError(const QString& message); // "qmmember: message" on standard error
QString HumanValue(const QJsonValue& value);
bool ColourWanted(bool terminal); // a terminal, and no NO_COLOR
/// The store folder the user has, even while a throwaway one is in use.
QString RealStoreFolder();
void RememberRealStoreFolder(const QString& folder);
/// Reads a file the command line was given, refusing more than \a limit bytes.
bool ReadSmallFile(const QString& path, qint64 limit, QByteArray& bytes, QString& error);
/// True for a plain file name: no folder part, not "." or "..".
bool IsPlainFileName(const QString& name);

} // namespace Cli
