// qmmember: the command-line host of QMMemberWebService, for developers, support staff and
// scripts. Readable output by default, one JSON object per command with --json. Cli.h tells how
// a command group plugs in.
#include "Cli.h"

#include "QMRegistryAgent.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFileInfo>
#include <QJsonDocument>
#include <QLoggingCategory>
#include <QTemporaryDir>

#include <cstdio>
#include <memory>

namespace {

// The command table: one group per file.
const Cli::Group kGroups[] = {
    {"Account", Cli::AccountCommands},
    {"Store and cache", Cli::StoreCommands},
    {"Launcher", Cli::LauncherCommands},
    {"Content", Cli::ContentCommands},
    {"Publishing", Cli::PublishCommands},
    {"Diagnostics", Cli::DiagnosticsCommands},
    {"Codecs", Cli::CodecCommands},
};

struct Table {
    QList<QPair<QString, QList<Cli::Command>>> groups;
    const Cli::Command* Find(const QString& name) const
    {
        for (const auto& group : groups)
            for (const Cli::Command& command : group.second)
                if (command.name == name)
                    return &command;
        return nullptr;
    }
    // The verbs of a group such as "cache": the commands named "cache VERB".
    QList<const Cli::Command*> Verbs(const QString& word) const
    {
        QList<const Cli::Command*> verbs;
        for (const auto& group : groups)
            for (const Cli::Command& command : group.second)
                if (command.name.startsWith(word + QLatin1Char(' ')))
                    verbs.append(&command);
        return verbs;
    }
};

QList<QCommandLineOption> GlobalOptions()
{
    return {
        QCommandLineOption(QStringLiteral("json"),
                           QStringLiteral("print one JSON object on standard output (streaming commands: one per line)")),
        QCommandLineOption(QStringLiteral("verbose"), QStringLiteral("show the library's log on standard error")),
        QCommandLineOption({QStringLiteral("h"), QStringLiteral("help")}, QStringLiteral("show this help")),
        QCommandLineOption(QStringLiteral("version"), QStringLiteral("show the library version")),
    };
}

void Write(FILE* stream, const QString& text)
{
    const QByteArray bytes = text.toUtf8();
    std::fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stream);
    std::fflush(stream);
}

QString OptionLines(const QList<QCommandLineOption>& options)
{
    QStringList left;
    QList<QCommandLineOption> shown;
    for (const QCommandLineOption& option : options) {
        if (option.flags() & QCommandLineOption::HiddenFromHelp)
            continue;
        shown.append(option);
        QStringList names;
        for (const QString& name : option.names())
            names.append((name.size() == 1 ? QStringLiteral("-") : QStringLiteral("--")) + name);
        QString text = names.join(QLatin1String(", "));
        if (!option.valueName().isEmpty())
            text += QLatin1Char(' ') + option.valueName();
        left.append(text);
    }
    int width = 0;
    for (const QString& text : left)
        width = qMax(width, text.size());
    QString lines;
    for (int i = 0; i < shown.size(); ++i)
        lines += QStringLiteral("  ") + left.at(i).leftJustified(width) + QStringLiteral("  ")
                 + shown.at(i).description() + QLatin1Char('\n');
    return lines;
}

const char* const kFooter =
    "Time limits are in seconds (decimals allowed). Hosts come from QM_API_HOST and QM_WEB_HOST,\n"
    "QM_CA_FILE adds a trusted CA, QM_REGISTRY_DIR moves the per-user store. `--` ends the options.\n"
    "Exit status: 0 success, 1 failure, 2 usage error, 130 interrupted.\n";

QString MainHelp(const Table& table)
{
    QString text = QStringLiteral("usage: qmmember [--json] [--verbose] COMMAND [OPTIONS] [ARGUMENTS]\n"
                                  "       qmmember help COMMAND | COMMAND --help | --version\n");
    int width = 0;
    for (const auto& group : table.groups)
        for (const Cli::Command& command : group.second)
            width = qMax(width, command.name.size());
    for (const auto& group : table.groups) {
        if (group.second.isEmpty())
            continue;
        text += QLatin1Char('\n') + group.first + QStringLiteral(":\n");
        for (const Cli::Command& command : group.second)
            text += QStringLiteral("  ") + command.name.leftJustified(width) + QStringLiteral("  ") + command.summary
                    + QLatin1Char('\n');
    }
    text += QStringLiteral("\nOptions:\n") + OptionLines(GlobalOptions()) + QLatin1Char('\n')
            + QLatin1String(kFooter);
    return text;
}

QString CommandHelp(const Cli::Command& command)
{
    QString text;
    const QStringList forms = command.synopsis.split(QLatin1Char('\n'));
    for (int i = 0; i < forms.size(); ++i)
        text += (i == 0 ? QStringLiteral("usage: ") : QStringLiteral("       ")) + QStringLiteral("qmmember ")
                + command.name + (forms.at(i).isEmpty() ? QString() : QLatin1Char(' ') + forms.at(i))
                + QLatin1Char('\n');
    text += QLatin1Char('\n') + command.summary + QLatin1Char('\n');
    if (!command.help.isEmpty())
        text += QLatin1Char('\n') + command.help.trimmed() + QLatin1Char('\n');
    if (!command.options.isEmpty())
        text += QStringLiteral("\nOptions:\n") + OptionLines(command.options);
    text += QStringLiteral("\nGlobal options:\n") + OptionLines(GlobalOptions());
    return text;
}

QString GroupHelp(const QString& word, const QList<const Cli::Command*>& verbs)
{
    QString text = QStringLiteral("usage: qmmember %1 VERB ...\n\n").arg(word);
    int width = 0;
    for (const Cli::Command* command : verbs)
        width = qMax(width, command->name.size());
    for (const Cli::Command* command : verbs)
        text += QStringLiteral("  ") + command->name.leftJustified(width) + QStringLiteral("  ") + command->summary
                + QLatin1Char('\n');
    text += QStringLiteral("\nqmmember %1 VERB --help shows a verb's options.\n").arg(word);
    return text;
}

QString VersionText()
{
    return QStringLiteral("qmmember %1 (QMMemberWebService %1, Qt %2)\n").arg(QLatin1String(QM_VERSION), qVersion());
}

// A usage error found before a command is known.
int EarlyUsage(bool json, const QString& message)
{
    if (json) {
        const QJsonObject error{{QStringLiteral("cause"), QStringLiteral("usage")},
                                {QStringLiteral("net_error"), 0},
                                {QStringLiteral("hint"), QStringLiteral("see: qmmember --help")}};
        const QJsonObject object{
            {QStringLiteral("result"), QJsonValue()}, {QStringLiteral("text"), message}, {QStringLiteral("error"), error}};
        Write(stdout, QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact)) + QLatin1Char('\n'));
    }
    Cli::PrintError(message + QStringLiteral("\nsee: qmmember --help"));
    return Cli::kExitUsage;
}

// Commands that only read run against an empty throwaway store when the user has none yet,
// so that reading never creates one.
std::unique_ptr<QTemporaryDir> AvoidCreatingStore(Cli::StoreUse use)
{
    if (use == Cli::StoreUse::Write)
        return nullptr;
    const QString folder = CQMMemberWebService::GetStoreFolderPath();
    if (folder.isEmpty() || QFileInfo::exists(folder + QLatin1String("/HKEY_CURRENT_USER.db"))
        || QFileInfo::exists(folder + QLatin1String("/HKEY_LOCAL_MACHINE.db")))
        return nullptr;
    auto empty = std::make_unique<QTemporaryDir>();
    if (!empty->isValid())
        return nullptr;
    Cli::RememberRealStoreFolder(folder);
    qputenv("QM_REGISTRY_DIR", QFile::encodeName(empty->path()));
    return empty;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("qmmember"));
    const QStringList args = application.arguments().mid(1);

    Table table;
    for (const Cli::Group& group : kGroups)
        table.groups.append({QString::fromLatin1(group.title), group.commands()});

    // Global options may come before the command; the first other word names it.
    bool json = false;
    bool verbose = false;
    int at = 0;
    for (; at < args.size() && args.at(at).startsWith(QLatin1Char('-')); ++at) {
        const QString& arg = args.at(at);
        if (arg == QLatin1String("--")) {
            ++at;
            break;
        }
        if (arg == QLatin1String("--json")) {
            json = true;
        } else if (arg == QLatin1String("--verbose")) {
            verbose = true;
        } else if (arg == QLatin1String("--help") || arg == QLatin1String("-h")) {
            Write(stdout, MainHelp(table));
            return Cli::kExitOk;
        } else if (arg == QLatin1String("--version")) {
            Write(stdout, VersionText());
            return Cli::kExitOk;
        } else {
            return EarlyUsage(json, QStringLiteral("unknown option '%1'").arg(arg));
        }
    }
    if (at >= args.size()) {
        if (json)
            return EarlyUsage(json, QStringLiteral("no command"));
        Write(stderr, MainHelp(table));
        return Cli::kExitUsage;
    }

    QString name = args.at(at++);
    if (name == QLatin1String("help")) {
        const QStringList words = args.mid(at);
        if (words.isEmpty()) {
            Write(stdout, MainHelp(table));
            return Cli::kExitOk;
        }
        const QString wanted = words.join(QLatin1Char(' '));
        if (const Cli::Command* command = table.Find(wanted)) {
            Write(stdout, CommandHelp(*command));
            return Cli::kExitOk;
        }
        const QList<const Cli::Command*> verbs = table.Verbs(wanted);
        if (!verbs.isEmpty()) {
            Write(stdout, GroupHelp(wanted, verbs));
            return Cli::kExitOk;
        }
        return EarlyUsage(json, QStringLiteral("no command '%1'").arg(wanted));
    }
    const QList<const Cli::Command*> verbs = table.Verbs(name);
    if (!verbs.isEmpty()) {
        const QString verb = args.value(at);
        if (verb.isEmpty() || verb.startsWith(QLatin1Char('-'))) {
            if (args.mid(at).contains(QLatin1String("--help")) || args.mid(at).contains(QLatin1String("-h"))) {
                Write(stdout, GroupHelp(name, verbs));
                return Cli::kExitOk;
            }
            Write(stderr, GroupHelp(name, verbs));
            return EarlyUsage(json, QStringLiteral("'%1' needs a verb").arg(name));
        }
        name += QLatin1Char(' ') + verb;
        ++at;
    }
    const Cli::Command* command = table.Find(name);
    if (!command)
        return EarlyUsage(json, QStringLiteral("unknown command '%1'").arg(name));

    QCommandLineParser parser;
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    // A command may take --version as its own (publish --version V): the global one gives way.
    bool ownVersion = false;
    for (const QCommandLineOption& option : command->options)
        ownVersion = ownVersion || option.names().contains(QStringLiteral("version"));
    for (const QCommandLineOption& option : GlobalOptions()) {
        if (!(ownVersion && option.names().contains(QStringLiteral("version"))))
            parser.addOption(option);
    }
    parser.addOptions(command->options);
    const bool parsed = parser.parse(QStringList{application.arguments().constFirst()} + args.mid(at));
    json = json || (parsed && parser.isSet(QStringLiteral("json")));
    verbose = verbose || (parsed && parser.isSet(QStringLiteral("verbose")));
    std::unique_ptr<QTemporaryDir> throwaway; // outlives the context and its service
    Cli::Context context(*command, parser, json);
    int code = Cli::kExitOk;
    if (!parsed) {
        code = context.Usage(parser.errorText());
    } else if (parser.isSet(QStringLiteral("help"))) {
        Write(stdout, CommandHelp(*command));
        return Cli::kExitOk;
    } else if (!ownVersion && parser.isSet(QStringLiteral("version"))) {
        Write(stdout, VersionText());
        return Cli::kExitOk;
    } else {
        const int count = parser.positionalArguments().size();
        if (count < command->minArgs)
            code = context.Usage(QStringLiteral("too few arguments"));
        else if (command->maxArgs >= 0 && count > command->maxArgs)
            code = context.Usage(QStringLiteral("unexpected argument '%1'")
                                     .arg(parser.positionalArguments().value(command->maxArgs)));
    }
    if (code == Cli::kExitOk) {
        // The library's log is for developers; --verbose shows it, debug lines included.
        QLoggingCategory::setFilterRules(verbose ? QStringLiteral("qm.*.debug=true") : QStringLiteral("qm.*=false"));
        throwaway = AvoidCreatingStore(command->store);
        if (command->store != Cli::StoreUse::None) {
            static QMRegistryTool::CQMRegistryAgent agent;
            CQMMemberWebService::SetRegistryInterface(&agent);
        }
        code = command->run(context);
    }
    context.Print(code);
    return code;
}
