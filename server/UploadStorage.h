#pragma once

#include <atomic>
#include <functional>
#include <string>

// The server's side of the S3-compatible storage: SigV4-signed requests, path style.
class UploadStorage
{
public:
    UploadStorage(std::string url, std::string key, std::string secret, std::string bucket);

    bool Configured() const { return !m_url.empty(); }
    const std::string& Bucket() const { return m_bucket; }

    /// Creates the bucket unless it exists; false with \a error otherwise.
    bool EnsureBucket(std::string& error) const;

    /// Streams an object to \a sink; \a httpStatus receives the storage's answer (404: missing).
    /// Stops early, false, when \a stop becomes true or \a sink returns false.
    bool Fetch(const std::string& key, const std::function<bool(const char*, size_t)>& sink,
               const std::atomic<bool>& stop, long& httpStatus, std::string& error) const;

private:
    std::string m_url;
    std::string m_key;
    std::string m_secret;
    std::string m_bucket;
};
