#pragma once

#include "UploadStorage.h"

#include <QString>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

class ServerState;

// Processes uploaded packs one at a time in a thread of its own: fetches each object from
// the storage, checks its size and SHA-256 against the metadata, then publishes the items
// into the catalogue in one transaction. Progress and outcome live in the upload_packs table.
class UploadProcessor
{
public:
    // The "ProcessStatus" values of the processing log.
    enum Status {
        Published = 2,
        Running = 0,
        Queued = 11,
        ObjectMissing = 30,
        SizeMismatch = 31,
        HashMismatch = 32,
        BadMetadata = 33,
        StorageFailed = 34,
    };

    UploadProcessor(ServerState& state, const UploadStorage& storage);
    ~UploadProcessor();

    /// Queues a pack that is stored with status Queued.
    void Enqueue(const QString& packId);

private:
    void Run();
    void Process(const QString& packId);
    void Report(const QString& packId, int status, int percentage, const QString& line);

    ServerState& m_state;
    const UploadStorage& m_storage;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<QString> m_queue;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};
