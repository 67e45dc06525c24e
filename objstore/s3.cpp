#include "vsobj/s3.h"

#include <curl/curl.h>
#include <openssl/evp.h>
#include <pugixml.hpp>

#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <future>
#include <mutex>

namespace vsobj {
namespace {

std::once_flag g_init;

void InitOnce() {
    std::call_once(g_init, [] { (void)curl_global_init(CURL_GLOBAL_DEFAULT); });
}

std::string Hex(const unsigned char* bytes, size_t n) {
    static const char* digits = "0123456789abcdef";
    std::string out;
    out.reserve(n * 2);
    for (size_t i = 0; i < n; ++i) {
        out.push_back(digits[bytes[i] >> 4]);
        out.push_back(digits[bytes[i] & 15]);
    }
    return out;
}

// libcrypto's SHA-256 uses the processor's SHA instructions: about 1.8 GB/s here, where
// a portable one hashed an 8 MiB part at 100 MB/s and held the whole upload up.
std::string Sha256Hex(const char* data, size_t n) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_Digest(data, n, digest, &length, EVP_sha256(), nullptr) != 1)
        throw std::runtime_error("object storage: SHA-256 failed");
    return Hex(digest, length);
}

// Each byte but the unreserved ones percent-encoded, as the signature's canonical form has
// it; a path keeps its "/", a query value does not.
std::string EncodeKey(const std::string& key, bool keepSlash = true) {
    std::string out;
    for (const unsigned char c : key) {
        if (std::isalnum(c) != 0 || c == '-' || c == '_' || c == '.' || c == '~' || (keepSlash && c == '/')) {
            out.push_back(static_cast<char>(c));
        } else {
            char buf[4];
            (void)std::snprintf(buf, sizeof buf, "%%%02X", c);
            out += buf;
        }
    }
    return out;
}

// The object store's own word on a refusal: "Code: Message".
std::string StoreSays(const std::string& body, long status) {
    // A HEAD is answered without a body.
    if (body.empty())
        return status == 404 ? "no such object" : status == 403 ? "access denied (the keys or the signature)" : "";
    pugi::xml_document doc;
    if (!doc.load_string(body.c_str())) return body.substr(0, 200);
    const pugi::xml_node error = doc.child("Error");
    std::string text = error.child_value("Code");
    const std::string message = error.child_value("Message");
    if (!message.empty()) text += (text.empty() ? "" : ": ") + message;
    return text.empty() ? body.substr(0, 200) : text;
}

struct Sink {
    std::string* text = nullptr;  // a response body kept whole (small answers)
    char* into = nullptr;         // or the caller's buffer
    size_t room = 0;
    size_t got = 0;
    std::string* etag = nullptr;
};

size_t OnBody(char* data, size_t size, size_t count, void* user) {
    Sink& s = *static_cast<Sink*>(user);
    const size_t n = size * count;
    if (s.into) {
        if (n > s.room - s.got) return 0;  // more than asked for: fail the transfer
        std::memcpy(s.into + s.got, data, n);
    } else if (s.text->size() < (1u << 20)) {
        s.text->append(data, n);
    }
    s.got += n;
    return n;
}

size_t OnHeader(char* data, size_t size, size_t count, void* user) {
    Sink& s = *static_cast<Sink*>(user);
    const size_t n = size * count;
    std::string line(data, n);
    if (s.etag && line.size() > 5 && strncasecmp(line.c_str(), "etag:", 5) == 0) {
        line = line.substr(5);
        line.erase(0, line.find_first_not_of(" \t"));
        line.erase(line.find_last_not_of(" \t\r\n") + 1);
        *s.etag = line;
    }
    return n;
}

std::string Env(const char* name) {
    const char* v = std::getenv(name);
    return v ? v : "";
}

}  // namespace

struct S3Client::Response {
    long status = 0;
    std::string body;
    std::string etag;
    size_t got = 0;
};

bool ParseS3Url(const std::string& text, S3Location& out) {
    if (text.rfind("s3://", 0) != 0) return false;
    const std::string rest = text.substr(5);
    const size_t slash = rest.find('/');
    if (slash == std::string::npos || slash == 0 || slash + 1 == rest.size())
        throw std::invalid_argument(text + " names no object: write s3://BUCKET/KEY");
    out.bucket = rest.substr(0, slash);
    out.key = rest.substr(slash + 1);
    return true;
}

S3Settings SettingsFromEnvironment() {
    S3Settings s;
    s.endpoint = Env("AWS_ENDPOINT_URL");
    if (!Env("AWS_REGION").empty()) s.region = Env("AWS_REGION");
    s.accessKey = Env("AWS_ACCESS_KEY_ID");
    s.secretKey = Env("AWS_SECRET_ACCESS_KEY");
    for (const auto& [value, name] :
         {std::pair{&s.endpoint, "AWS_ENDPOINT_URL"}, std::pair{&s.accessKey, "AWS_ACCESS_KEY_ID"},
          std::pair{&s.secretKey, "AWS_SECRET_ACCESS_KEY"}})
        if (value->empty()) throw std::runtime_error(std::string("object storage: ") + name + " is not set");
    while (!s.endpoint.empty() && s.endpoint.back() == '/') s.endpoint.pop_back();
    return s;
}

S3Client::S3Client(S3Settings settings) : m_settings(std::move(settings)) {
    InitOnce();
    m_curl = curl_easy_init();
    if (!m_curl) throw S3Error("object storage: cannot start a transfer", 0);
}

S3Client::~S3Client() {
    curl_easy_cleanup(static_cast<CURL*>(m_curl));
}

S3Client::Response S3Client::Send(const std::string& method, const S3Location& at, const std::string& query,
                                  const char* body, size_t bodyLength, const std::vector<std::string>& headers,
                                  char* into, size_t intoLength) {
    CURL* curl = static_cast<CURL*>(m_curl);
    curl_easy_reset(curl);
    const std::string url = m_settings.endpoint + "/" + at.bucket + (at.key.empty() ? "" : "/" + EncodeKey(at.key)) +
                            (query.empty() ? "" : "?" + query);
    const std::string what = method + " " + at.Url() + (query.empty() ? "" : "?" + query);
    const std::string sigv4 = "aws:amz:" + m_settings.region + ":s3";
    const std::string user = m_settings.accessKey + ":" + m_settings.secretKey;
    curl_slist* list = nullptr;
    const std::string payload = "x-amz-content-sha256: " + Sha256Hex(body ? body : "", body ? bodyLength : 0);
    list = curl_slist_append(list, payload.c_str());
    list = curl_slist_append(list, "Content-Type: application/octet-stream");
    for (const std::string& h : headers) list = curl_slist_append(list, h.c_str());
    Response r;
    Sink sink{&r.body, into, intoLength, 0, &r.etag};
    (void)curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    (void)curl_easy_setopt(curl, CURLOPT_AWS_SIGV4, sigv4.c_str());
    (void)curl_easy_setopt(curl, CURLOPT_USERPWD, user.c_str());
    (void)curl_easy_setopt(curl, CURLOPT_HTTPHEADER, list);
    (void)curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    (void)curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, 10L);
    // A store that stops answering fails the request instead of hanging the job.
    (void)curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);
    (void)curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, 60L);
    (void)curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, OnBody);
    (void)curl_easy_setopt(curl, CURLOPT_WRITEDATA, &sink);
    (void)curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, OnHeader);
    (void)curl_easy_setopt(curl, CURLOPT_HEADERDATA, &sink);
    if (method == "HEAD") {
        (void)curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
    } else {
        (void)curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, method.c_str());
        if (method == "PUT" || method == "POST") {
            (void)curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body ? body : "");
            (void)curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body ? bodyLength : 0));
        }
    }
    const CURLcode rc = curl_easy_perform(curl);
    curl_slist_free_all(list);
    (void)curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &r.status);
    r.got = sink.got;
    if (rc != CURLE_OK) throw S3Error("object storage: " + what + ": " + curl_easy_strerror(rc), 0);
    if (r.status >= 300)
        throw S3Error("object storage: " + what + ": " + std::to_string(r.status) + " " + StoreSays(r.body, r.status),
                      r.status);
    return r;
}

void S3Client::CreateBucket(const std::string& bucket) {
    Send("PUT", {bucket, ""}, "", nullptr, 0, {});
}

std::string S3Client::StartUpload(const S3Location& at) {
    // "uploads=", not "uploads": the query is signed as it is written.
    const Response r = Send("POST", at, "uploads=", nullptr, 0, {});
    pugi::xml_document doc;
    doc.load_string(r.body.c_str());
    std::string id = doc.child("InitiateMultipartUploadResult").child_value("UploadId");
    if (id.empty()) throw S3Error("object storage: no upload id for " + at.Url(), r.status);
    return id;
}

std::string S3Client::PutPart(const S3Location& at, const std::string& uploadId, int number, const char* data,
                              size_t n) {
    const Response r = Send("PUT", at, "partNumber=" + std::to_string(number) + "&uploadId=" + uploadId, data, n, {});
    if (r.etag.empty())
        throw S3Error(
            "object storage: part " + std::to_string(number) + " of " + at.Url() + " was stored without an ETag",
            r.status);
    return r.etag;
}

void S3Client::CompleteUpload(const S3Location& at, const std::string& uploadId,
                              const std::vector<std::string>& etags) {
    std::string xml = "<CompleteMultipartUpload>";
    for (size_t i = 0; i < etags.size(); ++i)
        xml += "<Part><PartNumber>" + std::to_string(i + 1) + "</PartNumber><ETag>" + etags[i] + "</ETag></Part>";
    xml += "</CompleteMultipartUpload>";
    const Response r = Send("POST", at, "uploadId=" + uploadId, xml.data(), xml.size(), {});
    // The store may answer 200 and still report an error in the body.
    if (r.body.find("<Error>") != std::string::npos)
        throw S3Error("object storage: completing " + at.Url() + ": " + StoreSays(r.body, r.status), r.status);
}

void S3Client::AbortUpload(const S3Location& at, const std::string& uploadId) {
    Send("DELETE", at, "uploadId=" + uploadId, nullptr, 0, {});
}

std::vector<std::string> S3Client::OpenUploads(const std::string& bucket) {
    const Response r = Send("GET", {bucket, ""}, "uploads=", nullptr, 0, {});
    pugi::xml_document doc;
    doc.load_string(r.body.c_str());
    std::vector<std::string> keys;
    for (const auto& u : doc.child("ListMultipartUploadsResult").children("Upload"))
        keys.emplace_back(u.child_value("Key"));
    return keys;
}

std::vector<std::string> S3Client::UploadsOf(const S3Location& at) {
    const Response r = Send("GET", {at.bucket, ""}, "prefix=" + EncodeKey(at.key, false) + "&uploads=", nullptr, 0, {});
    pugi::xml_document doc;
    doc.load_string(r.body.c_str());
    std::vector<std::string> ids;
    for (const auto& u : doc.child("ListMultipartUploadsResult").children("Upload"))
        if (at.key == u.child_value("Key")) ids.emplace_back(u.child_value("UploadId"));
    return ids;
}

std::vector<S3Client::Part> S3Client::Parts(const S3Location& at, const std::string& uploadId) {
    std::vector<Part> parts;
    std::string marker = "0";
    for (;;) {
        const Response r = Send("GET", at, "part-number-marker=" + marker + "&uploadId=" + uploadId, nullptr, 0, {});
        pugi::xml_document doc;
        doc.load_string(r.body.c_str());
        const pugi::xml_node list = doc.child("ListPartsResult");
        for (const auto& p : list.children("Part"))
            parts.push_back({std::atoi(p.child_value("PartNumber")), p.child_value("ETag"),
                             std::strtoull(p.child_value("Size"), nullptr, 10)});
        marker = list.child_value("NextPartNumberMarker");
        if (std::string(list.child_value("IsTruncated")) != "true" || marker.empty()) break;
    }
    std::sort(parts.begin(), parts.end(), [](const Part& a, const Part& b) { return a.number < b.number; });
    return parts;
}

uint64_t KeepUploadedParts(S3Client& client, const S3Location& at) {
    // Of several (there should be one), the upload that keeps the most.
    std::string keep;
    std::vector<std::string> etags;
    uint64_t bytes = 0;
    const std::vector<std::string> ids = client.UploadsOf(at);
    for (const std::string& id : ids) {
        std::vector<std::string> these;
        uint64_t size = 0;
        for (const S3Client::Part& p : client.Parts(at, id)) {
            // A writer sends its parts one after the other; a gap means bytes that do not
            // follow on. Some stores (Ceph's gateway) complete an upload only with every
            // part it holds, so such an upload is not kept at all.
            if (p.number != static_cast<int>(these.size()) + 1) {
                size = 0;
                break;
            }
            these.push_back(p.etag);
            size += p.size;
        }
        if (size > bytes) {
            keep = id;
            etags = std::move(these);
            bytes = size;
        }
    }
    for (const std::string& id : ids)
        if (id != keep) client.AbortUpload(at, id);
    if (!keep.empty()) client.CompleteUpload(at, keep, etags);
    return bytes;
}

void S3Client::Put(const S3Location& at, const std::string& data) {
    Send("PUT", at, "", data.data(), data.size(), {});
}

std::vector<std::string> S3Client::Keys(const std::string& bucket, const std::string& prefix) {
    const Response r = Send("GET", {bucket, ""}, "list-type=2&prefix=" + EncodeKey(prefix, false), nullptr, 0, {});
    pugi::xml_document doc;
    doc.load_string(r.body.c_str());
    std::vector<std::string> keys;
    for (const auto& c : doc.child("ListBucketResult").children("Contents")) keys.emplace_back(c.child_value("Key"));
    return keys;
}

uint64_t S3Client::Size(const S3Location& at) {
    Send("HEAD", at, "", nullptr, 0, {});
    curl_off_t length = -1;
    (void)curl_easy_getinfo(static_cast<CURL*>(m_curl), CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
    if (length < 0) throw S3Error("object storage: no size for " + at.Url(), 0);
    return static_cast<uint64_t>(length);
}

size_t S3Client::Read(const S3Location& at, uint64_t offset, char* out, size_t n) {
    if (n == 0) return 0;
    const std::string range = "Range: bytes=" + std::to_string(offset) + "-" + std::to_string(offset + n - 1);
    return Send("GET", at, "", nullptr, 0, {range}, out, n).got;
}

void S3Client::Delete(const S3Location& at) {
    Send("DELETE", at, "", nullptr, 0, {});
}

// ---- writing through a pipe -------------------------------------------------------------

namespace {

void BlockSigpipe() {
    // A pipe whose other end went away is an error of this thread, not a signal to the process.
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

void MakePipe(int& read, int& write) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) throw S3Error(std::string("object storage: pipe: ") + std::strerror(errno), 0);
    read = fds[0];
    write = fds[1];
}

void CloseFd(int& fd) {
    if (fd >= 0) ::close(fd);
    fd = -1;
}

}  // namespace

uint64_t ObjectWriter::PartBytes(int number) {
    return uint64_t{kPartBytes} << std::min((number - 1) / 1000, 9);
}

ObjectWriter::ObjectWriter(const S3Settings& settings, S3Location at, std::string spool)
    : m_client(std::make_unique<S3Client>(settings)), m_at(std::move(at)), m_spool(std::move(spool)) {
    if (m_spool.empty()) {
        const char* tmp = std::getenv("TMPDIR");
        m_spool = tmp && *tmp ? tmp : "/tmp";
    }
    m_uploadId = m_client->StartUpload(m_at);
    MakePipe(m_read, m_write);
    m_thread = std::thread([this] { Upload(); });
}

ObjectWriter::~ObjectWriter() {
    if (!m_done) Abort();
}

namespace {

// A part on its way: an unlinked file its bytes are gathered in, mapped when it is sent
// (the page cache holds it, not the process's heap).
class SpooledPart {
public:
    explicit SpooledPart(const std::string& folder) {
        m_fd = ::open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
        if (m_fd < 0 && (errno == EOPNOTSUPP || errno == EISDIR)) {
            // A file system without unnamed files: a named one, unlinked at once.
            std::string name = folder + "/vs-part-XXXXXX";
            m_fd = ::mkostemp(name.data(), O_CLOEXEC);
            if (m_fd >= 0) ::unlink(name.c_str());
        }
        if (m_fd < 0)
            throw S3Error("object storage: cannot make a part's file in " + folder + ": " + std::strerror(errno), 0);
    }
    ~SpooledPart() { ::close(m_fd); }
    SpooledPart(const SpooledPart&) = delete;
    SpooledPart& operator=(const SpooledPart&) = delete;

    void Append(const char* data, size_t n) {
        for (size_t done = 0; done < n;) {
            const ssize_t w = ::pwrite(m_fd, data + done, n - done, static_cast<off_t>(m_size + done));
            if (w < 0 && errno == EINTR) continue;
            if (w <= 0) throw S3Error(std::string("object storage: writing a part's file: ") + std::strerror(errno), 0);
            done += static_cast<size_t>(w);
        }
        m_size += n;
    }
    void Reset() {
        if (::ftruncate(m_fd, 0) != 0)
            throw S3Error(std::string("object storage: cannot reuse a part's file: ") + std::strerror(errno), 0);
        m_size = 0;
    }
    // Uploads the part as part `number` of `uploadId`; its ETag.
    std::string Send(S3Client& client, const S3Location& at, const std::string& uploadId, int number) const {
        if (m_size == 0) return client.PutPart(at, uploadId, number, nullptr, 0);
        void* bytes = ::mmap(nullptr, m_size, PROT_READ, MAP_SHARED, m_fd, 0);
        if (bytes == MAP_FAILED)
            throw S3Error(std::string("object storage: cannot map a part's file: ") + std::strerror(errno), 0);
        try {
            std::string etag = client.PutPart(at, uploadId, number, static_cast<const char*>(bytes), m_size);
            ::munmap(bytes, m_size);
            return etag;
        } catch (...) {
            ::munmap(bytes, m_size);
            throw;
        }
    }
    uint64_t size() const { return m_size; }

private:
    int m_fd = -1;
    size_t m_size = 0;
};

}  // namespace

void ObjectWriter::Upload() {
    BlockSigpipe();
    std::vector<char> buf(1u << 20);
    // Two parts: one is sent while the next fills, so the stream's writer does not wait on
    // each request. Declared before the request, so that they outlive it.
    std::unique_ptr<SpooledPart> parts[2];
    std::future<std::string> sending;
    const auto sent = [&] {
        if (sending.valid()) m_etags.push_back(sending.get());
    };
    try {
        for (auto& part : parts) part = std::make_unique<SpooledPart>(m_spool);
        int filling = 0;
        bool end = false;
        while (!end) {
            SpooledPart& part = *parts[filling];
            const int number = static_cast<int>(m_etags.size()) + (sending.valid() ? 2 : 1);
            const uint64_t room = PartBytes(number) - part.size();
            const ssize_t n = ::read(m_read, buf.data(), static_cast<size_t>(std::min<uint64_t>(buf.size(), room)));
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) throw S3Error(std::string("object storage: reading the stream: ") + std::strerror(errno), 0);
            end = n == 0;
            if (m_abandoned) break;
            part.Append(buf.data(), static_cast<size_t>(n));
            // A full part goes out; the last one may be short (or empty, for an empty stream).
            if (part.size() == PartBytes(number) ||
                (end && (part.size() > 0 || (m_etags.empty() && !sending.valid())))) {
                sent();
                sending = std::async(std::launch::async,
                                     [this, number, &part] { return part.Send(*m_client, m_at, m_uploadId, number); });
                filling ^= 1;
                // The other part's file is free once its request has ended.
                if (!end) {
                    SpooledPart& next = *parts[filling];
                    if (next.size() > 0) next.Reset();
                }
            }
        }
        sent();
    } catch (const std::exception& e) {
        m_error = e.what();
    }
    // A part still on its way is waited for before its file goes.
    if (sending.valid()) sending.wait();
    // After a failure the writer's next write fails (EPIPE) instead of waiting on a pipe
    // nobody drains.
    if (!m_error.empty()) CloseFd(m_read);
}

bool ObjectWriter::Finish(std::string& why) {
    CloseFd(m_write);
    if (m_thread.joinable()) m_thread.join();
    CloseFd(m_read);
    m_done = true;
    try {
        if (!m_error.empty()) throw std::runtime_error(m_error);
        m_client->CompleteUpload(m_at, m_uploadId, m_etags);
        return true;
    } catch (const std::exception& e) {
        why = e.what();
    }
    try {
        m_client->AbortUpload(m_at, m_uploadId);
    } catch (const std::exception& e) {
        why += std::string("; the upload's parts may be left: ") + e.what();
    }
    return false;
}

void ObjectWriter::Abort() {
    m_abandoned = true;
    CloseFd(m_write);  // the upload thread sees the end and uploads nothing more
    if (m_thread.joinable()) m_thread.join();
    CloseFd(m_read);
    m_done = true;
    try {
        m_client->AbortUpload(m_at, m_uploadId);
    } catch (const std::exception&) {
        // Nothing to tell the caller: it is giving the stream up already.
    }
}

// ---- reading through a pipe -------------------------------------------------------------

ObjectReader::ObjectReader(const S3Settings& settings, S3Location at)
    : m_client(std::make_unique<S3Client>(settings)), m_at(std::move(at)) {
    m_size = m_client->Size(m_at);
    MakePipe(m_read, m_write);
    m_thread = std::thread([this] { Fetch(); });
}

ObjectReader::~ObjectReader() {
    CloseFd(m_read);  // a fetch blocked on the pipe fails with EPIPE and ends
    if (m_thread.joinable()) m_thread.join();
    CloseFd(m_write);
}

void ObjectReader::Fetch() {
    BlockSigpipe();
    std::vector<char> buf(kRangeBytes);
    try {
        for (uint64_t offset = 0; offset < m_size;) {
            const size_t want = static_cast<size_t>(std::min<uint64_t>(buf.size(), m_size - offset));
            const size_t got = m_client->Read(m_at, offset, buf.data(), want);
            if (got != want)
                throw S3Error("object storage: " + m_at.Url() + " ended at " + std::to_string(offset + got) +
                                  " of its " + std::to_string(m_size) + " bytes",
                              0);
            for (size_t done = 0; done < got;) {
                const ssize_t n = ::write(m_write, buf.data() + done, got - done);
                if (n < 0 && errno == EINTR) continue;
                if (n < 0) {
                    CloseFd(m_write);
                    return;  // the reader went away: nothing more is wanted
                }
                done += static_cast<size_t>(n);
            }
            offset += got;
        }
    } catch (const std::exception& e) {
        m_error = e.what();
    }
    CloseFd(m_write);
}

std::string ObjectReader::Error() {
    // Done reading: a fetch still under way ends at its next write.
    CloseFd(m_read);
    if (m_thread.joinable()) m_thread.join();
    return m_error;
}

}  // namespace vsobj
