// The per-user store and the cache: store get|set|delete, cache path|show|clear.
#include "Cli.h"

#include "QMRegistryAgent.h"

namespace Cli {

namespace {

// Values that hold secrets are never printed.
bool IsSecretName(const QString& name)
{
    const QString folded = name.toCaseFolded();
    return folded.contains(QLatin1String("token")) || folded.contains(QLatin1String("password"))
           || folded.contains(QLatin1String("secret"));
}

bool ParseHive(Context& c, bool& currentUser)
{
    const QString hive = c.Arg(0).toUpper();
    if (hive == QLatin1String("HKCU") || hive == QLatin1String("HKEY_CURRENT_USER")) {
        currentUser = true;
        return true;
    }
    if (hive == QLatin1String("HKLM") || hive == QLatin1String("HKEY_LOCAL_MACHINE")) {
        currentUser = false;
        return true;
    }
    c.Usage(QStringLiteral("unknown hive '%1': use HKCU or HKLM").arg(c.Arg(0)));
    return false;
}

int StoreGet(Context& c)
{
    bool currentUser = true;
    if (!ParseHive(c, currentUser))
        return kExitUsage;
    QMRegistryTool::CQMRegistryAgent agent;
    std::wstring value;
    if (!agent.ReadString(currentUser, c.Arg(1).toStdWString(), c.Arg(2).toStdWString(), value))
        return c.Fail(QStringLiteral("not_found"), QStringLiteral("no value '%1' under %2").arg(c.Arg(2), c.Arg(1)));
    const QString text = QString::fromStdWString(value);
    c.Out().Field(QStringLiteral("value"), IsSecretName(c.Arg(2))
                                               ? QStringLiteral("<hidden: %1 characters>").arg(text.size())
                                               : text);
    return c.Ok();
}

int StoreSet(Context& c)
{
    bool currentUser = true;
    if (!ParseHive(c, currentUser))
        return kExitUsage;
    QMRegistryTool::CQMRegistryAgent agent;
    const std::wstring key = c.Arg(1).toStdWString();
    const std::wstring name = c.Arg(2).toStdWString();
    bool ok = false;
    if (c.Has(QStringLiteral("dword"))) {
        bool number = false;
        const int value = c.Arg(3).toInt(&number, 10);
        if (!number)
            return c.Usage(QStringLiteral("a --dword value must be a whole number, not '%1'").arg(c.Arg(3)));
        ok = agent.WriteNumber(currentUser, key, name, value);
    } else {
        ok = agent.WriteString(currentUser, key, name, c.Arg(3).toStdWString());
    }
    if (!ok)
        return c.Fail(QStringLiteral("store"),
                      QStringLiteral("cannot write to the store in %1").arg(CQMMemberWebService::GetStoreFolderPath()));
    c.Out().Field(QStringLiteral("written"), true);
    return c.Ok();
}

int StoreDelete(Context& c)
{
    bool currentUser = true;
    if (!ParseHive(c, currentUser))
        return kExitUsage;
    QMRegistryTool::CQMRegistryAgent agent;
    if (!agent.DeleteValue(currentUser, c.Arg(1).toStdWString(), c.Arg(2).toStdWString()))
        return c.Fail(QStringLiteral("not_found"), QStringLiteral("no value '%1' under %2").arg(c.Arg(2), c.Arg(1)));
    c.Out().Field(QStringLiteral("deleted"), true);
    return c.Ok();
}

int CachePath(Context& c)
{
    c.Out().Field(QStringLiteral("path"), CQMMemberWebService::GetCacheFolderPath());
    return c.Ok();
}

// Cache files are named, never pathed: a name with a folder part could reach outside the cache.
bool CheckName(Context& c)
{
    if (IsPlainFileName(c.Arg(0)))
        return true;
    c.Usage(QStringLiteral("'%1' is not a plain file name: the cache holds files such as MemberInfo.json").arg(c.Arg(0)));
    return false;
}

int CacheShow(Context& c)
{
    if (!CheckName(c))
        return kExitUsage;
    const QString name = c.Arg(0);
    QString content;
    bool expired = false;
    if (!CQMMemberWebService::ReadCacheFile(name, content, expired))
        return c.Fail(QStringLiteral("not_found"),
                      QStringLiteral("no cache file '%1' in %2").arg(name, CQMMemberWebService::GetCacheFolderPath()));
    c.Out().Field(QStringLiteral("name"), name);
    c.Out().Field(QStringLiteral("expired"), expired);
    c.Out().Field(QStringLiteral("content"), content);
    return c.Ok();
}

int CacheClear(Context& c)
{
    if (!CheckName(c))
        return kExitUsage;
    if (!CQMMemberWebService::DeleteCacheFile(c.Arg(0)))
        return c.Fail(QStringLiteral("input"), QStringLiteral("cannot delete '%1'").arg(c.Arg(0)));
    c.Out().Field(QStringLiteral("cleared"), c.Arg(0));
    return c.Ok();
}

Command Make(const char* name, const char* synopsis, const char* summary, int (*run)(Context&), int args)
{
    Command command;
    command.name = QLatin1String(name);
    command.synopsis = QLatin1String(synopsis);
    command.summary = QLatin1String(summary);
    command.run = run;
    command.minArgs = command.maxArgs = args;
    return command;
}

} // namespace

QList<Command> StoreCommands()
{
    const QString hives = QStringLiteral("HIVE is HKCU or HKLM; key paths and names are case-insensitive, and\n"
                                         "\"SOFTWARE\\Quillmarsh\" and \"software/quillmarsh\" name one key.");
    Command get = Make("store get", "HIVE KEY NAME", "read a value of the per-user store (token values stay hidden)",
                       StoreGet, 3);
    get.help = hives;
    Command set = Make("store set", "HIVE KEY NAME VALUE [--dword]",
                       "write a string, or with --dword a number (a negative one after --)", StoreSet, 4);
    set.help = hives;
    set.options = {QCommandLineOption(QStringLiteral("dword"), QStringLiteral("write VALUE as a number"))};
    set.store = StoreUse::Write;
    Command remove = Make("store delete", "HIVE KEY NAME", "delete a value", StoreDelete, 3);
    remove.help = hives;
    remove.store = StoreUse::Write;

    Command path = Make("cache path", "", "the cache folder", CachePath, 0);
    path.store = StoreUse::None;
    Command show = Make("cache show", "NAME", "a cache file's text, deciphered, and whether it expired", CacheShow, 1);
    show.store = StoreUse::None;
    Command clear = Make("cache clear", "NAME", "delete a cache file (a plain file name)", CacheClear, 1);
    clear.store = StoreUse::None;
    return {get, set, remove, path, show, clear};
}

} // namespace Cli
