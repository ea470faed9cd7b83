#pragma once

#include <QObject>
#include <QString>

#include <atomic>
#include <functional>
#include <string>
#include <thread>

#include "qmcontentpublish_export.h"

class CQMMemberWebService;

/// Takes a content pack from a file on disk to published, in phases: hash, credentials and
/// IDs, transfer to the storage, metadata, server processing, done. Each phase reports bytes
/// (or percent) done and total, the rate and an ETA; the job ends with one result().
///
/// Files above the multipart threshold go up in 8 MiB parts, recorded in a journal next to
/// the pack ("FILE.qmupload"), so that a job started again with resume on goes on where the
/// last one stopped, even in another process. kill() aborts the upload on the storage and the
/// server polling; nothing is published then.
///
/// \code
/// CQMContentPublishJob::Options options;
/// options.filePath = "pack.zip"; options.productId = L"Studio"; options.version = L"8";
/// auto* job = new CQMContentPublishJob(&service, options);
/// QObject::connect(job, &CQMContentPublishJob::result, [job](int code, const QString&) { job->deleteLater(); });
/// job->start();
/// \endcode
class QMCONTENTPUBLISH_EXPORT CQMContentPublishJob : public QObject
{
    Q_OBJECT

public:
    enum Phase { PhaseHash, PhaseCredentials, PhaseTransfer, PhaseMetadata, PhaseProcessing, PhaseDone };

    /// Results besides 2 (published), the service's negative codes and the server's final
    /// processing statuses (30 object missing, 31 size mismatch, 32 hash mismatch, 33 bad metadata,
    /// 34 storage failure at the server).
    enum Result {
        Published = 2,
        FileUnreadable = -100,
        StorageRefusedCredentials = -101, ///< wrong key or secret (the storage's own code in the text)
        StorageFailed = -102,
        TransferStalled = -103, ///< no bytes for the stall time, after every retry
        Cancelled = -104,
        ClockSkew = -105, ///< the storage refused our time even after correcting it
        TooLarge = -106,  ///< above the largest size the service takes
        BadReply = -107,  ///< the service's upload info or content IDs could not be read
        PollingBusy = -108, ///< the service runs another upload polling: the pack's outcome is not followed
    };

    struct Options {
        QString filePath;
        std::wstring productId;
        std::wstring version;
        QString title; ///< default: the file's name
        int type = 1;
        bool resume = false;             ///< go on from the journal next to the file
        qint64 multipartThreshold = 16 * 1024 * 1024; ///< larger files go in parts
        qint64 partSize = 8 * 1024 * 1024; ///< 5 MiB at least: the storage refuses smaller parts but the last
        int stallSeconds = 30;           ///< no bytes for this long: the request is retried
        int retries = 3;                 ///< per request, with 1, 2, 4 ... s between tries
        int pollIntervalMs = 500;        ///< the server's processing log
        int timeoutMs = 30000;           ///< each service call
        qint64 maxBytesPerSecond = 0;    ///< 0: no limit on the transfer's rate
    };

    /// \a service must outlive the job and live in the job's thread, which runs an event loop.
    CQMContentPublishJob(CQMMemberWebService* service, Options options, QObject* parent = nullptr);
    /// Destroying a running job cancels it as kill() does, without the result signal.
    ~CQMContentPublishJob() override;

    /// Starts the job; returns at once.
    void start();
    /// Cancels: the transfer stops, a multipart upload is aborted on the storage, the polling
    /// ends; result(Cancelled) follows. Any thread.
    void kill();

    /// Parts sent to the storage by this job (not those a resumed upload found there).
    int PartsSent() const { return m_partsSent; }
    /// Parts a resumed upload found on the storage already.
    int PartsFound() const { return m_partsFound; }
    /// The journal of \a filePath's upload.
    static QString JournalPath(const QString& filePath) { return filePath + QStringLiteral(".qmupload"); }
    /// The pack's ID, once known; empty before.
    QString PackId() const { return m_packId; }
    /// The object key in the bucket, once known; empty before.
    QString ObjectKey() const { return m_key; }

signals:
    /// A new phase begins. In the job's thread.
    void phaseChanged(int phase);
    /// Progress of \a phase: \a done of \a total (bytes; percent in the processing phase), the rate in
    /// units per second and the ETA in seconds (-1 when unknown). In the job's thread.
    void progress(int phase, qint64 done, qint64 total, double rate, int etaSeconds);
    /// Part \a number of \a count is on the storage (multipart only). In the job's thread.
    void partSent(int number, int count);
    /// The one end of the job, \a code as in Result, with a readable \a text. In the job's thread.
    void result(int code, const QString& text);

private:
    void Run();
    void AfterHash(int code, const QString& text);
    bool ReadJournal();
    void AfterTransfer(int code, const QString& text);
    void Finish(int code, const QString& text);
    void SetPhase(int phase, qint64 total);
    void Tick();
    void InWorker(std::function<void()> work);
    void Post(std::function<void()> work);
    int Transfer(QString& text);

    CQMMemberWebService* m_service;
    Options m_options;
    std::thread m_thread;
    std::atomic<bool> m_cancel{false};
    std::atomic<int> m_partsSent{0};
    std::atomic<int> m_partsFound{0};
    std::atomic<long long> m_done{0};
    qint64 m_total = 0;
    std::atomic<long long> m_base{0}; // bytes of the phase done before this job (parts found on the storage)
    bool m_finished = false;
    int m_phase = PhaseHash;
    qint64 m_phaseStart = 0;
    class QTimer* m_timer = nullptr;
    QMetaObject::Connection m_progressConnection;
    QMetaObject::Connection m_resultConnection;
    // What the transfer needs; the worker reads them while it runs, nothing else writes them.
    QString m_packId;
    QString m_key;
    QString m_contentId;
    QString m_sha256;
    QString m_uploadId;
    QString m_staleKey;      // an upload a journal names that this job does not go on with
    QString m_staleUploadId;
    std::string m_storageUrl;
    std::string m_accessKey;
    std::string m_secretKey;
    std::string m_bucket;
    qint64 m_size = 0;
};
