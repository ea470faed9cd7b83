// The publish commands (publish FILE ...). Cli.h tells how a command is declared.
#include "Cli.h"
#include "Terminal.h"

#include "QMContentPublishJob.h"

#include <QEventLoop>
#include <QFileInfo>

#include <cstdio>

namespace Cli {

namespace {

const char* const kPhaseNames[] = {"hash", "credentials", "transfer", "metadata", "processing", "done"};

QString Mib(qint64 bytes)
{
    return QString::number(bytes / 1048576.0, 'f', 1);
}

QString Eta(int seconds)
{
    if (seconds < 0)
        return QStringLiteral("--:--");
    return QStringLiteral("%1:%2").arg(seconds / 60, 2, 10, QLatin1Char('0')).arg(seconds % 60, 2, 10, QLatin1Char('0'));
}

// The bar of a terminal: bytes, rate and ETA while hashing and sending, the service's
// percentage while it processes.
QString Bar(int phase, qint64 done, qint64 total, double rate, int eta)
{
    const int width = 24;
    const int filled = total > 0 ? int(width * done / total) : 0;
    const QString bar = QString(filled, QLatin1Char('#')) + QString(width - filled, QLatin1Char('-'));
    const QString name = QString::fromLatin1(kPhaseNames[phase]);
    if (phase == CQMContentPublishJob::PhaseHash || phase == CQMContentPublishJob::PhaseTransfer)
        return QStringLiteral("%1 [%2] %3/%4 MiB  %5 MiB/s  ETA %6")
            .arg(name, -11)
            .arg(bar, Mib(done), Mib(total), QString::number(rate / 1048576.0, 'f', 1), Eta(eta));
    if (phase == CQMContentPublishJob::PhaseProcessing)
        return QStringLiteral("%1 [%2] %3%  ETA %4").arg(name, -11).arg(bar).arg(done).arg(Eta(eta));
    return QStringLiteral("%1 [%2] %3/%4").arg(name, -11).arg(bar).arg(done).arg(total);
}

QString CauseOf(int code)
{
    switch (code) {
    case CQMContentPublishJob::FileUnreadable: return QStringLiteral("file_unreadable");
    case CQMContentPublishJob::StorageRefusedCredentials: return QStringLiteral("storage_credentials");
    case CQMContentPublishJob::StorageFailed: return QStringLiteral("storage_failed");
    case CQMContentPublishJob::TransferStalled: return QStringLiteral("transfer_stalled");
    case CQMContentPublishJob::ClockSkew: return QStringLiteral("clock_skew");
    case CQMContentPublishJob::TooLarge: return QStringLiteral("too_large");
    case CQMContentPublishJob::BadReply: return QStringLiteral("bad_reply");
    case CQMContentPublishJob::PollingBusy: return QStringLiteral("polling_busy");
    case 30: return QStringLiteral("object_missing");
    case 31: return QStringLiteral("size_mismatch");
    case 32: return QStringLiteral("hash_mismatch");
    case 33: return QStringLiteral("bad_metadata");
    default: return QStringLiteral("processing_failed");
    }
}

int Publish(Context& c)
{
    int timeoutMs = 0;
    if (!c.Seconds(QStringLiteral("timeout"), 30, timeoutMs))
        return kExitUsage;
    CQMContentPublishJob::Options options;
    options.filePath = c.Arg(0);
    options.productId = c.Value(QStringLiteral("product")).toStdWString();
    options.version = c.Value(QStringLiteral("version")).toStdWString();
    options.title = c.Value(QStringLiteral("title"));
    options.resume = c.Has(QStringLiteral("resume"));
    options.timeoutMs = timeoutMs;
    if (options.productId.empty() || options.version.empty())
        return c.Usage(QStringLiteral("publish needs --product ID and --version V"));
    if (c.Has(QStringLiteral("type"))) {
        bool ok = false;
        options.type = c.Value(QStringLiteral("type")).toInt(&ok);
        if (!ok || options.type < 1 || options.type > 999)
            return c.Usage(QStringLiteral("--type takes a whole number from 1 to 999"));
    }
    if (!QFileInfo(options.filePath).isFile())
        return c.Fail(QStringLiteral("file_unreadable"), QStringLiteral("no file %1").arg(options.filePath));

    CQMMemberWebService& service = c.Service();
    CQMContentPublishJob job(&service, options);
    QEventLoop loop;
    int code = 0;
    QString text;
    bool interrupted = false;
    const bool bar = !c.Json() && Terminal::ErrorIsTerminal();
    QObject::connect(&job, &CQMContentPublishJob::result, &loop, [&](int result, const QString& words) {
        code = result;
        text = words;
        loop.quit();
    });
    QObject::connect(&job, &CQMContentPublishJob::phaseChanged, &loop, [&](int phase) {
        c.Event({{QStringLiteral("event"), QStringLiteral("phase")},
                 {QStringLiteral("phase"), QLatin1String(kPhaseNames[phase])}},
                bar || phase == CQMContentPublishJob::PhaseDone
                    ? QString()
                    : QStringLiteral("%1...").arg(QLatin1String(kPhaseNames[phase])));
    });
    QObject::connect(&job, &CQMContentPublishJob::partSent, &loop, [&](int number, int count) {
        c.Event({{QStringLiteral("event"), QStringLiteral("part")},
                 {QStringLiteral("number"), number},
                 {QStringLiteral("count"), count}},
                QString());
    });
    QObject::connect(&job, &CQMContentPublishJob::progress, &loop,
                     [&](int phase, qint64 done, qint64 total, double rate, int eta) {
                         if (bar) {
                             std::fprintf(stderr, "\r\033[K%s", Bar(phase, done, total, rate, eta).toUtf8().constData());
                             std::fflush(stderr);
                         } else if (c.Json()) {
                             c.Event({{QStringLiteral("event"), QStringLiteral("progress")},
                                      {QStringLiteral("phase"), QLatin1String(kPhaseNames[phase])},
                                      {QStringLiteral("done"), double(done)},
                                      {QStringLiteral("total"), double(total)},
                                      {QStringLiteral("rate"), rate},
                                      {QStringLiteral("eta"), eta}},
                                     QString());
                         }
                     });
    // Ctrl-C cancels the job, which aborts what it began on the storage, then ends with Cancelled.
    if (!Terminal::OnInterrupt(&loop, [&] {
            interrupted = true;
            job.kill();
        }))
        return c.Fail(QStringLiteral("failed"), QStringLiteral("cannot prepare for Ctrl-C"));
    job.start();
    loop.exec();
    if (bar)
        std::fputs("\r\033[K", stderr);

    c.Out().Field(QStringLiteral("file"), options.filePath);
    if (!job.PackId().isEmpty()) {
        c.Out().Field(QStringLiteral("pack"), job.PackId());
        c.Out().Field(QStringLiteral("key"), job.ObjectKey());
    }
    c.Out().Field(QStringLiteral("parts_sent"), job.PartsSent());
    c.Out().Field(QStringLiteral("parts_found"), job.PartsFound());
    if (code == CQMContentPublishJob::Published) {
        c.Out().Field(QStringLiteral("status"), QStringLiteral("published"));
        return c.Ok();
    }
    if (code == CQMContentPublishJob::Cancelled || interrupted) {
        c.Fail(QStringLiteral("interrupted"), QStringLiteral("cancelled: nothing was published"));
        return kExitInterrupted;
    }
    // The service's own results; the job's and the processing's causes otherwise.
    if (code < 0 && code > -100)
        return c.Done(code);
    const bool resumable = code == CQMContentPublishJob::TransferStalled || code == CQMContentPublishJob::StorageFailed;
    return c.Fail(CauseOf(code), text,
                  resumable ? QStringLiteral("run the same command with --resume to go on where it stopped")
                            : QString());
}

} // namespace

QList<Command> PublishCommands()
{
    Command publish;
    publish.name = QStringLiteral("publish");
    publish.synopsis = QStringLiteral("FILE --product ID --version V [--title T] [--type N] [--resume]");
    publish.summary = QStringLiteral("publish a content pack: hash, upload to the storage, metadata, processing");
    publish.help = QStringLiteral(
        "Takes FILE to published in phases: hash, credentials and IDs, transfer to the storage, metadata, "
        "the service's processing. Files of 16 MiB and more go up in 8 MiB parts, recorded in FILE.qmupload; "
        "--resume goes on from there after an interruption, sending only the missing parts.\n\n"
        "A terminal shows a progress bar; --json prints one event per line (phase, part, progress) and then "
        "the result. Ctrl-C cancels: the upload is aborted on the storage and nothing is published (exit 130).");
    publish.options = {
        {QStringLiteral("product"), QStringLiteral("The application product the pack belongs to."), QStringLiteral("ID")},
        {QStringLiteral("version"), QStringLiteral("The product version."), QStringLiteral("V")},
        {QStringLiteral("title"), QStringLiteral("The title (default: the file's name)."), QStringLiteral("T")},
        {QStringLiteral("type"), QStringLiteral("The content type (default 1)."), QStringLiteral("N")},
        {QStringLiteral("resume"), QStringLiteral("Go on from the journal of an interrupted upload.")},
        TimeoutOption(30),
        ProductKeyOption(),
    };
    publish.run = Publish;
    publish.minArgs = 1;
    publish.maxArgs = 1;
    publish.store = StoreUse::Write;
    publish.streams = true;
    return {publish};
}

} // namespace Cli
