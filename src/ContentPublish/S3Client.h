#pragma once
// Requests to the S3-compatible storage of uploads: signed by libcurl (CURLOPT_AWS_SIGV4), or by
// our own signer once the storage's clock has been found to differ from ours.

#include <atomic>
#include <functional>
#include <string>
#include <vector>

namespace QMPublish {

struct S3Reply {
    int curlCode = 0;    // CURLcode
    long status = 0;     // HTTP status, 0 when none came
    std::string body;    // the reply, up to the request's limit
    std::string etag;    // ETag header, quotes kept
    long long date = -1; // the storage's Date header, seconds since the epoch
    std::string error;   // curl's words on a transport failure
    /// The storage's error code in the body ("SignatureDoesNotMatch"), or empty.
    std::string Code() const;
};

struct S3Part {
    int number = 0;
    std::string etag;
    long long size = 0;
};

class S3Client
{
public:
    /// \a stop aborts a request in flight; \a sent counts body bytes as they leave.
    S3Client(std::string url, std::string key, std::string secret, std::string bucket,
             const std::atomic<bool>& stop, std::atomic<long long>& sent);

    /// No body byte for this long ends a request with a time-out.
    void SetStallSeconds(int seconds) { m_stallSeconds = seconds; }
    /// Bodies leave at most this fast (bytes per second; 0: no limit).
    void SetMaxRate(long long bytesPerSecond) { m_maxRate = bytesPerSecond; }
    /// Signs with our clock moved by \a seconds (the storage's time minus ours).
    void SetClockOffset(long long seconds) { m_offset = seconds; }
    long long ClockOffset() const { return m_offset; }

    /// \a query without "?", its names in ascending order ("partNumber=1&uploadId=X").
    S3Reply Request(const char* method, const std::string& key, const std::string& query, const char* data,
                    size_t size, bool md5, size_t replyLimit = 64 * 1024) const;

    S3Reply Put(const std::string& key, const char* data, size_t size) const;
    S3Reply Create(const std::string& key, std::string& uploadId) const;
    S3Reply UploadPart(const std::string& key, const std::string& uploadId, int number, const char* data,
                       size_t size) const;
    /// Every part the storage holds for the upload (pages followed, at most 10000 parts).
    S3Reply ListParts(const std::string& key, const std::string& uploadId, std::vector<S3Part>& parts) const;
    S3Reply Complete(const std::string& key, const std::string& uploadId, const std::vector<S3Part>& parts) const;
    S3Reply Abort(const std::string& key, const std::string& uploadId) const;
    /// The open multipart uploads of \a key (their upload IDs).
    S3Reply ListUploads(const std::string& key, std::vector<std::string>& uploadIds) const;
    /// The object, its first \a limit bytes in the reply's body.
    S3Reply Get(const std::string& key, size_t limit) const;

private:
    std::string m_url;
    std::string m_key;
    std::string m_secret;
    std::string m_bucket;
    const std::atomic<bool>& m_stop;
    std::atomic<long long>& m_sent;
    int m_stallSeconds = 30;
    long long m_offset = 0;
    long long m_maxRate = 0;
};

/// Values between <tag> and </tag> in \a xml, in order.
std::vector<std::string> XmlValues(const std::string& xml, const std::string& tag);

} // namespace QMPublish
