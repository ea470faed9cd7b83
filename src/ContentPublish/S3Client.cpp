#include "S3Client.h"

#include <curl/curl.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <chrono>
#include <cstring>
#include <ctime>
#include <utility>

namespace QMPublish {

namespace {

constexpr size_t kReplyLimit = 64 * 1024;

std::string Hex(const unsigned char* data, unsigned int size)
{
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (unsigned int i = 0; i < size; ++i) {
        out += digits[data[i] >> 4];
        out += digits[data[i] & 15];
    }
    return out;
}

std::string Digest(const EVP_MD* md, const char* data, size_t size, bool base64)
{
    unsigned char out[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(data, size, out, &length, md, nullptr);
    if (!base64)
        return Hex(out, length);
    unsigned char encoded[2 * EVP_MAX_MD_SIZE];
    const int n = EVP_EncodeBlock(encoded, out, int(length));
    return std::string(reinterpret_cast<char*>(encoded), size_t(n));
}

std::string Hmac(const std::string& key, const std::string& text)
{
    unsigned char out[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    HMAC(EVP_sha256(), key.data(), int(key.size()), reinterpret_cast<const unsigned char*>(text.data()), text.size(),
         out, &length);
    return std::string(reinterpret_cast<char*>(out), length);
}

// The Authorization header of SigV4 for a request signed at \a stamp (yyyymmddThhmmssZ).
std::string Authorization(const std::string& method, const std::string& path, const std::string& query,
                          const std::string& host, const std::string& payloadHash, const std::string& stamp,
                          const std::string& key, const std::string& secret)
{
    const std::string day = stamp.substr(0, 8);
    const std::string scope = day + "/us-east-1/s3/aws4_request";
    const std::string canonical = method + "\n" + path + "\n" + query + "\nhost:" + host + "\nx-amz-content-sha256:"
                                  + payloadHash + "\nx-amz-date:" + stamp
                                  + "\n\nhost;x-amz-content-sha256;x-amz-date\n" + payloadHash;
    const std::string toSign = "AWS4-HMAC-SHA256\n" + stamp + "\n" + scope + "\n"
                               + Digest(EVP_sha256(), canonical.data(), canonical.size(), false);
    std::string signingKey = Hmac("AWS4" + secret, day);
    signingKey = Hmac(signingKey, "us-east-1");
    signingKey = Hmac(signingKey, "s3");
    signingKey = Hmac(signingKey, "aws4_request");
    const std::string signature = Hmac(signingKey, toSign);
    return "Authorization: AWS4-HMAC-SHA256 Credential=" + key + "/" + scope
           + ", SignedHeaders=host;x-amz-content-sha256;x-amz-date, Signature="
           + Hex(reinterpret_cast<const unsigned char*>(signature.data()), unsigned(signature.size()));
}

struct Transfer {
    const char* data = nullptr;
    size_t size = 0;
    size_t at = 0;
    S3Reply* reply = nullptr;
    const std::atomic<bool>* stop = nullptr;
    std::atomic<long long>* sent = nullptr;
    size_t limit = kReplyLimit;
    int stallSeconds = 30;
    curl_off_t moved = -1; // bytes both ways when last seen
    std::chrono::steady_clock::time_point lastMove;
    bool stalled = false;
};

size_t ReadBody(char* buffer, size_t size, size_t count, void* user)
{
    auto* t = static_cast<Transfer*>(user);
    const size_t n = std::min(size * count, t->size - t->at);
    std::memcpy(buffer, t->data + t->at, n);
    t->at += n;
    *t->sent += static_cast<long long>(n);
    return n;
}

size_t WriteBody(char* data, size_t size, size_t count, void* user)
{
    auto* t = static_cast<Transfer*>(user);
    const size_t n = size * count;
    if (t->reply->body.size() < t->limit)
        t->reply->body.append(data, std::min(n, t->limit - t->reply->body.size()));
    return n;
}

size_t Header(char* data, size_t size, size_t count, void* user)
{
    auto* t = static_cast<Transfer*>(user);
    const size_t n = size * count;
    std::string line(data, n);
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
        line.pop_back();
    const size_t colon = line.find(':');
    if (colon != std::string::npos) {
        std::string name = line.substr(0, colon);
        for (char& ch : name)
            ch = char(std::tolower(static_cast<unsigned char>(ch)));
        std::string value = line.substr(colon + 1);
        while (!value.empty() && value.front() == ' ')
            value.erase(0, 1);
        if (name == "etag")
            t->reply->etag = value;
        else if (name == "date")
            t->reply->date = static_cast<long long>(curl_getdate(value.c_str(), nullptr));
    }
    return n;
}

// Ends the request when told to stop, or when no byte moved either way for the stall time
// (curl's own low-speed limit averages over a few seconds more than that).
int Progress(void* user, curl_off_t, curl_off_t received, curl_off_t, curl_off_t sent)
{
    auto* t = static_cast<Transfer*>(user);
    if (t->stop->load())
        return 1;
    const auto now = std::chrono::steady_clock::now();
    if (received + sent != t->moved) {
        t->moved = received + sent;
        t->lastMove = now;
    } else if (t->stallSeconds > 0 && now - t->lastMove >= std::chrono::seconds(t->stallSeconds)) {
        t->stalled = true;
        return 1;
    }
    return 0;
}

std::string Stamp(long long offset)
{
    const std::time_t now = std::time(nullptr) + static_cast<std::time_t>(offset);
    std::tm tm{};
    gmtime_r(&now, &tm);
    char buffer[32];
    std::strftime(buffer, sizeof buffer, "%Y%m%dT%H%M%SZ", &tm);
    return buffer;
}

} // namespace

std::string S3Reply::Code() const
{
    const std::vector<std::string> codes = XmlValues(body, "Code");
    return codes.empty() ? std::string() : codes.front();
}

std::vector<std::string> XmlValues(const std::string& xml, const std::string& tag)
{
    std::vector<std::string> out;
    const std::string open = "<" + tag + ">";
    const std::string close = "</" + tag + ">";
    for (size_t at = xml.find(open); at != std::string::npos; at = xml.find(open, at)) {
        at += open.size();
        const size_t end = xml.find(close, at);
        if (end == std::string::npos)
            break;
        out.push_back(xml.substr(at, end - at));
        at = end;
    }
    return out;
}

S3Client::S3Client(std::string url, std::string key, std::string secret, std::string bucket,
                   const std::atomic<bool>& stop, std::atomic<long long>& sent)
    : m_url(std::move(url))
    , m_key(std::move(key))
    , m_secret(std::move(secret))
    , m_bucket(std::move(bucket))
    , m_stop(stop)
    , m_sent(sent)
{
    while (!m_url.empty() && m_url.back() == '/')
        m_url.pop_back();
}

S3Reply S3Client::Request(const char* method, const std::string& key, const std::string& query, const char* data,
                          size_t size, bool md5, size_t replyLimit) const
{
    S3Reply reply;
    CURL* curl = curl_easy_init();
    if (!curl) {
        reply.curlCode = CURLE_OUT_OF_MEMORY;
        reply.error = "no curl handle";
        return reply;
    }
    const std::string path = "/" + m_bucket + (key.empty() ? std::string() : "/" + key);
    const std::string url = m_url + path + (query.empty() ? std::string() : "?" + query);
    const std::string payloadHash = Digest(EVP_sha256(), data ? data : "", size, false);
    curl_slist* headers = nullptr;
    headers = curl_slist_append(headers, ("x-amz-content-sha256: " + payloadHash).c_str());
    if (md5)
        headers = curl_slist_append(headers, ("Content-MD5: " + Digest(EVP_md5(), data, size, true)).c_str());
    if (m_offset == 0) {
        curl_easy_setopt(curl, CURLOPT_AWS_SIGV4, "aws:amz:us-east-1:s3");
        curl_easy_setopt(curl, CURLOPT_USERNAME, m_key.c_str());
        curl_easy_setopt(curl, CURLOPT_PASSWORD, m_secret.c_str());
    } else {
        // libcurl 7.88 sends a given x-amz-date twice, which the storage refuses: with a corrected
        // clock the request is signed here.
        const std::string host = m_url.substr(m_url.find("://") == std::string::npos ? 0 : m_url.find("://") + 3);
        const std::string stamp = Stamp(m_offset);
        headers = curl_slist_append(headers, ("x-amz-date: " + stamp).c_str());
        headers = curl_slist_append(
            headers, Authorization(method, path, query, host, payloadHash, stamp, m_key, m_secret).c_str());
    }
    Transfer transfer{data, size, 0, &reply, &m_stop, &m_sent, replyLimit, m_stallSeconds};
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, 10000L);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &WriteBody);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &transfer);
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, &Header);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &transfer);
    curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, &Progress);
    curl_easy_setopt(curl, CURLOPT_XFERINFODATA, &transfer);
    const std::string verb = method;
    if (verb == "PUT") {
        curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
        curl_easy_setopt(curl, CURLOPT_READFUNCTION, &ReadBody);
        curl_easy_setopt(curl, CURLOPT_READDATA, &transfer);
        curl_easy_setopt(curl, CURLOPT_INFILESIZE_LARGE, curl_off_t(size));
        curl_easy_setopt(curl, CURLOPT_UPLOAD_BUFFERSIZE, 512L * 1024);
        if (m_maxRate > 0)
            curl_easy_setopt(curl, CURLOPT_MAX_SEND_SPEED_LARGE, curl_off_t(m_maxRate));
    } else if (verb == "POST") {
        curl_easy_setopt(curl, CURLOPT_POST, 1L);
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, data ? data : "");
        curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, curl_off_t(size));
    } else if (verb != "GET") {
        curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, method);
    }
    reply.curlCode = curl_easy_perform(curl);
    if (transfer.stalled) {
        reply.curlCode = CURLE_OPERATION_TIMEDOUT;
        reply.error = "no bytes moved for " + std::to_string(m_stallSeconds) + " s";
    } else if (reply.curlCode != CURLE_OK) {
        reply.error = curl_easy_strerror(CURLcode(reply.curlCode));
    }
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &reply.status);
    // A body cut off after "100 Continue" got no answer: the request is one to retry.
    if (reply.status < 200)
        reply.status = 0;
    curl_easy_cleanup(curl);
    curl_slist_free_all(headers);
    return reply;
}

S3Reply S3Client::Put(const std::string& key, const char* data, size_t size) const
{
    return Request("PUT", key, std::string(), data, size, true);
}

S3Reply S3Client::Create(const std::string& key, std::string& uploadId) const
{
    // "uploads=": libcurl 7.88 signs a bare "uploads" wrongly.
    S3Reply reply = Request("POST", key, "uploads=", nullptr, 0, false);
    const std::vector<std::string> ids = XmlValues(reply.body, "UploadId");
    uploadId = ids.empty() ? std::string() : ids.front();
    return reply;
}

S3Reply S3Client::UploadPart(const std::string& key, const std::string& uploadId, int number, const char* data,
                             size_t size) const
{
    return Request("PUT", key, "partNumber=" + std::to_string(number) + "&uploadId=" + uploadId, data, size, true);
}

S3Reply S3Client::ListParts(const std::string& key, const std::string& uploadId, std::vector<S3Part>& parts) const
{
    parts.clear();
    std::string marker;
    for (int page = 0; page < 10; ++page) {
        const std::string query = marker.empty() ? "uploadId=" + uploadId
                                                 : "part-number-marker=" + marker + "&uploadId=" + uploadId;
        S3Reply reply = Request("GET", key, query, nullptr, 0, false);
        if (reply.curlCode != CURLE_OK || reply.status != 200)
            return reply;
        for (const std::string& part : XmlValues(reply.body, "Part")) {
            S3Part p;
            const auto number = XmlValues(part, "PartNumber");
            const auto etag = XmlValues(part, "ETag");
            const auto size = XmlValues(part, "Size");
            p.number = number.empty() ? 0 : std::atoi(number.front().c_str());
            p.etag = etag.empty() ? std::string() : etag.front();
            // The listing escapes the ETag's quotes.
            for (size_t at = p.etag.find("&quot;"); at != std::string::npos; at = p.etag.find("&quot;"))
                p.etag.replace(at, 6, "\"");
            p.size = size.empty() ? -1 : std::atoll(size.front().c_str());
            if (p.number > 0)
                parts.push_back(p);
        }
        const auto truncated = XmlValues(reply.body, "IsTruncated");
        const auto next = XmlValues(reply.body, "NextPartNumberMarker");
        if (truncated.empty() || truncated.front() != "true" || next.empty() || next.front() == marker)
            return reply;
        marker = next.front();
    }
    return S3Reply{CURLE_OK, 500, std::string(), std::string(), -1, "too many pages of parts"};
}

S3Reply S3Client::Complete(const std::string& key, const std::string& uploadId,
                           const std::vector<S3Part>& parts) const
{
    std::string xml = "<CompleteMultipartUpload>";
    for (const S3Part& part : parts)
        xml += "<Part><PartNumber>" + std::to_string(part.number) + "</PartNumber><ETag>" + part.etag
               + "</ETag></Part>";
    xml += "</CompleteMultipartUpload>";
    S3Reply reply = Request("POST", key, "uploadId=" + uploadId, xml.data(), xml.size(), false);
    // The storage may answer 200 with an error in the body.
    if (reply.status == 200 && !reply.Code().empty())
        reply.status = 500;
    return reply;
}

S3Reply S3Client::Abort(const std::string& key, const std::string& uploadId) const
{
    return Request("DELETE", key, "uploadId=" + uploadId, nullptr, 0, false);
}

S3Reply S3Client::ListUploads(const std::string& key, std::vector<std::string>& uploadIds) const
{
    // Keys hold safe characters and slashes only; a slash in a query value is encoded.
    std::string prefix;
    for (char ch : key)
        prefix += ch == '/' ? std::string("%2F") : std::string(1, ch);
    S3Reply reply = Request("GET", std::string(), "prefix=" + prefix + "&uploads=", nullptr, 0, false);
    uploadIds.clear();
    for (const std::string& upload : XmlValues(reply.body, "Upload")) {
        const auto keyValue = XmlValues(upload, "Key");
        const auto id = XmlValues(upload, "UploadId");
        if (!keyValue.empty() && keyValue.front() == key && !id.empty())
            uploadIds.push_back(id.front());
    }
    return reply;
}

S3Reply S3Client::Get(const std::string& key, size_t limit) const
{
    return Request("GET", key, std::string(), nullptr, 0, false, limit);
}

} // namespace QMPublish
