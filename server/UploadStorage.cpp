#include "UploadStorage.h"

#include <curl/curl.h>

#include <utility>

namespace {

// SHA-256 of an empty body, for the requests that carry none.
const char* const kEmptySha256 = "x-amz-content-sha256: e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";

struct FetchState {
    const std::function<bool(const char*, size_t)>* sink;
    const std::atomic<bool>* stop;
    long status = 0;
    CURL* curl = nullptr;
    std::string errorBody;
};

size_t Write(char* data, size_t size, size_t count, void* user)
{
    auto* state = static_cast<FetchState*>(user);
    if (*state->stop)
        return 0;
    if (state->status == 0)
        curl_easy_getinfo(state->curl, CURLINFO_RESPONSE_CODE, &state->status);
    if (state->status != 200) {
        if (state->errorBody.size() < 4096)
            state->errorBody.append(data, size * count);
        return size * count;
    }
    return (*state->sink)(data, size * count) ? size * count : 0;
}

size_t Discard(char*, size_t size, size_t count, void*)
{
    return size * count;
}

// Signing and timeouts shared by every request.
CURL* NewHandle(const std::string& url, const std::string& key, const std::string& secret, curl_slist* headers)
{
    CURL* curl = curl_easy_init();
    if (!curl)
        return nullptr;
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_AWS_SIGV4, "aws:amz:us-east-1:s3");
    curl_easy_setopt(curl, CURLOPT_USERNAME, key.c_str());
    curl_easy_setopt(curl, CURLOPT_PASSWORD, secret.c_str());
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, 10000L);
    // A storage that stops sending for 30 s is given up on.
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, 30L);
    return curl;
}

} // namespace

UploadStorage::UploadStorage(std::string url, std::string key, std::string secret, std::string bucket)
    : m_url(std::move(url))
    , m_key(std::move(key))
    , m_secret(std::move(secret))
    , m_bucket(std::move(bucket))
{
    while (!m_url.empty() && m_url.back() == '/')
        m_url.pop_back();
}

bool UploadStorage::EnsureBucket(std::string& error) const
{
    curl_slist* headers = curl_slist_append(nullptr, kEmptySha256);
    CURL* curl = NewHandle(m_url + "/" + m_bucket, m_key, m_secret, headers);
    if (!curl) {
        curl_slist_free_all(headers);
        error = "no curl handle";
        return false;
    }
    curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, "PUT");
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &Discard);
    const CURLcode code = curl_easy_perform(curl);
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_cleanup(curl);
    curl_slist_free_all(headers);
    if (code != CURLE_OK) {
        error = curl_easy_strerror(code);
        return false;
    }
    // 409: the bucket is there already.
    if (status != 200 && status != 409) {
        error = "the storage answered " + std::to_string(status) + " to creating the bucket";
        return false;
    }
    return true;
}

bool UploadStorage::Fetch(const std::string& key, const std::function<bool(const char*, size_t)>& sink,
                          const std::atomic<bool>& stop, long& httpStatus, std::string& error) const
{
    curl_slist* headers = curl_slist_append(nullptr, kEmptySha256);
    char* escaped = curl_easy_escape(nullptr, key.c_str(), static_cast<int>(key.size()));
    std::string path = escaped ? escaped : "";
    curl_free(escaped);
    // Slashes stay: they separate the key's folders in the path.
    for (size_t at = path.find("%2F"); at != std::string::npos; at = path.find("%2F", at + 1))
        path.replace(at, 3, "/");
    CURL* curl = NewHandle(m_url + "/" + m_bucket + "/" + path, m_key, m_secret, headers);
    if (!curl) {
        curl_slist_free_all(headers);
        error = "no curl handle";
        return false;
    }
    FetchState state{&sink, &stop};
    state.curl = curl;
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &Write);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &state);
    const CURLcode code = curl_easy_perform(curl);
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &httpStatus);
    curl_easy_cleanup(curl);
    curl_slist_free_all(headers);
    if (code != CURLE_OK) {
        error = stop ? std::string("stopped") : std::string(curl_easy_strerror(code));
        return false;
    }
    if (httpStatus != 200) {
        error = "the storage answered " + std::to_string(httpStatus);
        return false;
    }
    return true;
}
