// The content commands (content ..., cart add). Cli.h tells how a command is declared.
#include "Cli.h"
#include "Terminal.h"

#include <QEventLoop>
#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QTimer>

#include <cstdio>

namespace Cli {

namespace {

using Service = CQMMemberWebService;

// A cell longer than this is cut with "…": a table row stays on one screen line.
constexpr int kMaxCellWidth = 40;

std::vector<std::wstring> WideIds(const QStringList& ids)
{
    std::vector<std::wstring> list;
    list.reserve(size_t(ids.size()));
    for (const QString& id : ids)
        list.push_back(id.toStdWString());
    return list;
}

QString Cell(const QJsonValue& value)
{
    QString text;
    if (value.isArray())
        text = QString::fromUtf8(QJsonDocument(value.toArray()).toJson(QJsonDocument::Compact));
    else if (value.isObject())
        text = QString::fromUtf8(QJsonDocument(value.toObject()).toJson(QJsonDocument::Compact));
    else if (value.isUndefined() || value.isNull())
        text = QString();
    else
        text = HumanValue(value);
    text.replace(QLatin1Char('\n'), QLatin1Char(' '));
    if (text.size() > kMaxCellWidth)
        text = text.left(kMaxCellWidth - 1) + QChar(0x2026);
    return text;
}

// Rows of objects as aligned columns: the naming columns first, then the others by name.
QString Table(const QJsonArray& rows)
{
    static const QStringList kLeading{QStringLiteral("ContentID"),    QStringLiteral("Title"),
                                      QStringLiteral("MemberID"),     QStringLiteral("NickName"),
                                      QStringLiteral("TypeID"),       QStringLiteral("TypeName"),
                                      QStringLiteral("CategoryID"),   QStringLiteral("CategoryName"),
                                      QStringLiteral("Version"),      QStringLiteral("ItemCount")};
    QStringList columns;
    for (const QJsonValue& row : rows) {
        if (!row.isObject()) {
            if (!columns.contains(QStringLiteral("Value")))
                columns.append(QStringLiteral("Value"));
            continue;
        }
        const QJsonObject object = row.toObject();
        for (auto it = object.begin(); it != object.end(); ++it)
            if (!columns.contains(it.key()))
                columns.append(it.key());
    }
    QStringList leading;
    for (const QString& key : kLeading)
        if (columns.removeOne(key))
            leading.append(key);
    columns = leading + columns;
    QList<QStringList> cells;
    QVector<int> widths;
    for (const QString& column : columns)
        widths.append(column.size());
    for (const QJsonValue& row : rows) {
        QStringList line;
        for (int i = 0; i < columns.size(); ++i) {
            const QString text = row.isObject() ? Cell(row.toObject().value(columns.at(i)))
                                                : (columns.at(i) == QLatin1String("Value") ? Cell(row) : QString());
            widths[i] = qMax(widths[i], text.size());
            line.append(text);
        }
        cells.append(line);
    }
    auto format = [&widths](const QStringList& line) {
        QString text;
        for (int i = 0; i < line.size(); ++i)
            text += i + 1 < line.size() ? line.at(i).leftJustified(widths.at(i) + 2) : line.at(i);
        return text.trimmed() + QLatin1Char('\n');
    };
    QString text = format(columns);
    for (const QStringList& line : cells)
        text += format(line);
    return text;
}

// One object as aligned "key  value" lines, nested values in full: one item reads best so.
QString Record(const QJsonObject& object)
{
    int width = 0;
    for (auto it = object.begin(); it != object.end(); ++it)
        width = qMax(width, it.key().size());
    QString text;
    for (auto it = object.begin(); it != object.end(); ++it) {
        const QJsonValue value = it.value();
        const QString shown = value.isObject()  ? QString::fromUtf8(QJsonDocument(value.toObject()).toJson(QJsonDocument::Compact))
                              : value.isArray() ? QString::fromUtf8(QJsonDocument(value.toArray()).toJson(QJsonDocument::Compact))
                                                : HumanValue(value);
        text += QStringLiteral("  ") + it.key().leftJustified(width + 2) + shown + QLatin1Char('\n');
    }
    return text;
}

// The reply's data for people: scalar members as "Key: value" lines, then each array member as
// a table under its name (a single object as lines); an array as one table.
QString Readable(const QJsonValue& data)
{
    if (data.isArray())
        return data.toArray().isEmpty() ? QStringLiteral("(empty list)\n") : Table(data.toArray());
    if (!data.isObject())
        return HumanValue(data) + QLatin1Char('\n');
    const QJsonObject object = data.toObject();
    QString head;
    QString tables;
    for (auto it = object.begin(); it != object.end(); ++it) {
        if (it.value().isArray()) {
            const QJsonArray rows = it.value().toArray();
            bool scalars = true;
            for (const QJsonValue& row : rows)
                scalars = scalars && !row.isObject() && !row.isArray();
            if (scalars) {
                // A list of IDs reads best on one line.
                QStringList values;
                for (const QJsonValue& row : rows)
                    values.append(HumanValue(row));
                head += it.key() + QStringLiteral(": ") + (values.isEmpty() ? QStringLiteral("(none)")
                                                                             : values.join(QStringLiteral(", ")))
                        + QLatin1Char('\n');
                continue;
            }
            tables += QStringLiteral("\n%1 (%2)\n").arg(it.key()).arg(rows.size());
            tables += rows.size() == 1 && rows.first().isObject() ? Record(rows.first().toObject()) : Table(rows);
        } else {
            head += it.key() + QStringLiteral(": ") + Cell(it.value()) + QLatin1Char('\n');
        }
    }
    if (head.isEmpty() && tables.startsWith(QLatin1Char('\n')))
        tables.remove(0, 1);
    return head + tables;
}

// Long output goes through less when standard output is a terminal; true when it did.
bool Paged(const QString& text)
{
    if (!Terminal::OutputIsTerminal() || text.count(QLatin1Char('\n')) < 20)
        return false;
    QProcess less;
    less.setProcessChannelMode(QProcess::ForwardedChannels);
    // -F: no pager for what fits one screen; -R: colours as they are; -X: the text stays.
    less.start(QStringLiteral("less"), {QStringLiteral("-FRX")});
    if (!less.waitForStarted(3000))
        return false;
    less.write(text.toUtf8());
    less.closeWriteChannel();
    less.waitForFinished(-1);
    return true;
}

// The result text as the command's output: with --json the reply's "data" as it came, else a
// readable table.
void ShowData(Context& c, const std::wstring& text)
{
    const QByteArray utf8 = QString::fromStdWString(text).toUtf8();
    const QJsonDocument document = QJsonDocument::fromJson(utf8);
    const QJsonValue data = document.isArray()    ? QJsonValue(document.array())
                            : document.isObject() ? QJsonValue(document.object())
                                                  : QJsonValue();
    if (c.Json()) {
        c.Out().Field(QStringLiteral("data"), data);
        return;
    }
    const QString readable = data.isNull() ? QStringLiteral("(no data)\n") : Readable(data);
    if (!Paged(readable))
        c.Out().Body(QStringLiteral("data"), readable.chopped(1));
}

// Done(), with the content service's own meanings where the shared words would mislead: a
// missing sign-in is -1 from the pipeline, and 5 is another member's list refused.
int Finish(Context& c, int result)
{
    if (result == Service::WS_UNEXPECT_FAIL && !c.Service().IsMemberLogIn()) {
        Failure failure = c.ServiceFailure(result);
        failure.cause = QStringLiteral("not_signed_in");
        failure.text = QStringLiteral("no member is signed in");
        failure.words.clear();
        failure.hint = QStringLiteral("sign in first: qmmember login");
        return c.Fail(failure);
    }
    if (result == 5 && c.command().name == QLatin1String("content list")) {
        Failure failure = c.ServiceFailure(result);
        failure.cause = QStringLiteral("not_allowed");
        failure.text = QStringLiteral("member %1 has not named you a sitter: their list is not yours to see")
                           .arg(c.Value(QStringLiteral("owner")));
        failure.words.clear();
        failure.hint = QStringLiteral("leave out --owner for your own list");
        return c.Fail(failure);
    }
    return c.Done(result);
}

// The catalogue lists of a product version.
int Catalogue(Context& c, const QString& which)
{
    int timeoutMs = 0;
    if (!c.Seconds(QStringLiteral("timeout"), 30, timeoutMs))
        return kExitUsage;
    const std::wstring product = c.Arg(0).toStdWString();
    const std::wstring version = c.Arg(1).toStdWString();
    Service& service = c.Service();
    std::wstring out;
    int result = Service::WS_UNEXPECT_FAIL;
    if (which == QLatin1String("types"))
        result = service.GetContentTypeList(product, version, out, timeoutMs);
    else if (which == QLatin1String("types-v2"))
        result = service.GetContentTypeListV2(product, version, out, timeoutMs);
    else if (which == QLatin1String("categories"))
        result = service.GetContentCategoryList(product, version, out, timeoutMs);
    else if (which == QLatin1String("base"))
        result = service.GetContentBaseList(product, out, timeoutMs);
    else if (which == QLatin1String("gallery"))
        result = service.GetSmartGalleryInitializeInfo(product, version, out, timeoutMs);
    else if (which == QLatin1String("meta-ex"))
        result = service.GetMetadataEX(product, version, out, timeoutMs);
    else if (which == QLatin1String("sitters"))
        result = service.GetSitterMemberList(out, timeoutMs);
    if (result == Service::WS_OK)
        ShowData(c, out);
    return Finish(c, result);
}

int MemberList(Context& c)
{
    static const QList<QPair<QString, Service::EMemberContentListType>> kinds{
        {QStringLiteral("inventory"), Service::MemberContentInventory},
        {QStringLiteral("mine"), Service::MemberContentMine},
        {QStringLiteral("recommend"), Service::MemberContentRecommend},
        {QStringLiteral("mine-alias"), Service::MemberContentMineAlias}};
    int timeoutMs = 0;
    if (!c.Seconds(QStringLiteral("timeout"), 30, timeoutMs))
        return kExitUsage;
    int kind = -1;
    for (const auto& entry : kinds)
        if (entry.first == c.Arg(0))
            kind = entry.second;
    if (kind < 0)
        return c.Usage(QStringLiteral("unknown list '%1': use inventory, mine, recommend or mine-alias").arg(c.Arg(0)));
    const bool async = c.Has(QStringLiteral("async"));
    Service& service = c.Service();
    const QString id = Service::GenerateApiRequestID();
    std::wstring text;
    bool finished = false;
    int failure = Service::WS_OK;
    QEventLoop loop;
    // The host's side of the pattern: both signals matched by our own identifier.
    QObject::connect(&service, &Service::ErrorNotice, &loop, [&](QString kGuid, Service::EWSResult eResult) {
        if (kGuid == id)
            failure = eResult;
    });
    QObject::connect(&service, &Service::FinishApiRequest, &loop,
                     [&](const std::wstring& strRaw, bool, QString kGuid) {
                         if (kGuid != id)
                             return;
                         text = strRaw;
                         finished = true;
                         loop.quit();
                     });
    int result = service.GetMemberContentList(Service::EMemberContentListType(kind), c.Arg(1).toStdWString(),
                                              c.Arg(2).toStdWString(), id,
                                              c.Value(QStringLiteral("owner")).toStdWString(), timeoutMs, !async);
    if (async && result == Service::WS_OK) {
        // The request keeps its own time limit; this bound only guards the wait.
        QTimer::singleShot(timeoutMs + 5000, &loop, &QEventLoop::quit);
        if (!finished && failure == Service::WS_OK)
            loop.exec();
        if (failure != Service::WS_OK)
            result = failure;
        else if (!finished)
            result = Service::WS_CONNECTION_TIMEOUT;
    }
    if (result == Service::WS_OK)
        ShowData(c, text);
    return Finish(c, result);
}

int QMContent(Context& c)
{
    int timeoutMs = 0;
    if (!c.Seconds(QStringLiteral("timeout"), 30, timeoutMs))
        return kExitUsage;
    std::wstring out;
    const int result = c.Service().GetQMContent(WideIds(c.Args()), out, timeoutMs);
    if (result == Service::WS_OK)
        ShowData(c, out);
    return Finish(c, result);
}

bool ReadNumber(Context& c, const QString& option, int& value)
{
    if (!c.Has(option))
        return true;
    bool ok = false;
    value = c.Value(option).toInt(&ok);
    if (!ok) {
        c.Usage(QStringLiteral("--%1 wants a whole number, not '%2'").arg(option, c.Value(option)));
        return false;
    }
    return true;
}

int MetaData(Context& c)
{
    int timeoutMs = 0;
    if (!c.Seconds(QStringLiteral("timeout"), 60, timeoutMs))
        return kExitUsage;
    int index = 0;
    int target = 1;
    if (!ReadNumber(c, QStringLiteral("index"), index) || !ReadNumber(c, QStringLiteral("target"), target))
        return kExitUsage;
    const QStringList args = c.Args();
    std::wstring out;
    const int result = c.Service().GetContentMetaData(args.at(0).toStdWString(), args.at(1).toStdWString(),
                                                      WideIds(args.mid(2)), index, target, out, timeoutMs);
    if (result == Service::WS_OK)
        ShowData(c, out);
    return Finish(c, result);
}

int NewVersions(Context& c)
{
    int timeoutMs = 0;
    if (!c.Seconds(QStringLiteral("timeout"), 30, timeoutMs))
        return kExitUsage;
    const QStringList args = c.Args();
    std::vector<std::wstring> found;
    const int result = c.Service().GetNewVersionContentIDList(args.at(0).toStdWString(), args.at(1).toStdWString(),
                                                              WideIds(args.mid(2)), found, timeoutMs);
    if (result == Service::WS_OK) {
        QJsonArray ids;
        for (const std::wstring& id : found)
            ids.append(QString::fromStdWString(id));
        if (c.Json()) {
            c.Out().Field(QStringLiteral("new_versions"), ids);
        } else {
            QString text = ids.isEmpty() ? QStringLiteral("no item has a newer file version") : QString();
            for (const QJsonValue& id : ids)
                text += (text.isEmpty() ? QString() : QStringLiteral("\n")) + id.toString();
            if (!Paged(text + QLatin1Char('\n')))
                c.Out().Body(QStringLiteral("new_versions"), text);
        }
    }
    return Finish(c, result);
}

int HashNotice(Context& c)
{
    int timeoutMs = 0;
    if (!c.Seconds(QStringLiteral("timeout"), 30, timeoutMs))
        return kExitUsage;
    const QStringList args = c.Args();
    const int result = c.Service().NotifyInconsistentMetadataHash(args.at(0).toStdWString(),
                                                                  args.at(1).toStdWString(), WideIds(args.mid(2)),
                                                                  timeoutMs);
    if (result == Service::WS_OK)
        c.Out().Field(QStringLiteral("notified"), args.size() - 2);
    return Finish(c, result);
}

int CartAdd(Context& c)
{
    int timeoutMs = 0;
    if (!c.Seconds(QStringLiteral("timeout"), 30, timeoutMs))
        return kExitUsage;
    QSet<QString> links;
    const int result = c.Service().AddToMemberCart(WideIds(c.Args()), links, timeoutMs);
    if (result == Service::WS_OK) {
        QStringList sorted = links.values();
        sorted.sort();
        c.Out().Field(QStringLiteral("added"), sorted.size());
        c.Out().Field(QStringLiteral("cart_links"), QJsonArray::fromStringList(sorted));
        if (sorted.size() < c.Args().size())
            c.Out().Field(QStringLiteral("note"), QStringLiteral("the service refused the other items (already in "
                                                                 "the cart, owned, not for sale or unknown)"));
    }
    return Finish(c, result);
}

Command Make(const QString& name, const QString& synopsis, const QString& summary, int minArgs, int maxArgs,
             std::function<int(Context&)> run, double timeoutSeconds = 30)
{
    Command command;
    command.name = name;
    command.synopsis = synopsis;
    command.summary = summary;
    command.options = {TimeoutOption(timeoutSeconds), ProductKeyOption()};
    command.run = std::move(run);
    command.minArgs = minArgs;
    command.maxArgs = maxArgs;
    command.store = StoreUse::Read;
    return command;
}

} // namespace

QList<Command> ContentCommands()
{
    const QString pv = QStringLiteral("PRODUCT VERSION");
    const QString tableHelp =
        QStringLiteral("Prints the service's list as a table (paged through less on a terminal); --json prints "
                       "the reply's data as it came, under \"data\".");
    QList<Command> commands;
    auto catalogue = [&](const QString& verb, const QString& synopsis, const QString& summary, int args) {
        Command command = Make(QStringLiteral("content ") + verb, synopsis, summary, args, args,
                               [verb](Context& c) { return Catalogue(c, verb); });
        command.help = tableHelp;
        commands.append(command);
    };
    catalogue(QStringLiteral("types"), pv, QStringLiteral("the content types of a product version"), 2);
    catalogue(QStringLiteral("types-v2"), pv,
              QStringLiteral("the content types of a product version (ContentManager20)"), 2);
    catalogue(QStringLiteral("categories"), pv, QStringLiteral("the content categories of a product version"), 2);
    catalogue(QStringLiteral("base"), QStringLiteral("PRODUCT"), QStringLiteral("the content base list of a product"),
              1);
    catalogue(QStringLiteral("gallery"), pv, QStringLiteral("the content gallery's initial data"), 2);
    catalogue(QStringLiteral("meta-ex"), pv, QStringLiteral("the extended metadata of a product version"), 2);
    catalogue(QStringLiteral("sitters"), QString(), QStringLiteral("the members allowed to act for you (needs login)"),
              0);

    Command list = Make(QStringLiteral("content list"),
                        QStringLiteral("inventory|mine|recommend|mine-alias PRODUCT VERSION [--owner MID] [--async]"),
                        QStringLiteral("one of your content lists, or another member's with --owner (needs login)"),
                        3, 3, MemberList);
    list.help = tableHelp + QStringLiteral(" With --async the request completes in the event loop, as a launcher "
                                           "makes it.");
    list.options << QCommandLineOption(QStringLiteral("owner"), QStringLiteral("the member whose list to show"),
                                       QStringLiteral("MID"))
                 << QCommandLineOption(QStringLiteral("async"), QStringLiteral("send the request asynchronously"));
    commands.append(list);

    Command get = Make(QStringLiteral("content get"), QStringLiteral("ID..."),
                       QStringLiteral("the service's records of content items (needs login)"), 1, -1, QMContent);
    get.help = tableHelp + QStringLiteral(" All IDs go in one request.");
    commands.append(get);

    Command meta = Make(QStringLiteral("content meta"), QStringLiteral("PRODUCT VERSION ID... [--index N --target N]"),
                        QStringLiteral("the metadata of content items (needs login)"), 3, -1, MetaData, 60);
    meta.help = tableHelp + QStringLiteral(" All IDs go in one request; --index (default 0) and --target (default 1) "
                                           "are passed to the service as they are.");
    meta.options << QCommandLineOption(QStringLiteral("index"), QStringLiteral("the request index"), QStringLiteral("N"))
                 << QCommandLineOption(QStringLiteral("target"), QStringLiteral("the request target"),
                                       QStringLiteral("N"));
    commands.append(meta);

    Command versions = Make(QStringLiteral("content new-versions"), QStringLiteral("PRODUCT VERSION ID..."),
                            QStringLiteral("which items have a newer file version than you last fetched"), 3, -1,
                            NewVersions);
    versions.help = QStringLiteral("Prints one ID a line, in the service's order; --json gives them under "
                                   "\"new_versions\".");
    commands.append(versions);

    Command notice = Make(QStringLiteral("content hash-notice"), QStringLiteral("PRODUCT VERSION ID..."),
                          QStringLiteral("tell the service these items' metadata failed the hash check (needs login)"),
                          3, -1, HashNotice);
    commands.append(notice);

    Command cart = Make(QStringLiteral("cart add"), QStringLiteral("ID..."),
                        QStringLiteral("put content items into your cart (needs login)"), 1, -1, CartAdd);
    cart.help = QStringLiteral("Prints the cart links of the items the service took; items already in the cart, "
                               "already owned, not for sale or unknown add none.");
    commands.append(cart);
    return commands;
}

} // namespace Cli
